#include "bench/routers/OwnNetwork.h"

#include <net/if.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <initializer_list>
#include <system_error>

#include "bench/harness/ChildProcess.h"

namespace Bench {

namespace {

constexpr const char* ipProgram = "/sbin/ip";
constexpr const char* interface = "uplink";

void ip(std::initializer_list<const char*> lines) {
  ChildProcess process({"-batch", "-"}, ipProgram);
  for (const char* line : lines) process.tell(line);
  process.wait();
}

// Of a pair, so that it is up; on the wire there is nobody.
void interfaceIsUp() {
  ip({"link add uplink type veth peer name peer", "link set peer up", "address add 10.1.255.254/16 dev uplink",
      "link set uplink up"});
}

}  // namespace

std::string enterOwnNetwork() {
  if (::access(ipProgram, X_OK) != 0) return std::string(ipProgram) + " is missing";
  if (::unshare(CLONE_NEWNET) != 0) return "no network namespace: " + std::generic_category().message(errno);
  ip({"link set lo up", "link add vx type vxlan external dstport 4789", "link set vx up"});
  interfaceIsUp();
  return "";
}

int ownInterface() {
  return static_cast<int>(::if_nametoindex(interface));
}

void resetOwnInterface() {
  ip({"link delete uplink"});
  interfaceIsUp();
}

std::size_t kernelRoutes() {
  std::ifstream tables("/proc/self/net/fib_triestat");
  std::size_t routes = 0;
  for (std::string word; tables >> word && word != "Main:";) {
  }
  for (std::string word; tables >> word;) {
    if (word == "Prefixes:") {
      tables >> routes;
      break;
    }
  }
  return routes;
}

}  // namespace Bench
