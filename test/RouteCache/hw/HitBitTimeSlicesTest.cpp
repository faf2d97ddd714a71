// The hit-bit time slices against a plain model: a key has a slice and the moment of its filing, nothing else.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "RouteCache/hw/HitBitTimeSlices.h"

namespace {

using RouteCache::HitBitTimeSlices;
using Key = HitBitTimeSlices::Key;

Key keyOf(unsigned number) {
  return {Prefix(IpAddr(0x0A000000U + number / 2), 32), 101 + number % 2};
}

class Model {
 public:
  void file(const Key& key, std::uint16_t slice) {
    toCome_.erase(key);
    setAside_.erase(key);
    at_[key] = {slice, ++clock_};
  }
  void remove(const Key& key) {
    toCome_.erase(key);
    setAside_.erase(key);
    at_.erase(key);
  }
  void removeAll(std::uint16_t slice) {
    if (visited_ == slice) endVisit();
    if (aside_ == slice) forgetAside();
    std::erase_if(at_, [&](const auto& entry) { return entry.second.slice == slice; });
  }
  std::uint16_t sliceOf(const Key& key) const {
    const auto found = at_.find(key);
    return found == at_.end() ? RouteCache::timeSliceInvalid : found->second.slice;
  }
  std::vector<Key> keys(std::uint16_t slice) const {
    std::map<std::uint64_t, Key> order;
    for (const auto& [key, place] : at_) {
      if (place.slice == slice) order[place.filed] = key;
    }
    std::vector<Key> keys;
    for (const auto& entry : order) keys.push_back(entry.second);
    return keys;
  }
  void beginVisit(std::uint16_t slice) {
    visited_ = slice;
    for (const Key& key : keys(slice)) toCome_.insert(key);
  }
  void endVisit() {
    visited_ = RouteCache::timeSliceInvalid;
    toCome_.clear();
  }
  void setAside(std::uint16_t slice) {
    aside_ = slice;
    for (const Key& key : keys(slice)) setAside_.insert(key);
  }
  void visitAside() {
    visited_ = aside_;
    toCome_ = setAside_;
    forgetAside();
  }
  void forgetAside() {
    aside_ = RouteCache::timeSliceInvalid;
    setAside_.clear();
  }
  std::uint16_t aside() const { return aside_; }
  std::uint16_t visited() const { return visited_; }
  bool visiting() const { return visited_ != RouteCache::timeSliceInvalid; }
  std::optional<Key> due() const {
    std::optional<Key> oldest;
    for (const Key& key : toCome_) {
      if (!oldest || at_.at(key).filed < at_.at(*oldest).filed) oldest = key;
    }
    return oldest;
  }
  // In the slice it now stands behind all others, as if it had been filed there anew.
  void passDue() { file(*due(), visited_); }
  std::size_t size() const { return at_.size(); }

 private:
  struct Place {
    std::uint16_t slice = 0;
    std::uint64_t filed = 0;
  };
  std::map<Key, Place> at_;
  std::set<Key> toCome_;
  std::set<Key> setAside_;
  std::uint64_t clock_ = 0;
  std::uint16_t visited_ = RouteCache::timeSliceInvalid;
  std::uint16_t aside_ = RouteCache::timeSliceInvalid;
};

constexpr std::uint16_t sliceNumbers[] = {0, 7, RouteCache::timeSliceMax, RouteCache::timeSliceNewAdditions,
                                          RouteCache::timeSliceNewAdditionsToDel};

void expectEqual(const HitBitTimeSlices& slices, const Model& model) {
  slices.checkInvariants();
  ASSERT_EQ(slices.size(), model.size());
  ASSERT_EQ(slices.visiting(), model.visiting());
  ASSERT_EQ(slices.due(), model.due());
  for (const std::uint16_t slice : sliceNumbers) {
    const auto keys = model.keys(slice);
    ASSERT_EQ(slices.keys(slice), keys);
    ASSERT_EQ(slices.size(slice), keys.size());
  }
}

TEST(TimeSlicesTest, AVisitMeetsWhatWasThereOnceInOrderWhateverIsFiledMeanwhile) {
  constexpr unsigned keys = 40;
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pick = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
    HitBitTimeSlices slices;
    Model model;
    for (int step = 0; step < 2000; ++step) {
      const std::uint16_t slice = sliceNumbers[pick(std::size(sliceNumbers))];
      // Half of the time the key whose turn it is: what happens to that one is the point.
      const Key key = model.due() && pick(2) == 0 ? *model.due() : keyOf(pick(keys));
      const unsigned what = pick(20);
      if (what < 9) {
        slices.file(key, slice);
        model.file(key, slice);
      } else if (what < 12) {
        slices.remove(key);
        model.remove(key);
      } else if (what == 12 && pick(5) == 0) {
        slices.removeAll(slice);
        model.removeAll(slice);
      } else if (what == 13) {
        if (model.aside() != RouteCache::timeSliceInvalid) {
          slices.forgetAside();
          model.forgetAside();
        } else if (model.visited() != slice) {
          slices.setAside(slice);
          model.setAside(slice);
        }
      } else if (!model.visiting() && model.aside() != RouteCache::timeSliceInvalid && what < 17) {
        slices.visitAside();
        model.visitAside();
      } else if (!model.visiting()) {
        if (slice == model.aside()) continue;
        slices.beginVisit(slice);
        model.beginVisit(slice);
      } else if (model.due() && what < 19) {
        slices.passDue();
        model.passDue();
      } else {
        slices.endVisit();
        model.endVisit();
      }
      ASSERT_EQ(slices.sliceOf(key), model.sliceOf(key));
      ASSERT_NO_FATAL_FAILURE(expectEqual(slices, model));
    }
  }
}

TEST(TimeSlicesTest, AVisitSurvivesThatAllItsKeysGoAndOthersCome) {
  constexpr unsigned keys = 6000;  // more than are kept in store
  HitBitTimeSlices slices;
  for (unsigned i = 0; i < keys; ++i) slices.file(keyOf(i), 7);
  slices.beginVisit(7);
  for (unsigned i = 0; i < keys; ++i) slices.remove(keyOf(i));
  EXPECT_EQ(slices.due(), std::nullopt);
  slices.file(keyOf(1), 7);
  EXPECT_EQ(slices.due(), std::nullopt) << "it came after the visit began";
  slices.endVisit();
  slices.beginVisit(7);
  EXPECT_EQ(slices.due(), keyOf(1));
  EXPECT_EQ(slices.size(7), 1u);
}

}  // namespace
