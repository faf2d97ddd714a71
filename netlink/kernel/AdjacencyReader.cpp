#include "netlink/kernel/AdjacencyReader.h"

#include <utility>

#include "platform/values/Paths.h"

namespace Netlink {

using RouteCache::AdjId;

// One of the two tables. Its next hops have slots of their own, from firstSlot on.
template <class Table>
class AdjacencyReader::Side final : public Table::Reactor {
 public:
  Side(AdjacencyReader& reader, std::shared_ptr<const Table> table, Slot firstSlot)
      : Table::Reactor(table), reader_(reader), table_(std::move(table)), firstSlot_(firstSlot) {}

  void handleEntry(const AdjId& key) override { reader_.changed_(key); }
  void handleMountStatus() override { reader_.comparisonWanted_(); }
  // Adjacencies that are gone may go.
  void handleWriter() override {
    if (table_->reconciled()) reader_.comparisonWanted_();
  }

  // Behind what `content` has.
  State read(AdjId adjId, KernelNexthops::Content& content) const {
    const auto entry = table_->mounted() ? table_->adj(adjId) : std::nullopt;
    if (!entry) return table_->mounted() && table_->reconciled() ? State::gone : State::undecided;
    Slot slot = firstSlot_;
    for (const auto& adjacency : entry->viaKey()) {
      const auto device = reader_.surroundings_.deviceOf(adjacency.vti());
      const auto vni = reader_.surroundings_.vniOf(adjacency.vti(), adjacency.extendedVlanId());
      if (!device || !vni) return State::undecided;
      content.push_back({slot++,
                         {{*device, adjacency.routerMac()}, *vni, IpGenAddr(adjacency.remoteVtepIp())},
                         !adjacency.underlayFecId().isEmpty()});
    }
    return State::whole;
  }

  bool walk(const std::function<bool()>& shouldYield) {
    if (!table_->mounted()) return true;
    auto entry = bookmark_ ? table_->lowerBound(*bookmark_) : table_->begin();
    if (bookmark_ && entry != table_->end() && entry->key() == *bookmark_) ++entry;
    for (; entry != table_->end(); ++entry) {
      bookmark_ = entry->key();
      reader_.changed_(*bookmark_);
      if (shouldYield()) return false;
    }
    bookmark_.reset();
    return true;
  }

 private:
  AdjacencyReader& reader_;
  std::shared_ptr<const Table> table_;
  Slot firstSlot_;
  std::optional<AdjId> bookmark_;  // of the walk: the last one handed on
};

namespace {

template <class Table>
std::shared_ptr<const Table> followed(Pondra::TableService& tables, const char* path) {
  tables.mountWhenReadable(path, Table::typeName);
  return tables.get<Table>(path);
}

}  // namespace

AdjacencyReader::AdjacencyReader(Pondra::TableService& tables, Surroundings surroundings,
                                 std::function<void(AdjId)> changed, std::function<void()> comparisonWanted)
    : surroundings_(std::move(surroundings)),
      changed_(std::move(changed)),
      comparisonWanted_(std::move(comparisonWanted)) {
  using RouteCache::Ipv4AdjacencyStatus;
  using RouteCache::Ipv6AdjacencyStatus;
  constexpr Slot first = 1;
  constexpr Slot first6 = first + RouteCache::ViaIndex::max + 1;
  v4_ = std::make_unique<Side<Ipv4AdjacencyStatus>>(*this, followed<Ipv4AdjacencyStatus>(tables, Paths::adjacencies),
                                                    first);
  v6_ = std::make_unique<Side<Ipv6AdjacencyStatus>>(*this, followed<Ipv6AdjacencyStatus>(tables, Paths::adjacencies6),
                                                    first6);
}

AdjacencyReader::~AdjacencyReader() = default;

// Of one that stands in both tables both halves have to be there: they are written one after the other.
AdjacencyReader::State AdjacencyReader::read(AdjId adjId, KernelNexthops::Content& content) const {
  content.clear();
  if (!adjId.isAdjacencyMixed()) return adjId.isAdjacencyV4() ? v4_->read(adjId, content) : v6_->read(adjId, content);
  const State state4 = v4_->read(adjId, content);
  const State state6 = v6_->read(adjId, content);
  return state4 == state6 ? state4 : State::undecided;
}

bool AdjacencyReader::walk(const std::function<bool()>& shouldYield) {
  return v4_->walk(shouldYield) && v6_->walk(shouldYield);
}

}  // namespace Netlink
