#include "bench/show/ShowRival.h"

#include <array>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

#include "RouteCache/RouteCache.h"
#include "bench/harness/Tables.h"
#include "bench/show/ShowSwitch.h"
#include "platform/values/Paths.h"

namespace Bench {

namespace {

using RouteCache::Ipv4AdjacencyStatus;
using RouteCache::Ipv4RouteStatus;

template <std::size_t size, class... Values>
std::array<char, size> printed(const char* format, Values... values) {
  std::array<char, size> text;  // NOLINT: filled by snprintf
  std::snprintf(text.data(), text.size(), format, values...);
  return text;
}

auto printed(IpAddr addr) {
  const std::uint32_t bits = addr.value();
  return printed<16>("%u.%u.%u.%u", bits >> 24, bits >> 16 & 0xFF, bits >> 8 & 0xFF, bits & 0xFF);
}

auto printed(const Prefix& prefix) {
  return printed<20>("%s/%u", printed(prefix.addr()).data(), static_cast<unsigned>(prefix.length()));
}

auto printed(const EthAddr& mac) {
  const auto& bytes = mac.bytes();
  return printed<18>("%02x:%02x:%02x:%02x:%02x:%02x", unsigned{bytes[0]}, unsigned{bytes[1]}, unsigned{bytes[2]},
                     unsigned{bytes[3]}, unsigned{bytes[4]}, unsigned{bytes[5]});
}

class PlainListing {
 public:
  PlainListing(const Ipv4RouteStatus& routes, const Ipv4AdjacencyStatus& adjacencies)
      : routes_(routes), adjacencies_(adjacencies) {}
  void text() const;
  void json() const;

 private:
  template <class Print>
  void forEachRoute(Print&& print) const {
    for (const auto& route : routes_) {
      if (route.key().vrfId() == Workload::hwVrfId(listedVrf)) print(route, adjacencies_.adj(route.adjId()).value());
    }
  }

  const Ipv4RouteStatus& routes_;
  const Ipv4AdjacencyStatus& adjacencies_;
};

void PlainListing::text() const {
  std::printf("%-18s %-4s %-10s %-8s %-7s %-15s %-4s %-17s %-11s\n", "Prefix", "InHw", "NextHopId", "VxlanId", "Vni",
              "MacAddress", "Vlan", "RemoteVtep", "UnderlayFEC");
  std::printf("%s\n", std::string(102, '-').c_str());
  forEachRoute([](const auto& route, const auto& adjacency) {
    std::printf("%-18s %-4s 0x%-8x ", printed(route.key().prefix()).data(), route.inHw() ? "True" : "False",
                route.adjId().value());
    bool isFirst = true;
    for (const auto& via : adjacency.viaKey()) {
      if (!isFirst) std::printf("%-18s %-4s %-10s ", "", "", "");
      isFirst = false;
      std::printf("%-8s %-7u %-15s %-4u %-17s 0x%-9llx\n", via.vti().name().c_str(), Workload::vni,
                  printed(via.routerMac()).data(), unsigned{via.extendedVlanId()}, printed(via.remoteVtepIp()).data(),
                  static_cast<unsigned long long>(via.underlayFecId().value()));
    }
  });
}

void PlainListing::json() const {
  std::printf("{\n \"vrfs\": {\n  \"%s\": {\n   \"routes\": {", Workload::vrfName(listedVrf).c_str());
  const char* routeComma = "";
  forEachRoute([&routeComma](const auto& route, const auto& adjacency) {
    const auto prefix = printed(route.key().prefix());
    std::printf("%s\n    \"%s\": {\"prefix\": \"%s\", \"inHw\": \"%s\", \"nextHopId\": %u,\n     \"nextHopInfo\": {",
                routeComma, prefix.data(), prefix.data(), route.inHw() ? "True" : "False", route.adjId().value());
    routeComma = ",";
    const char* comma = "";
    unsigned index = 0;
    for (const auto& via : adjacency.viaKey()) {
      std::printf(
          "%s\n      \"%u\": {\"vxlanId\": %u, \"macAddress\": \"%s\", \"vlanId\": %u, \"remoteVtep\": \"%s\", "
          "\"underlayFecId\": %llu}",
          comma, index++, Workload::vni, printed(via.routerMac()).data(), unsigned{via.extendedVlanId()},
          printed(via.remoteVtepIp()).data(), static_cast<unsigned long long>(via.underlayFecId().value()));
      comma = ",";
    }
    std::printf("\n     }\n    }");
  });
  std::printf("\n   }\n  }\n }\n}\n");
}

}  // namespace

void runPlainListing(const std::string& directory) {
  Tables tables(directory);
  const auto routes = tables.reader<Ipv4RouteStatus>(Paths::hwRoutes);
  const auto adjacencies = tables.reader<Ipv4AdjacencyStatus>(Paths::adjacencies);
  const PlainListing listing(*routes, *adjacencies);
  std::cout << nlohmann::json::object().dump() << std::endl;
  std::string line;
  std::getline(std::cin, line);
  line == "json" ? listing.json() : listing.text();
  std::fclose(stdout);
  std::getline(std::cin, line);
}

}  // namespace Bench
