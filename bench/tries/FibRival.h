// DPDK's forwarding table for IPv4 (rte_fib, "DIR24_8": one entry for each /24, and tables of 256 below), which a
// packet processor looks up in. It runs on ordinary pages, as no machine is set up for the benchmark.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/values/Net.h"

struct rte_fib;

namespace Bench {

class FibRival {
 public:
  static constexpr unsigned noMatch = 255;

  // Room for so many prefixes. The first one made in a process starts the library, which wants memory for all that are
  // ever made and may be there once at a time; throws std::runtime_error where it cannot have it.
  explicit FibRival(std::size_t prefixes);
  ~FibRival();
  FibRival(const FibRival&) = delete;
  FibRival& operator=(const FibRival&) = delete;

  void add(const Prefix& prefix);
  void remove(const Prefix& prefix);
  // Of its list of routes, which it keeps beside what it looks packets up in.
  bool has(const Prefix& prefix) const;
  unsigned match(IpAddr addr) const;
  // All that it has taken, whether it is in use or not.
  double bytes() const;

 private:
  rte_fib* fib_;
  double bytesBefore_;
};

}  // namespace Bench
