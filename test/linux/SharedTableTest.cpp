// The conformance suite of table services. A backend offers services over one store, each of which stands for a
// process: another implementation is put through it by adding its backend to the list of types.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>

#include "linux/tables/SharedTableService.h"
#include "platform/tables/SharedTable.h"
#include "test/support/TemporaryDirectory.h"
#include "test/support/TestTables.h"

namespace {

using Pondra::CollectionInfo;
using Pondra::MountKind;
using Pondra::TableError;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using TestTables::FixedRecord;
using TestTables::FixedTable;
using TestTables::SizedRecord;
using TestTables::SizedTable;

class FileTables {
 public:
  std::unique_ptr<Pondra::TableService> service() {
    return std::make_unique<LinuxPlatform::SharedTableService>(directory_.path(), types_);
  }
  // Notices what other services did, and delivers until `stop` says so; true: nothing is left.
  static bool deliver(Pondra::TableService& service, const std::function<bool()>& stop) {
    auto& files = dynamic_cast<LinuxPlatform::SharedTableService&>(service);
    files.flush();
    files.handleWakeup();
    return files.deliverChanges(stop);
  }
  static void checkInvariants(const Pondra::TableService& service) {
    dynamic_cast<const LinuxPlatform::SharedTableService&>(service).checkInvariants();
  }

 private:
  Platform::TableTypes types_ = TestTables::types();
  const TemporaryDirectory directory_;
};

// Hears of keys, and keeps what a process that follows the table believes it to hold.
class Follower final : public FixedTable::Reactor {
 public:
  explicit Follower(std::shared_ptr<const FixedTable> table) : Reactor(table), table_(std::move(table)) {
    for (const auto& value : *table_) believed[value.number] = value.word;
  }
  void handleEntry(const std::uint64_t& key) override {
    heard.push_back(key);
    if (const auto value = table_->route(key)) {
      believed[key] = value->word;
    } else {
      believed.erase(key);
    }
    if (onEntry) onEntry(key);
  }
  Pondra::Appetite appetite() const override {
    return heard.size() < most ? wants : std::max(wants, Pondra::Appetite::changesOfKnown);
  }
  void handleQuiesced(bool quiesced) override { quiescedHeard.push_back(quiesced); }
  void handleMountStatus() override { ++mountStatusHeard; }
  void handleWriter() override { writerHeard.emplace_back(table_->reconciled(), heard.size()); }

  std::vector<std::uint64_t> take() { return std::exchange(heard, {}); }

  std::vector<std::uint64_t> heard;
  std::vector<bool> quiescedHeard;
  int mountStatusHeard = 0;
  std::vector<std::pair<bool, std::size_t>> writerHeard;  // reconciled; the keys heard by then
  std::map<std::uint64_t, std::uint64_t> believed;
  std::function<void(std::uint64_t)> onEntry;
  Pondra::Appetite wants = Pondra::Appetite::everything;
  std::size_t most = SIZE_MAX;  // heard keys, of which more that are new are not wanted

 private:
  std::shared_ptr<const FixedTable> table_;
};

template <class Backend>
class SharedTableTest : public testing::Test {
 protected:
  static constexpr const char* path = "routecache/route";

  SharedTableTest() : writing(backend.service()), reading(backend.service()) {}

  template <class TableType = FixedTable>
  std::shared_ptr<TableType> mount(Pondra::TableService& service, MountKind kind, std::uint32_t capacity = 100,
                                   const std::string& at = path) {
    service.corruptionHandlerIs(
        [](const std::string& where, const std::string& what) { ADD_FAILURE() << where << ": " << what; });
    service.mount(at, TableType::typeName, kind,
                  kind == MountKind::writer ? std::optional(CollectionInfo{"route", capacity}) : std::nullopt);
    return service.get<TableType>(at);
  }
  std::shared_ptr<FixedTable> writer(std::uint32_t capacity = 100) {
    return mount(*writing, MountKind::writer, capacity);
  }
  std::shared_ptr<FixedTable> reader() { return mount(*reading, MountKind::reader); }
  // The writer's process ends, and another takes its place.
  std::shared_ptr<FixedTable> writerAgain(std::uint32_t capacity = 100) {
    writing.reset();
    writing = backend.service();
    return writer(capacity);
  }
  void settle() {
    for (auto* service : {writing.get(), reading.get()}) {
      while (!backend.deliver(*service, [] { return false; })) {
      }
    }
  }
  static std::vector<std::uint64_t> keys(const FixedTable& table) {
    std::vector<std::uint64_t> result;
    for (const auto& value : table) result.push_back(value.number);
    return result;
  }
  static std::string errorOf(const std::function<void()>& act) {
    try {
      act();
    } catch (const TableError& error) {
      return error.what();
    }
    return "no error";
  }

  Backend backend;
  std::unique_ptr<Pondra::TableService> writing, reading;
};

using Backends = testing::Types<FileTables>;
TYPED_TEST_SUITE(SharedTableTest, Backends);

TYPED_TEST(SharedTableTest, EveryProcessSeesWhatOneWrote) {
  const auto written = this->writer();
  const auto read = this->reader();
  for (const std::uint64_t key : {30u, 10u, 20u, 17u, 16u}) written->routeIs({key, key});
  written->routeIs({20, 5});
  written->routeDel(10);
  written->routeDel(99);  // was never there
  EXPECT_EQ(written->capacity(), 100U);
  for (const auto& table : {written, read}) {
    EXPECT_EQ(table->size(), 4U);
    EXPECT_THAT(this->keys(*table), ElementsAre(16, 17, 20, 30));
    EXPECT_EQ(table->route(20), (FixedRecord{20, 5}));
    EXPECT_FALSE(table->has(10));
    EXPECT_EQ(table->route(10), std::nullopt);
    EXPECT_EQ(table->lowerBound(17)->number, 17U);
    EXPECT_EQ(table->lowerBound(18)->number, 20U);
    EXPECT_EQ(table->lowerBound(31), table->end());
  }
  written->routeDelAll();
  EXPECT_EQ(read->size(), 0U);
  EXPECT_THAT(this->keys(*read), IsEmpty());
}

TYPED_TEST(SharedTableTest, FullTableRefusesOneWriteAndKeepsTheRest) {
  const auto table = this->writer(3);
  for (const std::uint64_t key : {1u, 2u, 3u}) table->routeIs({key, key});
  EXPECT_FALSE(table->hasRoom());
  EXPECT_EQ(this->errorOf([&] { table->routeIs({4, 4}); }), "routecache/route routeIs: out-of-range, index:3 max:3");
  table->routeIs({3, 33});  // no new key: no room needed
  table->routeDel(1);
  table->routeIs({4, 4});
  EXPECT_THAT(this->keys(*table), ElementsAre(2, 3, 4));
  this->backend.checkInvariants(*this->writing);
}

// Whatever sizes came and went before, a value of the largest size finds room while there is room for its key.
TYPED_TEST(SharedTableTest, ValuesOfAnySizeFitWhileKeysDo) {
  const auto table = this->template mount<SizedTable>(*this->writing, MountKind::writer, 40, "sized");
  std::mt19937 random(7);
  for (unsigned round = 0; round < 20; ++round) {
    for (std::uint64_t key = 0; key < 40; ++key) table->routeIs({key, key, 1 + static_cast<unsigned>(random() % 160)});
    for (std::uint64_t key = 0; key < 40; key += 2) table->routeDel(key);
    for (std::uint64_t key = 0; key < 40; ++key) table->routeIs({key, round, 160});
    for (std::uint64_t key = 0; key < 40; ++key) ASSERT_EQ(table->route(key), (SizedRecord{key, round, 160}));
    this->backend.checkInvariants(*this->writing);
  }
}

TYPED_TEST(SharedTableTest, ReactorsHearOfChangesAfterTheyCame) {
  const auto written = this->writer();
  written->routeIs({1, 1});
  const auto read = this->reader();
  Follower here(written), there(read);
  written->routeIs({2, 2});
  written->routeIs({2, 2});  // an equal value is a change, and merges with the last
  written->routeIs({3, 3});
  written->routeDel(1);
  EXPECT_THAT(here.heard, IsEmpty()) << "told from inside a write";
  Follower late(written);
  this->settle();
  for (auto* follower : {&here, &there}) {
    EXPECT_THAT(follower->take(), UnorderedElementsAre(1, 2, 3));
    EXPECT_THAT(follower->quiescedHeard, ElementsAre(false, true));
  }
  EXPECT_THAT(late.take(), IsEmpty()) << "told of changes that were there when it came";
  written->routeIs({3, 4});
  written->routeDel(77);
  this->settle();
  EXPECT_THAT(here.take(), ElementsAre(3));
  EXPECT_THAT(there.take(), ElementsAre(3));
  EXPECT_THAT(late.take(), ElementsAre(3));
}

// A reader that looks ahead of the changes it was told of may see a key come. It must hear that it went, however much
// has happened since to its slot and to the memory of changes.
TYPED_TEST(SharedTableTest, KeySeenAheadOfItsTurnIsToldOfWhenItGoes) {
  const auto written = this->writer(2);
  const auto read = this->reader();
  Follower there(read);
  for (const std::uint64_t key : {5u, 6u, 7u}) {
    written->routeIs({key, key});
    EXPECT_TRUE(read->has(key));
    written->routeDel(key);
  }
  for (std::uint64_t i = 0; i < 1000; ++i) written->routeIs({8 + i % 2, i});
  this->settle();
  EXPECT_THAT(there.take(), UnorderedElementsAre(5, 6, 7, 8, 9));
}

TYPED_TEST(SharedTableTest, DeliveryStopsWhenAskedAndGoesOnFairly) {
  const auto first = this->mount(*this->writing, MountKind::writer, 100, "a");
  const auto second = this->mount(*this->writing, MountKind::writer, 100, "b");
  Follower followsFirst(first), followsSecond(second);
  for (std::uint64_t key = 0; key < 10; ++key) {
    first->routeIs({key, 1});
    second->routeIs({key, 1});
  }
  unsigned runs = 0;
  const auto afterEach = [] { return true; };
  for (; runs < 3; ++runs) EXPECT_FALSE(this->backend.deliver(*this->writing, afterEach));
  EXPECT_EQ(followsFirst.heard.size(), 2U);
  EXPECT_EQ(followsSecond.heard.size(), 1U) << "one table starves the other";
  while (!this->backend.deliver(*this->writing, afterEach)) ++runs;
  EXPECT_EQ(runs, 19U);
  for (const auto* follower : {&followsFirst, &followsSecond}) {
    EXPECT_EQ(follower->heard.size(), 10U);
    EXPECT_THAT(follower->quiescedHeard, ElementsAre(false, true));
  }
}

// Also when the memory of changes is overrun meanwhile, and when a slot goes from one key to another.
TYPED_TEST(SharedTableTest, WhoIsBusyIsToldOfWhatHeKnowsFirstAndOfEverythingInTheEnd) {
  for (const std::uint64_t flood : {20u, 2000u}) {
    SCOPED_TRACE(flood);
    const auto written = this->mount(*this->writing, MountKind::writer, 4000, "t" + std::to_string(flood));
    for (const std::uint64_t key : {1u, 2u, 3u}) written->routeIs({key, 1});
    const auto read = this->mount(*this->reading, MountKind::reader, 0, "t" + std::to_string(flood));
    Follower busy(read);
    busy.wants = Pondra::Appetite::changesOfKnown;
    const auto deliver = [&] { return this->backend.deliver(*this->reading, [] { return false; }); };
    for (std::uint64_t key = 100; key < 100 + flood; ++key) written->routeIs({key, 1});
    this->backend.deliver(*this->writing, [] { return false; });
    EXPECT_FALSE(deliver()) << "the new ones are left";
    EXPECT_THAT(busy.take(), IsEmpty());
    written->routeIs({2, 2});
    written->routeDel(3);
    written->routeDel(100);
    written->routeIs({4, 1});  // in a slot of one that has gone
    this->backend.deliver(*this->writing, [] { return false; });
    EXPECT_FALSE(deliver());
    EXPECT_THAT(busy.take(), testing::IsSupersetOf({2, 3}));
    busy.wants = Pondra::Appetite::nothing;
    written->routeIs({1, 2});
    this->backend.deliver(*this->writing, [] { return false; });
    EXPECT_FALSE(deliver());
    EXPECT_THAT(busy.take(), IsEmpty());
    busy.wants = Pondra::Appetite::everything;
    busy.most = 5;
    EXPECT_FALSE(deliver());
    EXPECT_THAT(busy.take(), testing::AllOf(testing::SizeIs(testing::Lt(8)), testing::Contains(1)));
    busy.most = SIZE_MAX;
    EXPECT_TRUE(deliver());
    std::map<std::uint64_t, std::uint64_t> there;
    for (const auto& value : *written) there[value.number] = value.word;
    EXPECT_EQ(busy.believed, there);
  }
}

// However much is changed in front of it, over and over, a change is told to one who handles all that he was told of.
TYPED_TEST(SharedTableTest, AStreamFasterThanItsReaderHoldsUpNobodyForEver) {
  const auto written = this->writer(4000);
  for (std::uint64_t key = 0; key < 4000; ++key) written->routeIs({key, 1});
  Follower busy(this->reader());
  busy.most = 1024;
  written->routeIs({3999, 2});
  for (std::uint64_t cycle = 0; cycle < 20 && busy.believed[3999] != 2; ++cycle) {
    for (std::uint64_t i = 0; i < 5000; ++i) written->routeIs({i % 3000, 2 + cycle});
    busy.take();
    this->backend.deliver(*this->writing, [] { return false; });
    this->backend.deliver(*this->reading, [] { return false; });
  }
  EXPECT_EQ(busy.believed[3999], 2U);
}

// Nor does a table whose changes alone are too much for who follows two keep him from hearing of the other.
TYPED_TEST(SharedTableTest, TablesTakeTurnsAtWhoeverFollowsBoth) {
  for (const bool floodsFirst : {true, false}) {
    SCOPED_TRACE(floodsFirst);
    const std::string paths[] = {"a" + std::to_string(floodsFirst), "b" + std::to_string(floodsFirst)};
    std::vector<std::shared_ptr<FixedTable>> written;
    std::vector<std::unique_ptr<Follower>> both;
    for (const auto& at : paths) {
      written.push_back(this->mount(*this->writing, MountKind::writer, 100, at));
      for (std::uint64_t key = 0; key < 100; ++key) written.back()->routeIs({key, 1});
      both.push_back(std::make_unique<Follower>(this->mount(*this->reading, MountKind::reader, 0, at)));
    }
    std::size_t told = 0;
    for (const auto& each : both) {
      each->onEntry = [&](std::uint64_t) {
        for (const auto& one : both) one->wants = ++told < 20 ? one->wants : Pondra::Appetite::nothing;
      };
    }
    FixedTable &flooded = *written[floodsFirst ? 0 : 1], &calm = *written[floodsFirst ? 1 : 0];
    Follower& waits = *both[floodsFirst ? 1 : 0];
    for (std::uint64_t cycle = 2; cycle < 6; ++cycle) {
      calm.routeIs({7, cycle});
      for (int tries = 0; tries < 4; ++tries) {
        told = 0;
        for (const auto& one : both) one->wants = Pondra::Appetite::everything;
        for (std::uint64_t key = 0; key < 100; ++key) flooded.routeIs({key, cycle});
        this->backend.deliver(*this->writing, [] { return false; });
        this->backend.deliver(*this->reading, [] { return false; });
      }
      EXPECT_EQ(waits.believed[7], cycle);
    }
  }
}

// Also what is seen from inside the last call of a round through the slots.
TYPED_TEST(SharedTableTest, KeySeenWhileOthersAreOwedIsToldOfWhenItGoes) {
  const auto written = this->writer(16);
  const auto read = this->reader();
  Follower busy(read);
  const auto deliver = [&](Pondra::Appetite wants, std::size_t most) {
    busy.take();
    busy.wants = wants;
    busy.most = most;
    this->backend.deliver(*this->writing, [] { return false; });
    return this->backend.deliver(*this->reading, [] { return false; });
  };
  using Pondra::Appetite;
  for (std::uint64_t key = 0; key < 10; ++key) written->routeIs({key, 1});
  deliver(Appetite::changesOfKnown, SIZE_MAX);
  deliver(Appetite::everything, 5);
  written->routeDel(busy.heard.front());
  deliver(Appetite::changesOfKnown, SIZE_MAX);
  written->routeIs({77, 7});  // in a slot that the round has passed
  deliver(Appetite::changesOfKnown, SIZE_MAX);
  busy.onEntry = [&](std::uint64_t) {
    if (busy.heard.size() == 5 && read->has(77)) busy.believed[77] = 7;
  };
  deliver(Appetite::everything, 5);
  busy.onEntry = nullptr;
  written->routeDel(77);
  written->routeIs({88, 8});
  for (int i = 0; i < 40; ++i) written->routeIs({9, 9});
  deliver(Appetite::nothing, SIZE_MAX);
  EXPECT_TRUE(deliver(Appetite::everything, SIZE_MAX));
  std::map<std::uint64_t, std::uint64_t> there;
  for (const auto& value : *written) there[value.number] = value.word;
  EXPECT_EQ(busy.believed, there);
}

// One writer follows another, with room for more or fewer, while a busy reader has not been told all of either table.
TYPED_TEST(SharedTableTest, ATableIsReplacedWhileOthersOfItsKeysAreOwed) {
  using Pondra::Appetite;
  for (unsigned seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pick = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
    const std::string at = "t" + std::to_string(seed);
    const auto writerOf = [&](unsigned capacity) {
      return this->mount(*this->writing, MountKind::writer, capacity, at);
    };
    auto written = writerOf(40);
    const auto read = this->mount(*this->reading, MountKind::reader, 0, at);
    Follower busy(read);
    bool all = false;
    for (unsigned step = 0; step < 120; ++step) {
      for (unsigned changes = pick(30); changes > 0; --changes) {
        const std::uint64_t key = pick(36);
        if (pick(3) == 0) {
          written->routeDel(key);
        } else {
          written->routeIs({key, pick(3)});
        }
      }
      if (pick(6) == 0) {  // the next one's table is another file, which the reader may come to late
        written.reset();
        this->writing.reset();
        this->writing = this->backend.service();
        written = writerOf(40 + pick(3));
      }
      if (pick(3) == 0) read->has(pick(36));
      busy.take();
      busy.most = pick(10);
      busy.wants = static_cast<Appetite>(pick(3));
      this->backend.deliver(*this->writing, [] { return false; });
      if (pick(4) != 0) this->backend.deliver(*this->reading, [] { return false; });
    }
    busy.wants = Appetite::everything;
    busy.most = SIZE_MAX;
    for (int tries = 0; tries < 3 && !all; ++tries) all = this->backend.deliver(*this->reading, [] { return false; });
    EXPECT_TRUE(all);
    std::map<std::uint64_t, std::uint64_t> there;
    for (const auto& value : *written) there[value.number] = value.word;
    EXPECT_EQ(busy.believed, there);
    if (testing::Test::HasFailure()) break;
  }
}

TYPED_TEST(SharedTableTest, ReactorsMayLeaveAndWriteWhileBeingTold) {
  const auto table = this->writer();
  auto leaving = std::make_unique<Follower>(table);
  leaving->onEntry = [&](std::uint64_t) { leaving.reset(); };
  Follower echo(table);
  echo.onEntry = [&](std::uint64_t key) {
    if (key < 10) table->routeIs({key + 100, key});
  };
  table->routeIs({1, 1});
  table->routeIs({2, 2});
  this->settle();
  EXPECT_FALSE(leaving);
  EXPECT_THAT(echo.take(), UnorderedElementsAre(1, 2, 101, 102));

  echo.onEntry = [&](std::uint64_t) { this->writing->unmount(this->path); };
  table->routeIs({3, 3});
  table->routeIs({4, 4});
  EXPECT_NO_THROW(this->settle());
  EXPECT_EQ(echo.take().size(), 1U) << "told of a table that is unmounted";
  EXPECT_EQ(echo.mountStatusHeard, 1);
}

TYPED_TEST(SharedTableTest, ReaderMayComeBeforeTheTable) {
  const auto read = this->reader();
  const auto lookedUp = this->mount(*this->reading, MountKind::keyedReader, 0, "looked/up");
  Follower there(read), deaf(lookedUp);
  EXPECT_FALSE(read->mounted());
  ASSERT_NE(read->parent(), nullptr);
  EXPECT_EQ(read->parent()->name(), "routecache");
  EXPECT_EQ(read->size() + read->capacity(), 0U);
  EXPECT_FALSE(read->has(1));
  EXPECT_EQ(read->begin(), read->end());

  const auto written = this->writer();
  written->routeIs({1, 1});
  written->routeIs({2, 2});
  this->mount(*this->writing, MountKind::writer, 100, "looked/up")->routeIs({5, 5});
  this->settle();
  EXPECT_TRUE(read->mounted());
  EXPECT_EQ(there.mountStatusHeard, 1);
  EXPECT_THAT(there.take(), UnorderedElementsAre(1, 2));
  EXPECT_EQ(lookedUp->route(5), (FixedRecord{5, 5}));
  EXPECT_EQ(deaf.heard.size() + deaf.quiescedHeard.size(), 0U) << "a table that is looked up is not followed";
  written->routeDel(1);
  this->settle();
  EXPECT_THAT(there.take(), ElementsAre(1));

  this->reading->unmount(this->path);
  EXPECT_EQ(there.mountStatusHeard, 2);
  EXPECT_FALSE(read->mounted());
  EXPECT_EQ(read->parent(), nullptr);
}

TYPED_TEST(SharedTableTest, TheNextWriterFindsWhatWasPublishedInATableOfAnyCapacity) {
  auto written = this->writer(4);
  const auto read = this->reader();
  Follower there(read);
  for (const std::uint64_t key : {1u, 2u, 3u, 4u}) written->routeIs({key, key});
  this->settle();
  there.take();
  for (const std::uint32_t capacity : {4U, 1000U, 2U}) {  // in the same file, in another one
    SCOPED_TRACE(capacity);
    written->routeIs({3, capacity});  // told of only when the writer is another already
    written->routeDel(4);
    written->routeIs({4, 4});
    written = this->writerAgain(capacity);
    Follower own(written);
    EXPECT_THAT(this->keys(*read), ElementsAre(1, 2, 3, 4)) << "before the reader has noticed";
    this->settle();
    EXPECT_EQ(read->capacity(), capacity);
    EXPECT_THAT(this->keys(*read), ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(there.take(), UnorderedElementsAre(3, 4)) << "what stays as it was is no change";
    written->routeIs({1, capacity});
    this->settle();
    EXPECT_THAT(there.take(), ElementsAre(1));
    EXPECT_THAT(own.take(), ElementsAre(1));
    EXPECT_EQ(there.believed[1], capacity);
  }
  // More entries than the table is to hold: they stay, and none is added until there are fewer.
  EXPECT_THAT(this->errorOf([&] { written->routeIs({5, 5}); }), HasSubstr("out-of-range, index:4 max:2"));
  for (const std::uint64_t key : {1u, 2u, 3u}) written->routeDel(key);
  written->routeIs({5, 5});
  EXPECT_FALSE(written->hasRoom());
  this->settle();
  EXPECT_EQ(there.believed.size(), 2U);
  this->backend.checkInvariants(*this->writing);
}

// A table that is made, taken over and followed in parts, while others have their turns between these.
TYPED_TEST(SharedTableTest, AMountInPartsEndsWhereAWholeOneWould) {
  constexpr std::uint32_t capacity = 40000;
  constexpr std::uint64_t entries = 35000;
  const auto stop = [] { return true; };
  const auto part = [&](Pondra::TableService& service, const char* typeName = FixedTable::typeName) {
    return service.mountPart(this->path, typeName, MountKind::writer, CollectionInfo{"route", capacity}, stop);
  };
  EXPECT_FALSE(part(*this->writing));
  EXPECT_EQ(this->writing->entity(this->path), nullptr);
  EXPECT_THAT(this->errorOf([&] { part(*this->writing, SizedTable::typeName); }), HasSubstr("another type or kind"));
  EXPECT_THAT(this->errorOf([&] { part(*this->backend.service()); }),
              HasSubstr("another process is the table's writer"));
  EXPECT_FALSE(this->reader()->mounted()) << "a table in the making is none";
  this->writing->unmount(this->path);  // given up: whoever comes next makes it
  this->writing = this->backend.service();
  while (!part(*this->writing)) {
  }
  auto written = this->writing->template get<FixedTable>(this->path);
  for (std::uint64_t key = 0; key < entries; ++key) written->routeIs({key, 1});
  this->settle();

  this->writing = this->backend.service();
  int parts = 1;
  for (; !part(*this->writing); ++parts) EXPECT_EQ(this->writing->entity(this->path), nullptr);
  EXPECT_GT(parts, 2);
  written = this->writing->template get<FixedTable>(this->path);
  EXPECT_EQ(written->size(), entries);

  // What changes while a reader makes ready, more than any ring can tell of, is no change to who registers then.
  EXPECT_FALSE(this->reading->followPart(this->path, stop));
  for (std::uint64_t key = 0; key < entries; ++key) {
    if (key % 4 == 0) written->routeDel(key);
    if (key % 4 == 1) written->routeIs({key, 2});
    if (key % 4 == 2) written->routeIs({key, 3});
  }
  this->backend.deliver(*this->reading, stop);
  for (parts = 1; !this->reading->followPart(this->path, stop);) ++parts;
  EXPECT_GT(parts, 10);
  written->routeIs({4, 4});
  Follower there(this->reader());
  this->settle();
  EXPECT_THAT(there.take(), IsEmpty());
  EXPECT_THAT(there.quiescedHeard, IsEmpty());
  // From now on none is missed, however many there are: those that have gone least of all.
  for (int times = 0; times < 9; ++times) {
    for (std::uint64_t key = 9000; key < 19000; ++key) written->routeIs({key, 5});
  }
  for (std::uint64_t key = 9000; key < 19000; ++key) written->routeDel(key);
  this->settle();
  EXPECT_GE(there.take().size(), 7500U) << "and some that came and went";
  EXPECT_EQ(there.believed.size(), written->size());
  this->backend.checkInvariants(*this->writing);
}

TYPED_TEST(SharedTableTest, EachWriterBeginsAnotherGenerationAndEndsItsRestart) {
  auto written = this->writer();
  const auto read = this->reader();
  const std::uint64_t first = read->generation();
  EXPECT_NE(first, 0U);
  EXPECT_FALSE(read->reconciled());
  Follower follower(read);
  Follower own(written);
  written->routeIs({1, 1});
  written->routeIs({2, 2});
  written->reconciledIs();
  EXPECT_TRUE(read->reconciled()) << "before anybody hears of it";
  this->settle();
  const std::vector<std::pair<bool, std::size_t>> afterTheKeys{{true, 2}};
  EXPECT_EQ(follower.writerHeard, afterTheKeys);
  EXPECT_EQ(own.writerHeard, afterTheKeys);

  for (const std::uint32_t capacity : {100U, 50U}) {  // in the same file, in another one
    const std::uint64_t before = read->generation();
    follower.writerHeard.clear();
    written = this->writerAgain(capacity);
    this->settle();
    EXPECT_EQ(read->generation(), before + 1);
    EXPECT_EQ(follower.writerHeard, (std::vector<std::pair<bool, std::size_t>>{{false, 2}}));
    written->routeIs({2, 3});
    this->settle();
    follower.heard.pop_back();
    written->reconciledIs();
    written->reconciledIs();
    this->settle();
    EXPECT_EQ(follower.writerHeard.size(), 2U);
    EXPECT_TRUE(written->reconciled() && read->reconciled());
  }
  EXPECT_THAT(this->errorOf([&] { read->reconciledIs(); }), HasSubstr("routecache/route reconciledIs: not allowed"));
}

TYPED_TEST(SharedTableTest, WrongMountsAndWritesAreRefusedInWords) {
  const auto table = this->writer();
  const auto read = this->reader();
  Pondra::TableService& fresh = *this->reading;
  const auto info = [](const char* collection, std::uint32_t capacity) { return CollectionInfo{collection, capacity}; };
  const struct {
    const char* what;
    std::function<void()> act;
    const char* text;
  } cases[] = {
      {"type that nobody knows", [&] { fresh.mount("x", "No::Table", MountKind::reader); }, "x mount: no table type"},
      {"writer without capacity", [&] { fresh.mount("x", "Test::FixedTable", MountKind::writer); },
       "x mount: a writer"},
      {"collection of another name", [&] { fresh.mount("x", "Test::FixedTable", MountKind::writer, info("adj", 1)); },
       "no collection adj"},
      {"no entries", [&] { fresh.mount("x", "Test::FixedTable", MountKind::writer, info("route", 0)); }, "impossible"},
      {"the path as another kind", [&] { this->mount(fresh, MountKind::writer); }, "mounted here already"},
      {"second writer", [&] { fresh.unmount(this->path), this->mount(fresh, MountKind::writer); },
       "routecache/route mount: another process is the table's writer"},
      {"table of another type", [&] { this->template mount<SizedTable>(fresh, MountKind::reader); },
       "the file holds type Test::FixedTable, not Test::SizedTable"},
      {"write to an orphan",
       [&] {
         read->routeIs({1, 1});
       },
       "route is now an orphan"},
      {"write by a reader",
       [&] {
         this->mount(fresh, MountKind::reader);
         fresh.get<FixedTable>(this->path)->routeIs({1, 1});
       },
       "routecache/route routeIs: not allowed at this time, initialized:true keyNotifications:false"},
      {"attached twice", [&] { table->routeControlIs(nullptr); }, "Entity route already initialized"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_THAT(this->errorOf(c.act), HasSubstr(c.text));
  }
  const FixedTable unmounted("alone");
  EXPECT_THAT(this->errorOf([&] { unmounted.has(1); }), HasSubstr("initialized:false"));
}

TYPED_TEST(SharedTableTest, NoTwoPathsShareATable) {
  const std::string longName(230, 'v');
  std::vector<std::string> paths{"a/b", "a.b", "a//b", "..", "../a", "vrf/../status", "vrf/%2E", "%", "A", "a"};
  for (const std::string& at : {longName + "1", longName + "2", "a/b/" + std::string(600, '/')}) paths.push_back(at);
  std::uint64_t number = 0;
  for (const auto& at : paths) this->mount(*this->writing, MountKind::writer, 4, at)->routeIs({++number, 1});
  number = 0;
  for (const auto& at : paths) {
    SCOPED_TRACE(at);
    EXPECT_THAT(this->keys(*this->mount(*this->reading, MountKind::reader, 0, at)), ElementsAre(++number));
  }
}

}  // namespace
