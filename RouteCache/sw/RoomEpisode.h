// A table that was found full: traced once, until there is room again.
#pragma once

#include "platform/trace/Trace.h"

namespace RouteCache {

class RoomEpisode {
 public:
  template <class Text, class Key>
  void refused(const Platform::TraceHandle& trace, const Text& text, const Key& key) {
    if (!full_) trace(2, text, key);
    full_ = true;
  }
  void written(bool hasRoom) { full_ = full_ && !hasRoom; }

 private:
  bool full_ = false;
};

}  // namespace RouteCache
