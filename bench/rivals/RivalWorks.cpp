#include "bench/rivals/RivalWorks.h"

#include <stdexcept>

#include "bench/harness/BenchDirectory.h"

namespace Bench {

nlohmann::json race(const std::string& what, std::size_t entries, Goes goes, const std::vector<Contender>& contenders) {
  nlohmann::json nanoseconds;
  std::uint64_t expected = 0;
  for (const Contender& contender : contenders) {
    if (goes == Goes::andOnceBefore) contender.work();
    const Stopwatch stopwatch;
    const std::uint64_t found = contender.work();
    nanoseconds[contender.name] = stopwatch.cpuSeconds() * 1e9 / static_cast<double>(entries);
    if (&contender == &contenders.front()) expected = found;
    if (found != expected) throw std::runtime_error(what + ": " + contender.name + " finds something else");
  }
  return nanoseconds;
}

}  // namespace Bench
