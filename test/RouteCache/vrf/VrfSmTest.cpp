// The VRF state machine: which ids are mapped, whose tries there are, and what others hear of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <utility>

#include "RouteCache/vrf/VrfSm.h"
#include "lib/tasks/SimulatedScheduler.h"
#include "lib/trace/TextTraceFacility.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Knows what is mounted, and has no tables.
class FibTables final : public Pondra::TableService {
 public:
  void mount(const std::string& path, const std::string&, Pondra::MountKind,
             const std::optional<Pondra::CollectionInfo>&) override {
    ADD_FAILURE() << "a bad table would be lost: " << path;
  }
  void mountWhenReadable(const std::string& path, const std::string& typeName) override {
    mounted[path] = typeName;
    ++mounts;
  }
  void unmount(const std::string& path) override { mounted.erase(path); }
  std::shared_ptr<Pondra::TableEntity> entity(std::string_view) const override { return nullptr; }
  void corruptionHandlerIs(std::function<void(const std::string&, const std::string&)>) override {}

  std::map<std::string, std::string> mounted;  // path -> type
  unsigned mounts = 0;
};

// Everything that VrfSm works on, and verbs for what happens around it.
class Vrfs {
 public:
  explicit Vrfs(int traceLevel = -1) : trace(traceLevel) {}

  void begin() { sm = RouteCache::VrfSmIs(hardware, names, ids, tries, fib, scheduler, trace); }
  void start() {
    begin();
    EXPECT_TRUE(sm->initialized());
  }
  void pi(const std::string& name, std::uint32_t piVrfId) { names->nameToIdIs(name, piVrfId); }
  void piGone(const std::string& name) { names->nameToIdDel(name); }
  void appears(const std::string& name) { hardware->vrfStatusIs(name); }
  void hw(const std::string& name, std::uint32_t hwVrfId) { hardware->vrfStatusIs(name)->hwVrfIdIs(hwVrfId); }
  void hwGone(const std::string& name) { hardware->vrfStatusDel(name); }

  // "start; pi red 1; appears red; hw red 101; piGone red; hwGone red"
  void play(const std::string& story) {
    std::istringstream steps(story);
    for (std::string step; std::getline(steps, step, ';');) {
      std::istringstream words(step);
      std::string verb, name;
      std::uint32_t id = 0;
      words >> verb >> name >> id;
      if (verb == "start") start();
      if (verb == "pi") pi(name, id);
      if (verb == "piGone") piGone(name);
      if (verb == "appears") appears(name);
      if (verb == "hw") hw(name, id);
      if (verb == "hwGone") hwGone(name);
    }
  }

  // The VRFs whose FIB is read.
  std::set<std::string> owners() const {
    std::set<std::string> found;
    for (const auto& table : fib.mounted) {
      if (table.first.starts_with("routing6")) continue;
      found.insert(table.first == "routing/status" ? "default" : table.first.substr(sizeof "routing/vrf/status"));
    }
    return found;
  }
  // "1=101 2=102 blue red": the pairs by pi id, then whose they are. The other direction must say the same.
  std::string state() const {
    std::string text;
    auto back = ids->hwVrfIdToGlobalVrfIds();
    for (const auto& [piVrfId, hwVrfId] : ids->globalVrfIdToHwVrfIds()) {
      text += std::to_string(piVrfId) + "=" + std::to_string(hwVrfId) + " ";
      if (back.contains(hwVrfId) && back[hwVrfId] == piVrfId) back.erase(hwVrfId);
      EXPECT_NE(tries->vrfTrie(hwVrfId), nullptr);
      EXPECT_NE(tries->vrfTrie6(hwVrfId), nullptr);
    }
    EXPECT_THAT(back, IsEmpty());
    EXPECT_EQ(tries->vrfTries().size(), ids->hwVrfIdToGlobalVrfIds().size());
    for (const auto& owner : owners()) text += owner + " ";
    EXPECT_EQ(fib.mounted.size(), 2 * owners().size());
    if (!text.empty()) text.pop_back();
    return text;
  }

  LinuxPlatform::TextTraceFacility trace;
  LinuxPlatform::SimulatedScheduler scheduler;
  FibTables fib;
  std::shared_ptr<Routing::Hardware::RouteStatus> hardware = std::make_shared<Routing::Hardware::RouteStatus>("hw");
  std::shared_ptr<Vrf::VrfIdMap::NameToIdMap> names = std::make_shared<Vrf::VrfIdMap::NameToIdMapWrapper>("pi");
  std::shared_ptr<RouteCache::VrfIdMap> ids = RouteCache::vrfIdMapFactory("ids");
  std::shared_ptr<RouteCache::VrfCachedRoute> tries = RouteCache::vrfCachedRouteFactory("tries");
  std::shared_ptr<RouteCache::VrfSm> sm;
};

TEST(VrfSmTest, MapsCompleteVrfs) {
  // Every story goes on from this one.
  const std::string both = "start; pi red 1; hw red 101; pi blue 2; hw blue 102; ";
  const std::string overHw = both + "hw blue 101; ";  // blue takes red's hardware id
  const std::string overPi = both + "pi blue 1; ";    // blue takes red's pi id
  const struct {
    const char* what;
    std::string story, state;
  } cases[] = {
      // What one name alone comes to, in any order, is the random changes' affair.
      {"one of them before the start", "pi red 1; start; hw red 101", "1=101 red"},
      {"the other one", "hw red 101; start; pi red 1", "1=101 red"},
      {"both before the start", "hw red 101; pi red 1; start", "1=101 red"},
      {"and a hardware id that changes after it", "hw red 101; pi red 1; start; hw red 103", "1=103 red"},
      {"pi id 0 is an id", "start; pi red 0; hw red 101", "0=101 red"},
      {"the default VRF has hardware id 0", "start; pi default 5; appears default", "5=0 default"},
      {"and keeps it from the others", "start; pi default 5; appears default; pi red 1; hw red 0", "5=0 default"},
      {"0 afterwards is ignored", both + "hw red 0", "1=101 2=102 blue red"},
      {"so is a pi id meanwhile", both + "hw red 0; pi red 9", "1=101 2=102 blue red"},
      {"gone from the platform with hardware id 0", both + "hw red 0; piGone red", "2=102 blue"},

      {"who is heard of last has the hardware id", overHw, "2=101 blue"},
      {"its loser's going is none of its business", overHw + "piGone red", "2=101 blue"},
      {"nor in the hardware", overHw + "hwGone red", "2=101 blue"},
      {"the loser gets it back: moved on", overHw + "hw blue 103", "1=101 2=103 blue red"},
      {"the loser gets it back: gone from the platform", overHw + "piGone blue", "1=101 red"},
      {"the loser gets it back: gone from hardware", overHw + "hwGone blue", "1=101 red"},
      {"not while its own id is 0", overHw + "hw red 0; hwGone blue", ""},
      {"two change places", overHw + "hw red 102", "1=102 2=101 blue red"},
      {"who is heard of last has the pi id", overPi, "1=102 blue"},
      {"the loser gets the pi id back", overPi + "pi blue 3", "1=101 3=102 blue red"},
      {"two change pi ids", overPi + "pi red 2", "1=102 2=101 blue red"},
      {"one takes from two", both + "pi green 2; hw green 101", "2=101 green"},
      {"and both get theirs back", both + "pi green 2; hw green 101; hwGone green", "1=101 2=102 blue red"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Vrfs vrfs;
    vrfs.play(c.story);
    EXPECT_EQ(vrfs.state(), c.state);
  }
}

TEST(VrfSmTest, ReadsTheFibOfTheNameIntoTriesOfTheHardwareId) {
  Vrfs vrfs;
  vrfs.play("start; pi default 5; appears default; pi a/b 1; hw a/b 101");
  using testing::Pair;
  EXPECT_THAT(vrfs.fib.mounted, ElementsAre(Pair("routing/status", "Pondra::Fib::RouteStatus"),
                                            Pair("routing/vrf/status/a/b", "Pondra::Fib::RouteStatus"),
                                            Pair("routing6/status", "Pondra::Fib6::RouteStatus"),
                                            Pair("routing6/vrf/status/a/b", "Pondra::Fib6::RouteStatus")));
  for (const std::uint32_t hwVrfId : {0u, 101u}) {
    ASSERT_TRUE(vrfs.tries->vrfTrie(hwVrfId) && vrfs.tries->vrfTrie6(hwVrfId));
    EXPECT_EQ(vrfs.tries->vrfTrie(hwVrfId)->name(), "CachedRouteTrie");
    EXPECT_EQ(vrfs.tries->vrfTrie6(hwVrfId)->name(), "CachedRouteTrie6");
  }
}

TEST(VrfSmTest, TriesStayWithTheNameThatFillsThem) {
  const struct {
    const char* what;
    std::string change;
    bool same, same6;  // the tries of hardware id 101 are the ones that were there
  } cases[] = {
      {"the name moves on: the IPv6 trie stays until the id is used again", "hw red 102", false, true},
      {"the name goes", "hwGone red", false, true},
      {"another pi id of the same name", "pi red 3", true, true},
      {"another name takes the id over", "pi blue 2; hw blue 101", false, false},
      {"another name had it meanwhile", "pi blue 2; hw blue 101; hwGone blue", false, false},
      {"another name takes the pi id over", "pi blue 1; hw blue 102", false, true},
      {"another name claims it and has no pi id", "hw blue 101", true, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Vrfs vrfs;
    vrfs.play("start; pi red 1; hw red 101");
    const auto trie = vrfs.tries->vrfTrie(101);
    const auto trie6 = vrfs.tries->vrfTrie6(101);
    vrfs.play(c.change);
    EXPECT_EQ(vrfs.tries->vrfTrie(101) == trie, c.same);
    EXPECT_EQ(vrfs.tries->vrfTrie6(101) == trie6, c.same6);
  }
}

TEST(VrfSmTest, IgnoresNamesThatHardwareCannotHave) {
  const std::string longest(100, 'x');
  Vrfs vrfs(9);
  vrfs.pi(longest + "x", 1);
  vrfs.start();
  vrfs.pi(longest + "y", 2);
  vrfs.piGone(longest + "y");
  vrfs.pi(longest, 3);
  vrfs.hw(longest, 103);
  EXPECT_EQ(vrfs.state(), "3=103 " + longest);
  EXPECT_EQ(vrfs.trace.count("VRF name over 100 bytes, ignored"), 3u);
}

TEST(VrfSmTest, AWalkInSlicesMeetsWhatChangesMeanwhile) {
  const struct {
    const char* what;
    std::string before, meanwhile, state;
  } cases[] = {
      {"nothing", "", "", "1=101 2=102 3=103 a b c"},
      {"one that has been walked goes", "", "hwGone a", "2=102 3=103 b c"},
      {"one that has not", "", "piGone c; hwGone c", "1=101 2=102 a b"},
      {"one appears before where it stands", "", "pi A 9; hw A 109", "1=101 2=102 3=103 9=109 A a b c"},
      {"one appears behind", "", "hw d 104; pi d 4", "1=101 2=102 3=103 4=104 a b c d"},
      {"a hardware id that nobody listens to yet", "", "hw a 111", "2=102 3=103 1=111 a b c"},
      {"one that was 0", "hw b 0", "hw b 112", "1=101 3=103 2=112 a b c"},
      {"a pi id", "", "pi a 7", "2=102 3=103 7=101 a b c"},
  };
  for (const auto& c : cases) {
    // Wherever the walk of three names and their reactors stands.
    for (int runs = 0; runs < 8; ++runs) {
      SCOPED_TRACE(c.what + std::string(" after ") + std::to_string(runs));
      Vrfs vrfs;
      vrfs.scheduler.yieldAfterEntriesIs(1);
      vrfs.play("pi a 1; hw a 101; pi b 2; hw b 102; pi c 3; hw c 103; " + c.before);
      int told = 0;
      vrfs.begin();
      vrfs.sm->initializedHandlerIs([&] { ++told; });
      vrfs.scheduler.afterRunIs([&, run = 0]() mutable {
        if (run++ == runs) vrfs.play(c.meanwhile);
      });
      EXPECT_FALSE(vrfs.sm->initialized());
      vrfs.scheduler.advance(1);
      vrfs.scheduler.advance(1);
      EXPECT_TRUE(vrfs.sm->initialized());
      EXPECT_EQ(told, 1);
      std::istringstream expected(c.state), found(vrfs.state());
      using Words = std::istream_iterator<std::string>;
      EXPECT_EQ(std::set<std::string>(Words(found), Words()), std::set<std::string>(Words(expected), Words()));
    }
  }
  // One that goes in the middle leaves nobody behind.
  Vrfs vrfs;
  vrfs.scheduler.yieldAfterEntriesIs(1);
  vrfs.play("pi a 1; hw a 101; pi b 2; hw b 102");
  vrfs.begin();
  vrfs.sm.reset();
  vrfs.scheduler.advance(1);
  EXPECT_EQ(vrfs.state(), "1=101");
}

TEST(VrfSmTest, MapsAndTriesOutliveIt) {
  Vrfs vrfs;
  vrfs.play("start; pi red 1; hw red 101");
  const auto trie = vrfs.tries->vrfTrie(101);
  vrfs.sm.reset();
  EXPECT_EQ(vrfs.state(), "1=101");
  vrfs.play("hw red 102; piGone red; pi blue 2; hw blue 101");  // nobody listens
  EXPECT_EQ(vrfs.state(), "1=101");
  EXPECT_EQ(vrfs.tries->vrfTrie(101), trie);
  // The next one finds the map filled: nothing stale stays in either direction.
  vrfs.start();
  EXPECT_EQ(vrfs.state(), "2=101 blue");
}

// --- Random changes --------------------------------------------------------------------------------------------------

// Counts what is told of each id.
class VrfIdCounter final : public RouteCache::VrfIdMap::Reactor {
 public:
  using Reactor::Reactor;
  void handleVrfId(std::uint32_t piVrfId) override { ++pi[piVrfId]; }
  void handleHwVrfId(std::uint32_t hwVrfId) override { ++hw[hwVrfId]; }
  std::map<std::uint32_t, int> pi, hw;
};

// Thousands of VRFs come, get all their ids anew in the worst order, and go. Each step costs what its own VRFs cost: so
// many tables are mounted, and each id is told so often.
TEST(VrfSmTest, ThousandsOfVrfsAreRenumbered) {
  constexpr std::uint32_t count = 3000;
  Vrfs vrfs;
  const auto nameOf = [](std::uint32_t id) { return "vrf" + std::to_string(id); };
  for (std::uint32_t id = 1; id <= count; ++id) {
    vrfs.pi(nameOf(id), id);
    if (id % 2 == 0) vrfs.hw(nameOf(id), id);
  }
  vrfs.start();
  VrfIdCounter told(vrfs.ids);
  for (std::uint32_t id = 1; id <= count; id += 2) vrfs.hw(nameOf(id), id);
  EXPECT_EQ(vrfs.fib.mounts, 2 * count);
  EXPECT_EQ(told.pi.size(), count / 2);

  for (std::uint32_t id = 1; id <= count; ++id) vrfs.hw(nameOf(id), count + 1 - id);
  const auto pairs = vrfs.ids->globalVrfIdToHwVrfIds();
  ASSERT_EQ(pairs.size(), count);
  for (const auto& [piVrfId, hwVrfId] : pairs) EXPECT_EQ(piVrfId + hwVrfId, count + 1);
  EXPECT_LE(vrfs.fib.mounts, 5 * count);

  for (std::uint32_t id = 1; id <= count; ++id) vrfs.pi(nameOf(id), 7);  // all claim one id
  EXPECT_EQ(vrfs.state(), "7=1 vrf3000");
  for (std::uint32_t id = count; id > 1; --id) vrfs.hwGone(nameOf(id));
  EXPECT_EQ(vrfs.state(), "7=3000 vrf1");
  vrfs.hwGone(nameOf(1));
  EXPECT_EQ(vrfs.state(), "");
}

class RandomVrfs : public Vrfs {
 public:
  // With VRFs before the start, which walks them in slices while they change.
  RandomVrfs(unsigned seed, bool sliced) : random_(seed) {
    if (sliced) {
      scheduler.yieldAfterEntriesIs(1);
      for (int i = 0; i < 8; ++i) change();
      begin();
      for (int i = 0; i < 60 && !sm->initialized(); ++i) {
        if (pick(2) == 0) change();
        if (pick(2) == 0) scheduler.advance(0.001);
      }
      scheduler.advance(1);
      EXPECT_TRUE(sm->initialized());
      checkPairs();
    } else {
      start();
    }
    counter_ = std::make_unique<VrfIdCounter>(ids);
  }

  // One event, and what must hold after it.
  void step() {
    const auto before = std::exchange(owned_, {});
    counter_->pi.clear();
    counter_->hw.clear();
    change();
    checkPairs();
    for (std::uint32_t id = 0; id < 4; ++id) {
      SCOPED_TRACE("id " + std::to_string(id));
      checkTold(counter_->pi, id, withId(before, &Owned::piVrfId, id), withId(owned_, &Owned::piVrfId, id));
      checkTold(counter_->hw, id, withId(before, &Owned::hwVrfId, id), withId(owned_, &Owned::hwVrfId, id));
    }
  }

 private:
  struct Owned {
    std::string name;
    std::uint32_t piVrfId = 0, hwVrfId = 0;
    bool operator==(const Owned&) const = default;
  };

  unsigned pick(unsigned count) { return static_cast<unsigned>(random_() % count); }

  void change() {
    static constexpr const char* all[] = {"default", "red", "blue", "green"};
    const std::string name = all[pick(4)];
    switch (pick(6)) {
      case 0:
        piGone(name);
        break;
      case 1:
        hwGone(name);
        break;
      case 2:
        appears(name);
        break;
      case 3:
        pi(name, pick(4));
        break;
      default:
        if (hardware->vrfStatus(name)) hw(name, pick(4));
    }
    // The ids that the name stands for: those it has, or had before its hardware id went to 0.
    if (const auto claim = claimOf(name)) {
      claims_[name] = *claim;
    } else if (!names->nameToId(name) || !hardware->vrfStatus(name)) {
      claims_.erase(name);
    }
  }

  std::optional<Owned> claimOf(const std::string& name) const {
    const auto status = hardware->vrfStatus(name);
    const auto piVrfId = names->nameToId(name);
    if (!status || !piVrfId || (status->hwVrfId() == 0 && name != "default")) return std::nullopt;
    return Owned{name, *piVrfId, status->hwVrfId()};
  }

  static std::optional<Owned> withId(const std::vector<Owned>& owned, std::uint32_t Owned::*id, std::uint32_t value) {
    const auto found = std::find_if(owned.begin(), owned.end(), [&](const Owned& pair) { return pair.*id == value; });
    return found == owned.end() ? std::nullopt : std::optional(*found);
  }

  // Each pair is one name's, which claims both ids; whoever has none lacks an id that another has.
  void checkPairs() {
    state();  // both directions agree, the tries are there
    const auto pairs = ids->globalVrfIdToHwVrfIds();
    const auto named = owners();
    ASSERT_EQ(pairs.size(), named.size());
    for (const auto& name : named) {
      ASSERT_TRUE(claims_.contains(name)) << name;
      owned_.push_back(claims_.at(name));
      ASSERT_TRUE(pairs.contains(owned_.back().piVrfId)) << name;
      ASSERT_EQ(pairs.at(owned_.back().piVrfId), owned_.back().hwVrfId) << name;
    }
    for (const char* name : {"default", "red", "blue", "green"}) {
      const auto claim = claimOf(name);
      if (!claim || named.contains(name)) continue;
      ASSERT_TRUE(pairs.contains(claim->piVrfId) || ids->hwVrfIdToGlobalVrfIdHas(claim->hwVrfId)) << name;
    }
  }

  // A pair that stands is not told again.
  static void checkTold(const std::map<std::uint32_t, int>& told, std::uint32_t id, const std::optional<Owned>& before,
                        const std::optional<Owned>& after) {
    EXPECT_EQ(told.contains(id), before != after);
    EXPECT_LE(told.contains(id) ? told.at(id) : 0, 2);  // gone and there again
  }

  std::mt19937 random_;
  std::unique_ptr<VrfIdCounter> counter_;
  std::map<std::string, Owned> claims_;  // complete names
  std::vector<Owned> owned_;             // the pairs, with their names
};

TEST(VrfSmTest, EveryPairBelongsToOneNameAndOnlyChangesAreTold) {
  for (unsigned seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomVrfs vrfs(seed, seed % 2 == 1);
    for (int i = 0; i < 250 && !testing::Test::HasFailure(); ++i) vrfs.step();
  }
}

}  // namespace
