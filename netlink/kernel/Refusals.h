// What the kernel has refused, to be tried again: a second later, and twice as long after each further refusal, up to
// a minute.
#pragma once

#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <vector>

namespace Netlink {

// Invariant: a key is there once, due when it says or later.
template <class Key>
class Refusals {
 public:
  static constexpr double firstDelay = 1;  // seconds
  static constexpr double longestDelay = 60;

  struct Refusal {
    int error = 0;     // errno
    double delay = 0;  // seconds
    double due = 0;
  };

  void add(const Key& key, int error, double now) {
    Refusal& refusal = refusals_[key];
    const double delay = refusal.delay == 0 ? firstDelay : std::min(2 * refusal.delay, longestDelay);
    refusal = {error, delay, now + delay};
  }
  void del(const Key& key) { refusals_.erase(key); }
  bool has(const Key& key) const { return refusals_.contains(key); }
  bool empty() const { return refusals_.empty(); }
  std::size_t size() const { return refusals_.size(); }

  // At most so many that are due, of those behind the last one it gave. They stay, and are not due again before they
  // would be after another refusal.
  std::vector<Key> takeDue(double now, std::size_t most) {
    std::vector<Key> due;
    auto refusal = last_ ? refusals_.upper_bound(*last_) : refusals_.begin();
    for (; refusal != refusals_.end() && due.size() < most; ++refusal) {
      last_ = refusal->first;
      if (refusal->second.due > now) continue;
      refusal->second.due = now + refusal->second.delay;
      due.push_back(refusal->first);
    }
    if (refusal == refusals_.end()) last_.reset();
    return due;
  }
  // The walk of takeDue() is in the midst of them.
  bool isUnderWay() const { return last_.has_value(); }

  // In the order of their keys, until visit(key, refusal) says false.
  template <class Visit>
  void forEach(Visit visit) const {
    for (const auto& [key, refusal] : refusals_) {
      if (!visit(key, refusal)) return;
    }
  }

 private:
  std::map<Key, Refusal> refusals_;
  std::optional<Key> last_;
};

}  // namespace Netlink
