// Synchronous notification: a list of reactors that one entity or table keeps. Reactors enter and leave at any time,
// also from inside a notification, their own included.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Platform {

// Does not own the reactors. A reactor that enters during a notification is not told of it; one that leaves is not told
// any more. The list itself must outlive a running notification.
template <class ReactorType>
class ReactorList {
 public:
  ReactorList() = default;
  ReactorList(const ReactorList&) = delete;
  ReactorList& operator=(const ReactorList&) = delete;

  void add(ReactorType* reactor) { reactors_.push_back(reactor); }

  void remove(ReactorType* reactor) {
    const auto found = std::find(reactors_.begin(), reactors_.end(), reactor);
    if (found == reactors_.end()) return;
    if (depth_ == 0) {
      reactors_.erase(found);
    } else {
      *found = nullptr;
      holes_ = true;
    }
  }

  bool empty() const {
    return std::none_of(reactors_.begin(), reactors_.end(),
                        [](const ReactorType* reactor) { return reactor != nullptr; });
  }

  // Calls visit(reactor) for each reactor; it must not change the list.
  template <class Visit>
  void forEach(Visit&& visit) const {
    for (const ReactorType* reactor : reactors_) {
      if (reactor != nullptr) visit(*reactor);
    }
  }

  // Calls tell(reactor) for each reactor that was there at the start and still is, in the order of their entering.
  template <class Tell>
  void notify(Tell&& tell) {
    const std::size_t count = reactors_.size();
    ++depth_;
    for (std::size_t i = 0; i < count; ++i) {
      if (reactors_[i] != nullptr) tell(*reactors_[i]);
    }
    if (--depth_ == 0 && holes_) {
      reactors_.erase(std::remove(reactors_.begin(), reactors_.end(), nullptr), reactors_.end());
      holes_ = false;
    }
  }

 private:
  std::vector<ReactorType*> reactors_;
  unsigned depth_ = 0;
  bool holes_ = false;
};

}  // namespace Platform
