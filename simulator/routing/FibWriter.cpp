#include "simulator/routing/FibWriter.h"

#include "simulator/routing/TableWriting.h"

namespace Tools {

std::optional<L3::VrfName> vrfOfFibTable(const std::string& path) {
  constexpr std::string_view beforeName = "/vrf/status/";
  const std::size_t at = path.find(beforeName);
  const auto name = at == std::string::npos
                        ? L3::VrfName()
                        : Platform::TextForm<L3::VrfName>::from(path.substr(at + beforeName.size()));
  if (!name) return std::nullopt;
  const Pondra::FibTablePaths paths = Pondra::fibTablePaths(*name);
  return path == paths.ipv4 || path == paths.ipv6 ? name : std::nullopt;
}

FibWriter::FibWriter(Pondra::TableService& tables, const std::vector<L3::VrfName>& vrfs, Progress progress)
    : tables_(tables), progress_(std::move(progress)) {
  for (const L3::VrfName& vrf : vrfs) {
    const Pondra::FibTablePaths paths = Pondra::fibTablePaths(vrf);
    vrfs_.push_back({{paths.ipv4, mountToRead<Pondra::Fib::RouteStatus>(tables, paths.ipv4)},
                     {paths.ipv6, mountToRead<Pondra::Fib6::RouteStatus>(tables, paths.ipv6)}});
  }
}

// All tables before the first is touched: a change that is refused must leave everything as it is.
void FibWriter::writerIs(const std::vector<Prefix>& keys4, const std::vector<Ip6Prefix>& keys6,
                         std::uint32_t capacity) {
  std::vector<std::uint32_t> capacities;
  for (const auto& [ipv4, ipv6] : vrfs_) {
    capacities.push_back(capacityFor(*ipv4.table, keys4, capacity, ipv4.path));
    capacities.push_back(capacityFor(*ipv6.table, keys6, capacity, ipv6.path));
  }
  auto next = capacities.begin();
  for (auto& [ipv4, ipv6] : vrfs_) {
    mountToWrite(tables_, ipv4.path, ipv4.table, *next++);
    mountToWrite(tables_, ipv6.path, ipv6.table, *next++);
  }
}

void FibWriter::apply(const std::vector<IpGenPrefix>& prefixes, std::optional<std::uint8_t> type,
                      std::uint32_t capacity) {
  std::vector<Prefix> keys4;
  std::vector<Ip6Prefix> keys6;
  for (const IpGenPrefix& prefix : prefixes) {
    if (prefix.isV4()) {
      keys4.push_back(prefix.v4());
    } else {
      keys6.push_back(prefix.v6());
    }
  }
  writerIs(keys4, keys6, capacity);
  for (const auto& [ipv4, ipv6] : vrfs_) {
    write(*ipv4.table, keys4, type);
    write(*ipv6.table, keys6, type);
  }
}

template <class TableType>
void FibWriter::write(TableType& table, const std::vector<typename TableType::Key>& keys,
                      std::optional<std::uint8_t> type) {
  using Route = typename TableType::Value;
  using RouteType = decltype(Route().routeType());
  const RouteType routeType = type ? static_cast<RouteType>(*type) : RouteType::routeCache_;
  for (const auto& key : keys) {
    progress_();
    table.routeIs(Route(key, routeType));
  }
  reconcile(table);
}

std::size_t FibWriter::remove(const std::function<bool(const IpGenPrefix&)>& doomed) {
  writerIs({}, {}, 0);
  std::size_t removed = 0;
  for (const auto& [ipv4, ipv6] : vrfs_) removed += remove(*ipv4.table, doomed) + remove(*ipv6.table, doomed);
  return removed;
}

template <class TableType>
std::size_t FibWriter::remove(TableType& table, const std::function<bool(const IpGenPrefix&)>& doomed) {
  std::size_t removed = 0;
  for (const auto& route : table) {
    if (!doomed(route.key())) continue;
    progress_();
    table.routeDel(route.key());
    ++removed;
  }
  reconcile(table);
  return removed;
}

}  // namespace Tools
