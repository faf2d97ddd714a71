#include "bench/tries/FibRival.h"

#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_fib.h>
#include <rte_malloc.h>
#include <rte_rib.h>
#include <sched.h>

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>

namespace Bench {

namespace {

void start() {
  static const bool started = [] {
    // The library ties this thread to a processor of its choice.
    cpu_set_t processors;
    sched_getaffinity(0, sizeof processors, &processors);
    std::array<const char*, 8> words{"TrieBench",      "--no-huge",        "-m", "1536", "--no-pci", "--no-shconf",
                                     "--no-telemetry", "--log-level=error"};
    std::array<char*, words.size()> arguments{};
    for (std::size_t i = 0; i < words.size(); ++i) arguments[i] = const_cast<char*>(words[i]);
    const bool done = rte_eal_init(arguments.size(), arguments.data()) >= 0;
    sched_setaffinity(0, sizeof processors, &processors);
    return done;
  }();
  if (!started) throw std::runtime_error("DPDK does not start: " + std::string(rte_strerror(rte_errno)));
}

double bytesInUse() {
  rte_malloc_socket_stats statistics{};
  rte_malloc_get_socket_stats(0, &statistics);
  return static_cast<double>(statistics.heap_allocsz_bytes);
}

}  // namespace

FibRival::FibRival(std::size_t prefixes) {
  start();
  bytesBefore_ = bytesInUse();
  rte_fib_conf configuration{};
  configuration.type = RTE_FIB_DIR24_8;
  configuration.default_nh = noMatch;
  configuration.max_routes = static_cast<int>(prefixes);
  configuration.dir24_8.nh_sz = RTE_FIB_DIR24_8_4B;
  configuration.dir24_8.num_tbl8 = 1U << 16;
  fib_ = rte_fib_create("TrieBench", 0, &configuration);
  if (fib_ == nullptr) throw std::runtime_error("DPDK makes no table: " + std::string(rte_strerror(rte_errno)));
}

FibRival::~FibRival() {
  rte_fib_free(fib_);
}

void FibRival::add(const Prefix& prefix) {
  const auto length = static_cast<std::uint8_t>(prefix.length());
  if (rte_fib_add(fib_, prefix.addr().value(), length, length) != 0) {
    throw std::runtime_error("DPDK does not take " + Platform::toText(prefix));
  }
}

void FibRival::remove(const Prefix& prefix) {
  rte_fib_delete(fib_, prefix.addr().value(), static_cast<std::uint8_t>(prefix.length()));
}

bool FibRival::has(const Prefix& prefix) const {
  return rte_rib_lookup_exact(rte_fib_get_rib(fib_), prefix.addr().value(),
                              static_cast<std::uint8_t>(prefix.length())) != nullptr;
}

unsigned FibRival::match(IpAddr addr) const {
  std::uint32_t key = addr.value();
  std::uint64_t length = noMatch;
  rte_fib_lookup_bulk(fib_, &key, &length, 1);
  return static_cast<unsigned>(length);
}

double FibRival::bytes() const {
  return bytesInUse() - bytesBefore_;
}

}  // namespace Bench
