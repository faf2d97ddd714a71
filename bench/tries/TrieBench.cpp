// Routing::Trie beside a plain binary trie and DPDK's forwarding table: the same prefixes, the same questions, and the
// answers compared. bench/README.md says what the figures mean.
#include <malloc.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "bench/harness/BenchProgram.h"
#include "bench/harness/WorkFigures.h"
#include "bench/tries/BitTrie.h"
#include "linux/files/InputFile.h"
#include "platform/tables/Trie.h"
#include "simulator/input/PrefixList.h"
#ifdef ROUTECACHE_DPDK
#include "bench/tries/FibRival.h"
#endif

namespace Bench {

namespace {

struct Options : BenchOptions {
  std::string file;
  std::vector<std::uint32_t> sizes{200'000, 1'000'000};
};

// What is asked of every structure.
template <class P>
struct Workload {
  std::string name;
  std::vector<P> prefixes;  // in random order
  std::vector<P> leaving;   // the same in another
  std::vector<typename P::Addr> addresses;
};

using Random = std::mt19937_64;
constexpr std::size_t lookups = 1'000'000;

IpAddr hostIn(const Prefix& prefix, Random& random) {
  return IpAddr(prefix.addr().value() | (static_cast<std::uint32_t>(random()) & ~Prefix::mask(prefix.length())));
}
Ip6Addr hostIn(const Ip6Prefix& prefix, Random& random) {
  return {prefix.addr().high() | (random() & ~Ip6Prefix::highMask(prefix.length())),
          prefix.addr().low() | (random() & ~Ip6Prefix::lowMask(prefix.length()))};
}

template <class P>
Workload<P> workloadOf(const char* source, std::vector<P> prefixes, std::uint32_t size) {
  Random random(1);
  std::ranges::shuffle(prefixes, random);
  prefixes.resize(std::min<std::size_t>(size, prefixes.size()));
  Workload<P> workload{std::to_string(prefixes.size()) + " " + source, prefixes, prefixes, {}};
  std::ranges::shuffle(workload.leaving, random);
  for (std::size_t i = 0; i < lookups; ++i) {
    workload.addresses.push_back(hostIn(prefixes[random() % prefixes.size()], random));
  }
  return workload;
}

std::vector<Prefix> ipv4Of(const std::vector<IpGenPrefix>& prefixes) {
  std::vector<Prefix> all;
  for (const IpGenPrefix& prefix : prefixes) {
    if (prefix.isV4()) all.push_back(prefix.v4());
  }
  return all;
}

// As registries hand them out: most inside a /32 of which there are few beside the prefixes, and a third hosts and
// their subnets behind one of them.
std::vector<Ip6Prefix> ipv6Of(std::uint32_t count) {
  static constexpr unsigned lengths[] = {32, 36, 40, 44, 44, 48, 48, 48, 48, 48, 56, 64, 64, 128, 128};
  Random random(2);
  std::unordered_set<Ip6Prefix, Platform::Hasher> drawn;
  while (drawn.size() < count) {
    const std::uint64_t allocation = Platform::hashMix(random() % (count / 20 + 1), 0);
    const std::uint64_t site = (0x2A0 + allocation % 16) << 52 | (allocation >> 12 & 0xFFFFF) << 32;
    const unsigned length = lengths[random() % std::size(lengths)];
    const std::uint64_t net = length > 48 ? random() % 64 << 16 | random() % 256 : random() & 0xFFFFFFFF;
    drawn.emplace(Ip6Addr(site | net, random() % 4096), length);
  }
  return {drawn.begin(), drawn.end()};
}

// --- The structures --------------------------------------------------------------------------------------------------

template <class P>
class RoutingTrie {
 public:
  static constexpr unsigned noMatch = 255;
  explicit RoutingTrie(std::size_t /*prefixes*/) {}
  void add(const P& prefix) { trie_->routeIs(prefix, true); }
  void remove(const P& prefix) { trie_->routeDel(prefix); }
  bool has(const P& prefix) const { return trie_->has(prefix); }
  unsigned match(const typename P::Addr& addr) const {
    const auto found = trie_->longestMatch(P(addr, P::maxLength));
    return found ? found->length() : noMatch;
  }

 private:
  std::shared_ptr<Platform::BasicTrie<P>> trie_ = std::make_shared<Platform::BasicTrie<P>>();
};

double bytesFromAllocator() {
  const auto state = ::mallinfo2();
  return static_cast<double>(state.uordblks + state.hblkhd);
}

// --- The measurements ------------------------------------------------------------------------------------------------

class Measurement {
 public:
  explicit Measurement(const Options& options) {
    std::optional<std::vector<Prefix>> file;
    if (!options.file.empty()) {
      const LinuxPlatform::FileDescriptor input = LinuxPlatform::openInput(options.file);
      Tools::LineReader lines(options.file, input.get());
      file = ipv4Of(Tools::readPrefixList(lines).prefixes);
      require(!file->empty(), "the file holds IPv4 prefixes");
    }
    for (const std::uint32_t size : options.sizes) {
      ipv4_.push_back(file ? workloadOf("IPv4 of the file", *file, size)
                           : workloadOf("IPv4", ipv4Of(Tools::generatePrefixes(size, 1)), size));
      ipv6_.push_back(workloadOf("IPv6", ipv6Of(size), size));
      if (file && file->size() <= size) break;
    }
  }

  const Figures& figures() const { return figures_; }
  void run() {
    for (const auto& workload : ipv4_) {
      measureTries(workload);
#ifdef ROUTECACHE_DPDK
      measure<FibRival>("rte_fib", workload);
#endif
    }
    for (const auto& workload : ipv6_) measureTries(workload);
  }

 private:
  template <class P>
  void measureTries(const Workload<P>& workload) {
    answers_.clear();
    measure<RoutingTrie<P>>("trie", workload);
    measure<BitTrie<P>>("bit trie", workload);
  }
  template <class Structure, class P>
  void measure(const char* name, const Workload<P>& workload);

  std::vector<Workload<Prefix>> ipv4_;
  std::vector<Workload<Ip6Prefix>> ipv6_;
  std::vector<std::uint8_t> answers_;  // of the structure that was asked first
  Figures figures_;
};

template <class Structure, class P>
void Measurement::measure(const char* name, const Workload<P>& workload) {
  std::vector<std::uint8_t> answers(lookups);
  const bool isFirst = answers_.empty();
  answers_.resize(lookups);  // before any bytes are counted
  const double before = bytesFromAllocator();
  const auto structure = std::make_unique<Structure>(workload.prefixes.size());
  const auto bytes = [&] {
    if constexpr (requires { structure->bytes(); }) {
      return structure->bytes();
    } else {
      return bytesFromAllocator() - before;
    }
  };
  const auto count = static_cast<double>(workload.prefixes.size());
  const auto add = [&](const char* phase, double value) { figures_.add(workload.name + ", " + phase, name, value); };
  const auto each = [&](const char* phase, const Stopwatch& watch, double times) {
    add(phase, watch.cpuSeconds() / times * 1e9);
  };

  const Stopwatch build;
  for (const P& prefix : workload.prefixes) structure->add(prefix);
  add("build s", build.cpuSeconds());
  add("bytes", bytes() / count);

  for (std::size_t i = 0; i < lookups; ++i) {
    answers[i] = static_cast<std::uint8_t>(structure->match(workload.addresses[i]));
  }
  if (isFirst) answers_ = answers;
  require(answers == answers_, "the answers are the same");

  // No length has this bit, which the compiler need not know.
  constexpr unsigned never = 0x100;
  const Stopwatch dependent;
  std::size_t found = 0;
  for (std::size_t i = 0; i < lookups; ++i) {
    found = structure->match(workload.addresses[i + (found & never)]);
  }
  each("dependent ns", dependent, lookups);
  require(found == answers.back(), "the last match");

  const Stopwatch backToBack;
  std::size_t sum = 0;
  for (const auto& address : workload.addresses) sum += structure->match(address);
  each("back to back ns", backToBack, lookups);
  for (const std::uint8_t answer : answers) sum -= answer;
  require(sum == 0, "all matches");

  const Stopwatch exact;
  std::size_t there = 0;
  for (const P& prefix : workload.leaving) there += structure->has(prefix) ? 1 : 0;
  each("exact ns", exact, count);
  require(there == workload.leaving.size(), "every prefix is there");

  const double most = bytes();
  const std::size_t tenth = workload.leaving.size() / 10;
  const Stopwatch leaving;
  for (std::size_t i = tenth; i < workload.leaving.size(); ++i) structure->remove(workload.leaving[i]);
  each("delete ns", leaving, count - static_cast<double>(tenth));
  add("bytes of a tenth, percent", bytes() / most * 100);
  for (std::size_t i = 0; i < workload.leaving.size(); ++i) {
    require(structure->has(workload.leaving[i]) == (i < tenth), "what has been removed");
  }
}

void print(const Options&, const Figures& figures) {
  std::printf("%-64s %9s %9s %9s\n", "", "trie", "bit trie", "rte_fib");
  for (const std::string& phase : figures.phases()) {
    std::printf("%-64s", phase.c_str());
    for (const char* structure : {"trie", "bit trie", "rte_fib"}) {
      if (figures.has(phase, structure)) std::printf(" %9.4g", figures.median(phase, structure));
    }
    std::printf("\n");
  }
}

constexpr Bar bars[] = {
    {"1000000 IPv4, dependent ns", "trie", nullptr, 300},
    {"1000000 IPv4, back to back ns", "trie", nullptr, 120},
    {"1000000 IPv4, build s", "trie", nullptr, 0.5, "s"},
    {"1000000 IPv4, bytes", "trie", nullptr, 48, "bytes"},
    {"1000000 IPv6, dependent ns", "trie", nullptr, 300},
    {"1000000 IPv6, back to back ns", "trie", nullptr, 120},
    {"1000000 IPv6, build s", "trie", nullptr, 0.5, "s"},
    {"1000000 IPv6, bytes", "trie", nullptr, 48, "bytes"},
    {"1000000 IPv4, dependent ns", "trie", "rte_fib", Bar::told},
    {"1000000 IPv4, dependent ns", "trie", "bit trie", Bar::told},
    {"1000000 IPv6, dependent ns", "trie", "bit trie", Bar::told},
};

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  using namespace Bench;
  Options options;
  BenchProgram program("TrieBench", "Measures the routing tries beside other ways to find the longest match.", options);
  program.app().add_option("--prefixes", options.file, "IPv4 prefixes, one a line, plain or gzip, not made-up ones");
  program.app().add_option("--sizes", options.sizes, "Numbers of prefixes")->capture_default_str();
  return program.run<Measurement>(argc, argv, options, print, bars);
}
