#include "netlink/kernel/KernelFlush.h"

#include <linux/netlink.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "netlink/kernel/KernelMessages.h"
#include "netlink/messages/Dump.h"
#include "netlink/messages/Socket.h"

namespace Netlink {

namespace {

template <class Value>
std::vector<Value> allOf(Dump dump, std::optional<Value> (*read)(const nlmsghdr&)) {
  MessageBuffer question;
  askForDump(question, 1, dump);
  std::vector<Value> values;
  dumped(question, [&](const nlmsghdr& message) {
    if (auto value = read(message)) values.push_back(*std::move(value));
  });
  return values;
}

// Sends a message for each value. What is gone by itself is no fault.
template <class Value, class Append>
std::size_t remove(const std::vector<Value>& values, Append append) {
  constexpr std::size_t batch = 512;
  Socket socket;
  MessageBuffer messages;
  std::uint32_t sequence = 1;
  for (std::size_t i = 0; i < values.size(); ++i) {
    append(messages, sequence++, values[i]);
    if (messages.messages() < batch && i + 1 < values.size()) continue;
    messages.answerIsWanted();
    const auto outcome = socket.exchange(messages, sequence - static_cast<std::uint32_t>(messages.messages()));
    for (const auto& refusal : outcome.refusals) {
      if (refusal.error == ESRCH || refusal.error == ENOENT) continue;
      throw std::runtime_error("the kernel's routes: " + std::generic_category().message(refusal.error));
    }
    messages.clear();
  }
  return values.size();
}

}  // namespace

Flushed flushKernel() {
  Flushed flushed;
  for (const Dump dump : {Dump::routes4, Dump::routes6}) {
    flushed.routes += remove(allOf(dump, routeIn), [](MessageBuffer& out, std::uint32_t sequence, const auto& route) {
      addRoute(out, sequence, Change::remove, route);
    });
  }
  // A group before its members: it would be changed by each.
  auto nexthops = allOf(Dump::nexthops, nexthopIn);
  std::stable_partition(nexthops.begin(), nexthops.end(),
                        [](const Nexthop& nexthop) { return !nexthop.members.empty(); });
  flushed.nexthops = remove(nexthops, [](MessageBuffer& out, std::uint32_t sequence, const Nexthop& nexthop) {
    removeNexthop(out, sequence, nexthop.id);
  });
  flushed.neighbours = remove(allOf(Dump::neighbours, neighbourIn),
                              [](MessageBuffer& out, std::uint32_t sequence, const Neighbour& neighbour) {
                                addNeighbour(out, sequence, Change::remove, neighbour);
                              });
  return flushed;
}

}  // namespace Netlink
