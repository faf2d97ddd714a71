// The Zipf-Mandelbrot law: few are asked for often, many hardly ever.
#pragma once

#include <cstdint>
#include <vector>

#include "simulator/traffic/Random.h"

namespace Simulator {

// Draws ranks 0 to ranks - 1, rank r with a probability in proportion to 1 / (r + 1 + shift)^exponent. A value that
// does not change; 8 bytes per rank.
//
// An alias table in integers: a draw takes one random number and one look into the table, whatever the settings. The
// probabilities are whole multiples of 2^-32 / ranks; ranks whose weight is under 2^-41 of the first one's are never
// drawn. Where two machines' pow() differ in the last bit, the rounding hides it but for one setting in thousands.
class ZipfMandelbrot {
 public:
  static constexpr double maxExponent = 10;
  static constexpr double maxShift = 1e9;

  // Throws RangeError unless 1 <= ranks <= 2^31, 0 <= exponent <= maxExponent, 0 <= shift <= maxShift.
  ZipfMandelbrot(std::uint64_t ranks, double exponent, double shift);

  std::uint32_t ranks() const { return static_cast<std::uint32_t>(columns_.size()); }
  std::uint32_t draw(Random& random) const {
    const std::uint64_t number = random.next();
    const std::uint32_t rank = Random::scaled(number, ranks());
    const Column& column = columns_[rank];
    return static_cast<std::uint32_t>(number) < column.own ? rank : column.alias;
  }

 private:
  // Of 2^32 draws that meet the column `own` are its own rank, the rest another. A full column is its own alias.
  struct Column {
    std::uint32_t own = 0;
    std::uint32_t alias = 0;
  };
  std::vector<Column> columns_;
};

}  // namespace Simulator
