// One read of a table and a writer's changes in the middle of it: before its first access to shared memory, before its
// second, and so on to its last. Whatever stood there all the while must be found, in order; nothing else may be made
// up; nobody who follows may miss what changed.
//
// The table's code is compiled once more for this file alone, under a namespace of its own, with a hook before each
// load.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/tables/SharedTable.h"
#include "platform/values/Assert.h"
#include "platform/values/Hash.h"
#include "test/support/TestTables.h"

namespace {
// The load at which the change is made, counted down; 0: it has been made, or is not to be.
std::size_t loadsLeft = 0;
std::function<void()> atLoad;
void beforeLoad() {
  if (loadsLeft != 0 && --loadsLeft == 0) atLoad();
}
}  // namespace

// NOLINTBEGIN(bugprone-suspicious-include)
#define SHARED_TABLE_BEFORE_LOAD() beforeLoad()
#define LinuxPlatform SteppedLinuxPlatform
#include "lib/tables/ChangeFollower.cpp"
#include "lib/tables/HeapSpace.cpp"
#include "lib/tables/OrderedIndex.cpp"
#include "lib/tables/TableFormat.cpp"
#include "lib/tables/TableView.cpp"
#include "lib/tables/TableWriter.cpp"
// NOLINTEND(bugprone-suspicious-include)

namespace {

using namespace SteppedLinuxPlatform;
using Contents = std::map<std::uint64_t, std::uint64_t>;  // number -> word

KeyWords key(std::uint64_t number) {
  std::array<std::byte, 12> bytes;
  TestTables::encodeNumber(number, bytes.data());
  return keyWords(bytes);
}
std::uint64_t numberOf(const KeyWords& key) {
  std::array<std::byte, 12> bytes;
  keyBytes(key, bytes);
  return TestTables::decodeNumber(bytes.data());
}

// A table in memory, its writer, and one reader.
class SteppedTable {
 public:
  static constexpr std::uint32_t capacity = 12;
  static constexpr std::uint64_t numbers = 2 * capacity;
  struct Change {
    std::uint64_t number = 0;
    std::uint64_t word = 0;  // 0: the entry goes
  };

  explicit SteppedTable(unsigned seed) : random(seed) {
    Contents contents;
    const auto make = [&](const Change& change) {
      apply(change);
      if (change.word == 0) contents.erase(change.number);
      if (change.word != 0 && (contents.size() < capacity || contents.contains(change.number))) {
        contents[change.number] = change.word;
      }
    };
    for (unsigned i = 0; i < 6 * capacity; ++i) make(randomChange(below(numbers)));
    atRest_ = memory_;
    states.push_back(contents);
    // Around one key, so that slots change hands where the read is.
    from = below(numbers);
    for (std::size_t count = 3 + below(10); count > 0; --count) {
      changes.push_back(randomChange(below(2) == 0 ? below(numbers) : (from + numbers - 3 + below(7)) % numbers));
      make(changes.back());
      states.push_back(contents);
    }
    restart();
  }

  // The table at rest.
  void restart() {
    memory_ = atRest_;
    writer = std::make_unique<TableWriter>(image, capacity, report);
  }

  std::uint64_t below(std::uint64_t limit) { return random() % limit; }
  Change randomChange(std::uint64_t number) { return {number, below(5) < 2 ? 0 : 1 + below(1000)}; }
  void apply(const Change& change) {
    if (change.word == 0) {
      writer->erase(key(change.number));
    } else {
      TestTables::encodeWords(change.word, 10, value_.data());
      writer->write(key(change.number), value_);
    }
  }
  void apply(std::size_t first, std::size_t end) {
    for (std::size_t i = first; i < end; ++i) apply(changes[i]);
  }
  // Runs `read` with `write` before its first load, its second and so on, at last after all of them, each time from the
  // same bytes; then `judge`.
  void forEachLoad(const std::function<void()>& read, const std::function<void()>& write,
                   const std::function<void()>& judge) {
    atLoad = write;
    bool reached = true;
    for (std::size_t load = 1; reached && !testing::Test::HasFailure(); ++load) {
      SCOPED_TRACE("before load " + std::to_string(load));
      restart();
      loadsLeft = load;
      read();
      reached = std::exchange(loadsLeft, 0) == 0;
      if (!reached) write();
      judge();
    }
    writer->checkInvariants();
  }
  void forEachLoad(const std::function<void()>& read, const std::function<void()>& judge) {
    forEachLoad(
        read, [this] { apply(0, changes.size()); }, judge);
  }

  bool find(std::uint64_t number) { return isWhole(view.find(key(number), bytes_, entry_)); }
  bool has(std::uint64_t number) { return view.has(key(number), entry_); }
  bool seek(std::uint64_t bound, bool inclusive, std::uint64_t& hint) {
    return isWhole(view.seek(key(bound), inclusive, bytes_, hint, entry_));
  }
  std::uint64_t foundNumber() const { return numberOf(entry_.contents.key); }
  std::uint32_t foundSlot() const { return entry_.slot; }
  bool everThere(std::uint64_t number) const {
    return std::any_of(states.begin(), states.end(), [&](const Contents& c) { return c.contains(number); });
  }
  bool alwaysThere(std::uint64_t number) const {
    return std::all_of(states.begin(), states.end(), [&](const Contents& c) { return c.contains(number); });
  }

  std::mt19937 random;
  std::uint64_t from = 0;
  std::vector<Change> changes;
  std::vector<Contents> states;  // at rest, and after each change
  const Pondra::TableLayout layout = Pondra::layoutOf<TestTables::FixedTable>();
  const TableGeometry geometry{layout, capacity};

 private:
  // A value of another key would be no value of this entry's.
  bool isWhole(bool found) {
    if (!found) return false;
    const auto word = TestTables::decodeWords(bytes_);
    const std::uint64_t number = foundNumber();
    EXPECT_TRUE(word && std::any_of(states.begin(), states.end(),
                                    [&](const Contents& c) { return c.contains(number) && c.at(number) == *word; }))
        << number;
    return true;
  }

  std::vector<std::uint64_t> memory_ = std::vector<std::uint64_t>(geometry.fileSize / 8 + 1);
  std::vector<std::uint64_t> atRest_;
  std::vector<std::byte> value_ = std::vector<std::byte>(layout.maxValueSize);
  std::vector<std::byte> bytes_ = value_;
  Entry entry_;

 public:
  const TableImage image{reinterpret_cast<std::byte*>(memory_.data()), geometry};
  const DamageReport report = [](std::string_view what) { ADD_FAILURE() << what; };
  std::unique_ptr<TableWriter> writer = std::make_unique<TableWriter>(image, capacity, report);
  const TableView view{image, report};
};

class SharedTableInterleavingTest : public testing::Test {
 protected:
  static void forEachSeed(unsigned seeds, const std::function<void(SteppedTable&)>& check) {
    for (unsigned seed = 1; seed <= seeds && !HasFailure(); ++seed) {
      SCOPED_TRACE("seed " + std::to_string(seed));
      SteppedTable table(seed);
      check(table);
    }
  }
};

TEST_F(SharedTableInterleavingTest, LookupsFindWhatIsThereAllTheTime) {
  forEachSeed(60, [](SteppedTable& table) {
    for (const bool withValue : {true, false}) {
      bool found = false;
      table.forEachLoad([&] { found = withValue ? table.find(table.from) : table.has(table.from); },
                        [&] { EXPECT_TRUE(found ? table.everThere(table.from) : !table.alwaysThere(table.from)); });
    }
  });
}

// An entry goes, and its slot has another's key already, but is no entry yet: the writer fills it, or died there.
TEST_F(SharedTableInterleavingTest, AKeyThatIsOnlyBeingWrittenIsNotFound) {
  forEachSeed(10, [](SteppedTable& table) {
    const Contents contents = table.states.front();
    for (const auto& [gone, word] : contents) {
      table.restart();
      table.has(gone);
      const std::uint32_t slot = table.foundSlot();
      for (std::uint64_t coming = 0; coming < SteppedTable::numbers; ++coming) {
        // The way to another key leads past the slot only in the same chain.
        const bool sameChain = table.image.bucketOf(key(coming)) == table.image.bucketOf(key(gone));
        if (!sameChain || contents.contains(coming)) continue;
        bool found = false;
        table.forEachLoad([&] { found = table.has(coming); },
                          [&, gone = gone] {
                            table.apply({gone, 0});
                            table.image.storeKey(table.image.key(slot), key(coming));
                          },
                          [&] { EXPECT_FALSE(found) << coming; });
      }
    }
  });
}

// A search never goes back behind its bound: a key that is put in between the bound and its predecessor, once the
// search has passed there, would send a walk back and end it early.
TEST_F(SharedTableInterleavingTest, SearchesKeepToTheirBoundAndPassOverNothing) {
  forEachSeed(80, [](SteppedTable& table) {
    for (const bool inclusive : {true, false}) {
      bool found = false;
      table.forEachLoad(
          [&] {
            std::uint64_t hint = 0;
            found = table.seek(table.from, inclusive, hint);
          },
          [&] {
            const std::uint64_t first = inclusive ? table.from : table.from + 1;
            const std::uint64_t end = found ? table.foundNumber() : SteppedTable::numbers;
            EXPECT_TRUE(!found || end >= first) << end;
            for (std::uint64_t number = first; number < end; ++number) EXPECT_FALSE(table.alwaysThere(number));
          });
    }
  });
}

TEST_F(SharedTableInterleavingTest, WalksGoForwardAndMeetAllThatStays) {
  forEachSeed(12, [](SteppedTable& table) {
    std::vector<std::uint64_t> met;
    table.forEachLoad(
        [&] {
          met.clear();
          std::uint64_t hint = 0;
          for (std::uint64_t at = 0; met.size() <= SteppedTable::numbers; at = met.back()) {
            if (!table.seek(at, met.empty(), hint)) break;
            met.push_back(table.foundNumber());
          }
        },
        [&] {
          EXPECT_EQ(std::ranges::adjacent_find(met, std::ranges::greater_equal()), met.end());
          for (std::uint64_t number = 0; number < SteppedTable::numbers; ++number) {
            EXPECT_TRUE(!table.alwaysThere(number) || std::count(met.begin(), met.end(), number) == 1) << number;
          }
        });
  });
}

// In the middle of the start of following, with changes afterwards; and of the delivery of a first change. Every other
// time the ring of changes is overrun before the follower comes to read it.
TEST_F(SharedTableInterleavingTest, FollowersMissNothing) {
  forEachSeed(25, [](SteppedTable& table) {
    const std::size_t all = table.changes.size();
    for (const bool starting : {true, false}) {
      for (const bool overrun : {true, false}) {
        SCOPED_TRACE(std::string(starting ? "starting" : "delivering") + (overrun ? ", overrun" : ""));
        std::unique_ptr<ChangeFollower> follower;
        std::set<std::uint64_t> told;
        const auto tell = [&](const KeyWords& words, std::uint64_t) { return told.insert(numberOf(words)), true; };
        table.forEachLoad(
            [&] {
              told.clear();
              const std::size_t load = std::exchange(loadsLeft, 0);
              follower = std::make_unique<ChangeFollower>(table.report);
              if (!starting) follower->start(table.view);
              if (!starting) table.apply(0, 1);
              loadsLeft = load;
              if (starting) follower->start(table.view);
              if (!starting) follower->deliver(tell);
            },
            [&] { table.apply(starting ? 0 : 1, starting ? all - 2 : all); },
            [&] {
              if (starting) table.apply(all - 2, all);
              for (std::uint32_t i = 0; overrun && i <= table.geometry.ringSize; ++i) table.apply(table.changes.back());
              for (unsigned i = 0; i < 10 && follower->pending(); ++i) follower->deliver(tell);
              EXPECT_FALSE(follower->pending());
              const Contents& before = table.states[starting ? all - 2 : 0];
              const Contents& now = table.states.back();
              for (std::uint64_t number = 0; number < SteppedTable::numbers; ++number) {
                const bool same = before.contains(number) ? now.contains(number) && now.at(number) == before.at(number)
                                                          : !now.contains(number);
                // Nobody has seen a key that came during the start and has gone again.
                const bool unseen = starting && !table.states.front().contains(number) && !now.contains(number);
                EXPECT_TRUE(same || unseen || told.contains(number)) << number;
              }
            });
      }
    }
  });
}

// The change ring holds as many changes as it has places, and the writer fills the next place before it counts the
// change: a follower that is exactly one ring behind must not take that for the oldest one.
TEST_F(SharedTableInterleavingTest, AChangeThatIsOnlyBeingAnnouncedIsNotTheOldest) {
  SteppedTable table(1);
  for (std::uint64_t number = 0; number < 7; ++number) table.apply({number, 0});  // there is room
  for (const std::uint64_t number : {7u, 9u}) table.apply({number, 1});
  ASSERT_TRUE(table.has(9));
  const std::uint64_t slot = table.foundSlot();
  ChangeFollower follower(table.report);
  follower.start(table.view);
  table.apply({7, 2});
  for (std::uint32_t i = 1; i < table.geometry.ringSize; ++i) table.apply({9, i});
  std::uint64_t* const place = table.image.ring(table.view.headSequence() + 1);
  store(*place, slot);
  table.image.storeKey(place + 1, key(9));
  std::set<std::uint64_t> told;
  follower.deliver([&](const KeyWords& words, std::uint64_t) { return told.insert(numberOf(words)), true; });
  EXPECT_EQ(told, (std::set<std::uint64_t>{7, 9}));
}

// A damaged chain that leads back to itself: the search gives up on it and looks at the slots.
TEST_F(SharedTableInterleavingTest, AChainThatGoesRoundInACircleIsLeft) {
  SteppedTable table(1);
  const std::uint64_t there = table.states.front().begin()->first;
  std::uint64_t absent = 0;
  while (table.has(absent) || table.image.bucketOf(key(absent)) != table.image.bucketOf(key(there))) ++absent;
  ASSERT_TRUE(table.has(there));
  const std::uint32_t slot = table.foundSlot();
  store(table.image.chainNext(slot), slot + 1);
  atLoad = [] { throw std::runtime_error("it never ends"); };
  loadsLeft = 10000000;
  std::string reported;
  const DamageReport report = [&](std::string_view what) { reported = what; };
  Entry entry;
  EXPECT_NO_THROW(EXPECT_FALSE(TableView(table.image, report).has(key(absent), entry)));
  loadsLeft = 0;
  EXPECT_EQ(reported, "the index contradicts itself");
}

}  // namespace
