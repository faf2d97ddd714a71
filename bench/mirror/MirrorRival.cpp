#include "bench/mirror/MirrorRival.h"

#include <functional>
#include <stdexcept>
#include <unordered_map>

#include "RouteCache/RouteCache.h"
#include "bench/harness/BenchDirectory.h"
#include "bench/harness/LmdbStore.h"
#include "platform/tables/Trie.h"

namespace Bench {

namespace {

using Bytes = LmdbStore::Bytes;
using Routing::Rib::Route;
using Published = RouteCache::Ipv4Route;
using PublishedTraits = Pondra::TableTraits<Published>;

// The tables, full but for the kernel's, and what is made of one published route.
class Mirror {
 public:
  Mirror(const std::string& directory, const std::vector<Route>& routes);
  double seconds(const std::function<void()>& allRoutes);
  void walk() {
    store_.walk(published_, [this](Bytes key, Bytes value) { mirror(key, value); });
  }
  void lookUp(const Published& route) {
    const auto key = encodedKey<Published>(route.key());
    mirror(key, store_.get(published_, key).value());
  }

 private:
  void mirror(Bytes keyBytes, Bytes value);

  struct Vrf {
    std::uint32_t piVrfId = 0;
    Routing::Trie trie;
  };
  std::size_t expected_;
  std::size_t mirrored_ = 0;
  LmdbStore store_;
  MDB_dbi published_;
  MDB_dbi configured_;
  MDB_dbi kernel_;
  std::unordered_map<std::uint32_t, Vrf> vrfs_;  // by hardware id
};

Mirror::Mirror(const std::string& directory, const std::vector<Route>& routes)
    : expected_(routes.size()),
      store_(directory, routes.size() * 1024 + (std::size_t{64} << 20)),
      published_(store_.database("published")),
      configured_(store_.database("configured")),
      kernel_(store_.database("kernel")) {
  for (const Route& route : routes) {
    store_.putValue(published_, MirrorWorkload::published(route));
    store_.putValue(configured_, route);
  }
  store_.commit();
  for (std::uint32_t i = 0; i < MirrorWorkload::vrfs; ++i) {
    Vrf& vrf = vrfs_[Workload::hwVrfId(MirrorWorkload::firstVrf + i)];
    vrf.piVrfId = MirrorWorkload::firstVrf + i;
    vrf.trie.routeIs(MirrorWorkload::cachedPrefix(), true);
  }
}

void Mirror::mirror(Bytes keyBytes, Bytes value) {
  const std::optional<PublishedTraits::Key> key = PublishedTraits::decodeKey(keyBytes.data());
  const auto route = PublishedTraits::decode(key.value(), value).value();
  const Vrf& vrf = vrfs_.at(route.key().vrfId());
  if (vrf.trie.longestMatch(route.key().prefix())) return;
  const Routing::Rib::RouteKey kernelKey(vrf.piVrfId, route.key().prefix());
  const auto configured = store_.get(configured_, encodedKey<Route>(kernelKey));
  const auto wanted = Pondra::TableTraits<Route>::decode(kernelKey, configured.value()).value();
  store_.putValue(kernel_, wanted);
  ++mirrored_;
}

double Mirror::seconds(const std::function<void()>& allRoutes) {
  const Stopwatch stopwatch;
  allRoutes();
  store_.commit();
  const double seconds = stopwatch.cpuSeconds();
  if (mirrored_ != expected_) throw std::runtime_error("the rival has not done the job");
  return seconds;
}

}  // namespace

double mirrorOverLmdb(const std::string& directory, const std::vector<Route>& routes) {
  const BenchDirectory own(directory);
  Mirror mirror(own.path(), routes);
  return mirror.seconds([&] {
    for (const Route& route : routes) mirror.lookUp(MirrorWorkload::published(route));
  });
}

double mirrorWalkOverLmdb(const std::string& directory, const std::vector<Route>& routes) {
  const BenchDirectory own(directory);
  Mirror mirror(own.path(), routes);
  return mirror.seconds([&] { mirror.walk(); });
}

}  // namespace Bench
