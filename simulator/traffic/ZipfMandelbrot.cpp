#include "simulator/traffic/ZipfMandelbrot.h"

#include <cmath>
#include <numeric>

#include "platform/values/Assert.h"
#include "platform/values/Net.h"

namespace Simulator {

namespace {

constexpr std::uint64_t columnSize = std::uint64_t{1} << 32;
constexpr double firstWeight = 1099511627776.0;  // 2^40

// The law in whole numbers that add up to ranks * columnSize. What rounding leaves over goes to the first rank.
std::vector<std::uint64_t> wholeWeights(std::uint32_t ranks, double exponent, double shift) {
  std::vector<std::uint64_t> weights(ranks);
  for (std::uint32_t r = 0; r < ranks; ++r) {
    const double relative = std::pow((1 + shift) / (r + 1 + shift), exponent);
    weights[r] = static_cast<std::uint64_t>(std::nearbyint(relative * firstWeight));
  }
  const auto sum = static_cast<double>(std::accumulate(weights.begin(), weights.end(), std::uint64_t{0}));
  const std::uint64_t wanted = ranks * columnSize;
  std::uint64_t given = 0;
  for (std::uint64_t& weight : weights) {
    weight = static_cast<std::uint64_t>(static_cast<double>(weight) * static_cast<double>(wanted) / sum);
    given += weight;
  }
  weights[0] += wanted - given;
  return weights;
}

}  // namespace

ZipfMandelbrot::ZipfMandelbrot(std::uint64_t ranks, double exponent, double shift) {
  if (ranks == 0 || ranks > columnSize / 2) throw RangeError("traffic needs 1 to 2147483648 destinations");
  if (!(exponent >= 0 && exponent <= maxExponent)) throw RangeError("the traffic's exponent must be 0 to 10");
  if (!(shift >= 0 && shift <= maxShift)) throw RangeError("the traffic's shift must be 0 to 1000000000");

  std::vector<std::uint64_t> rest = wholeWeights(static_cast<std::uint32_t>(ranks), exponent, shift);
  columns_.resize(ranks);
  std::vector<std::uint32_t> small;
  std::vector<std::uint32_t> large;
  for (std::uint32_t r = 0; r < columns_.size(); ++r) {
    columns_[r].alias = r;
    if (rest[r] != columnSize) (rest[r] < columnSize ? small : large).push_back(r);
  }
  // Whoever does not fill a column has it filled up by one that overflows.
  while (!small.empty()) {
    PLATFORM_ASSERT_TEXT(!large.empty(), "weights add up to the columns");
    const std::uint32_t receiver = small.back();
    const std::uint32_t giver = large.back();
    small.pop_back();
    columns_[receiver] = {static_cast<std::uint32_t>(rest[receiver]), giver};
    rest[giver] -= columnSize - rest[receiver];
    if (rest[giver] > columnSize) continue;
    large.pop_back();
    if (rest[giver] < columnSize) small.push_back(giver);
  }
  PLATFORM_ASSERT(large.empty());
}

}  // namespace Simulator
