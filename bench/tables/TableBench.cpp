// The shared table by itself, at a million entries, next to LMDB doing the same in the same run and to a std::map that
// nobody else can see. bench/README.md says what the figures mean.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "RouteCache/RouteCache.h"
#include "bench/harness/BenchDirectory.h"
#include "bench/harness/Tables.h"
#include "simulator/input/PrefixList.h"
#ifdef ROUTECACHE_LMDB
#include "bench/harness/EncodedValue.h"
#include "bench/harness/LmdbStore.h"
#endif

namespace Bench {

namespace {

constexpr std::uint32_t entryCount = 1'000'000;

// --- What is stored --------------------------------------------------------------------------------------------------

struct Routes {
  using Table = RouteCache::Ipv4RouteStatus;
  using Value = RouteCache::Ipv4Route;
  static constexpr const char* name = "Ipv4RouteStatus";
  // Prefixes with the length mix of the Internet's table, over 64 VRFs.
  static std::vector<Value> values() {
    std::vector<Value> made;
    std::uint32_t index = 0;
    for (const IpGenPrefix& prefix : Tools::generatePrefixes(entryCount, 1)) {
      made.emplace_back(Value::Key(prefix.v4(), index % 64), RouteCache::AdjId(1 + index % 20'000), true);
      ++index;
    }
    return made;
  }
  static void put(Table& table, const Value& value) { table.routeIs(value); }
  static void erase(Table& table, const Value& value) { table.routeDel(value.key()); }
  static void change(Value& value) { value.adjIdIs(RouteCache::AdjId(value.adjId().value() + 1)); }
};

struct Adjacencies {
  using Table = RouteCache::Ipv4AdjacencyStatus;
  using Value = RouteCache::Ipv4Via;
  static constexpr const char* name = "Ipv4AdjacencyStatus";
  // Two next hops each: 64 bytes.
  static std::vector<Value> values() {
    std::vector<Value> made;
    for (std::uint32_t id = 1; id <= entryCount; ++id) {
      Value& via = made.emplace_back(RouteCache::AdjId(id));
      for (std::uint16_t slot = 0; slot < 2; ++slot) {
        via.viaKeyIs(RouteCache::ViaIndex(slot),
                     {Fib::FecId(id), 10, EthAddr(), IntfId("Vxlan1"), IpAddr(0x0a000000 + id + slot)});
      }
    }
    return made;
  }
  static void put(Table& table, const Value& value) { table.adjIs(value); }
  static void erase(Table& table, const Value& value) { table.adjDel(value.key()); }
  static void change(Value& value) {
    auto slot = value.viaKey()[0];
    slot.underlayFecIdIs(Fib::FecId(slot.underlayFecId().value() + 1));
    value.viaKeyIs(RouteCache::ViaIndex(0), slot);
  }
};

// Entries in key order, the same in random order, and those with other values.
template <class Kind>
struct Entries {
  using Value = typename Kind::Value;
  Entries() : ordered(Kind::values()) {
    std::ranges::sort(ordered, {}, &Value::key);
    shuffled = ordered;
    std::ranges::shuffle(shuffled, std::mt19937_64(1));
    changed = shuffled;
    for (Value& value : changed) Kind::change(value);
  }
  std::vector<Value> ordered;
  std::vector<Value> shuffled;
  std::vector<Value> changed;

  static const Entries& instance() {
    static const Entries entries;
    return entries;
  }
};

// --- Where it is stored ----------------------------------------------------------------------------------------------

// A writer's table and a reader's on the same file.
template <class Kind>
class SharedStore {
 public:
  using Value = typename Kind::Value;
  static constexpr const char* name = "shared";

  SharedStore()
      : directory_(defaultParentDirectory()),
        written_(directory_.path()),
        read_(directory_.path()),
        writer_(written_.writer<Table>("bench/table", entryCount)),
        reader_(read_.reader<Table>("bench/table")) {}
  void put(const Value& value) { Kind::put(*writer_, value); }
  void erase(const Value& value) { Kind::erase(*writer_, value); }
  void finish() { written_.service().flush(); }
  bool holds(const Value& value) const { return reader_->entry(value.key()) == value; }
  std::size_t walk() const {
    std::size_t count = 0;
    for (const auto& value : *reader_) {
      benchmark::DoNotOptimize(value);
      ++count;
    }
    return count;
  }

 private:
  using Table = typename Kind::Table;
  BenchDirectory directory_;
  Tables written_;
  Tables read_;
  std::shared_ptr<Table> writer_;
  std::shared_ptr<Table> reader_;
};

#ifdef ROUTECACHE_LMDB
template <class Kind>
class LmdbTable {
 public:
  using Value = typename Kind::Value;
  static constexpr const char* name = "LMDB";

  LmdbTable()
      : directory_(defaultParentDirectory()),
        store_(directory_.path(), std::size_t{2} << 30),
        database_(store_.database("table")) {}
  void put(const Value& value) {
    const EncodedValue<Value> encoded(value);
    store_.put(database_, encoded.key(), encoded.bytes());
  }
  void erase(const Value& value) { store_.erase(database_, encodedKey<Value>(value.key())); }
  void finish() { store_.commit(); }
  bool holds(const Value& value) {
    const auto bytes = store_.get(database_, encodedKey<Value>(value.key()));
    return bytes && Pondra::TableTraits<Value>::decode(value.key(), *bytes) == value;
  }
  std::size_t walk() {
    std::size_t count = 0;
    store_.walk(database_, [&](LmdbStore::Bytes keyBytes, LmdbStore::Bytes bytes) {
      using Traits = Pondra::TableTraits<Value>;
      const std::optional<typename Traits::Key> key = Traits::decodeKey(keyBytes.data());
      benchmark::DoNotOptimize(Traits::decode(*key, bytes));
      ++count;
    });
    return count;
  }

 private:
  BenchDirectory directory_;
  LmdbStore store_;
  MDB_dbi database_;
};
#endif

template <class Kind>
class MapStore {
 public:
  using Value = typename Kind::Value;
  static constexpr const char* name = "std::map";

  void put(const Value& value) { map_.insert_or_assign(value.key(), value); }
  void erase(const Value& value) { map_.erase(value.key()); }
  void finish() {}
  bool holds(const Value& value) const {
    const auto found = map_.find(value.key());
    return found != map_.end() && found->second == value;
  }
  std::size_t walk() const {
    std::size_t count = 0;
    for (const auto& entry : map_) {
      benchmark::DoNotOptimize(Value(entry.second));
      ++count;
    }
    return count;
  }

 private:
  std::map<typename Pondra::TableTraits<Value>::Key, Value> map_;
};

// --- What is done ----------------------------------------------------------------------------------------------------

enum class Work { insertInOrder, insertAtRandom, replace, lookUp, walk, erase };
constexpr struct {
  Work work;
  const char* name;
} works[] = {{Work::insertInOrder, "insert in order"},
             {Work::insertAtRandom, "insert at random"},
             {Work::replace, "replace at random"},
             {Work::lookUp, "look up at random"},
             {Work::walk, "walk in order"},
             {Work::erase, "erase at random"}};

template <class Store, class Value>
void putAll(Store& store, const std::vector<Value>& values) {
  for (const Value& value : values) store.put(value);
  store.finish();
}

// False: the store does not hold what it should.
template <class Store, class Kind>
bool perform(Work work, Store& store, const Entries<Kind>& entries) {
  std::size_t missing = 0;
  switch (work) {
    case Work::insertInOrder:
      putAll(store, entries.ordered);
      break;
    case Work::insertAtRandom:
      putAll(store, entries.shuffled);
      break;
    case Work::replace:
      putAll(store, entries.changed);
      break;
    case Work::lookUp:
      for (const auto& value : entries.shuffled) missing += store.holds(value) ? 0U : 1U;
      break;
    case Work::walk:
      missing = entryCount - store.walk();
      break;
    case Work::erase:
      for (const auto& value : entries.shuffled) store.erase(value);
      store.finish();
      break;
  }
  return missing == 0;
}

template <class Store, class Kind>
void run(benchmark::State& state, Work work) {
  const auto& entries = Entries<Kind>::instance();
  for (auto _ : state) {
    state.PauseTiming();
    auto store = std::make_unique<Store>();
    if (work != Work::insertInOrder && work != Work::insertAtRandom) putAll(*store, entries.ordered);
    state.ResumeTiming();
    const bool good = perform(work, *store, entries);
    state.PauseTiming();
    if (!good) state.SkipWithError("entries are missing");
    store.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * entryCount);
}

template <class Kind, class Store>
void registerStore(Work work, const char* workName) {
  const std::string name = std::string(Kind::name) + "/" + workName + "/" + Store::name;
  benchmark::RegisterBenchmark(name.c_str(), [work](benchmark::State& state) { run<Store, Kind>(state, work); })
      ->Iterations(1)
      ->Repetitions(3)
      ->ReportAggregatesOnly()
      ->Unit(benchmark::kMillisecond);
}

template <class Kind>
void registerKind() {
  for (const auto& [work, name] : works) {
    registerStore<Kind, SharedStore<Kind>>(work, name);
#ifdef ROUTECACHE_LMDB
    registerStore<Kind, LmdbTable<Kind>>(work, name);
#endif
    registerStore<Kind, MapStore<Kind>>(work, name);
  }
}

// --- What is told ----------------------------------------------------------------------------------------------------

// The medians, and then how the stores compare.
class RatioReporter final : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(OO_None) {}
  void ReportRuns(const std::vector<Run>& reports) override {
    std::vector<Run> told;
    for (const Run& run : reports) {
      if (run.aggregate_name != "median" && !run.error_occurred) continue;
      told.push_back(run);
      if (run.error_occurred) continue;
      const std::string& name = run.run_name.function_name;
      const std::size_t slash = name.rfind('/');
      medians_[name.substr(0, slash)][name.substr(slash + 1)] = run.GetAdjustedRealTime() * 1e6 / entryCount;
    }
    ConsoleReporter::ReportRuns(told);
  }
  void Finalize() override {
    std::printf("\n%-38s %9s %9s %9s %15s %15s\n", "nanoseconds per entry", "shared", "LMDB", "std::map",
                "shared / LMDB", "shared / map");
    for (const auto& [name, times] : medians_) {
      const auto time = [&times](const char* store) {
        const auto found = times.find(store);
        return found == times.end() ? std::nan("") : found->second;
      };
      std::printf("%-38s %9.0f %9.0f %9.0f %15.2f %15.2f\n", name.c_str(), time("shared"), time("LMDB"),
                  time("std::map"), time("shared") / time("LMDB"), time("shared") / time("std::map"));
    }
  }

 private:
  std::map<std::string, std::map<std::string, double>> medians_;
};

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  Bench::registerKind<Bench::Routes>();
  Bench::registerKind<Bench::Adjacencies>();
  Bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
}
