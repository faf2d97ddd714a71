#include "simulator/traffic/Popularity.h"

#include <numeric>
#include <utility>

#include "platform/values/Assert.h"

namespace Simulator {

Popularity::Popularity(std::uint32_t size, std::uint64_t seed) : random_(seed, 0), byRank_(size) {
  std::iota(byRank_.begin(), byRank_.end(), 0U);
  ranks_ = byRank_;
  for (std::uint32_t left = size; left > 1; --left) std::swap(byRank_[left - 1], byRank_[random_.below(left)]);
}

void Popularity::trade() {
  const auto size = static_cast<std::uint32_t>(ranks_.size());
  PLATFORM_ASSERT(size - traded_ >= 2);
  for (unsigned i = 0; i < 2; ++i, ++traded_) {
    std::swap(ranks_[traded_], ranks_[traded_ + random_.below(size - traded_)]);
  }
  std::swap(byRank_[ranks_[traded_ - 1]], byRank_[ranks_[traded_ - 2]]);
}

}  // namespace Simulator
