#include "simulator/input/PrefixList.h"

#include <algorithm>
#include <array>
#include <random>
#include <unordered_set>

namespace Tools {

namespace {

// Of equal prefixes the last one stays. Returns how many went.
std::size_t dropDuplicates(std::vector<IpGenPrefix>& prefixes) {
  const std::size_t before = prefixes.size();
  std::unordered_set<IpGenPrefix, Platform::Hasher> seen;
  seen.reserve(before);
  const auto repeated = [&seen](const IpGenPrefix& prefix) { return !seen.insert(prefix).second; };
  const auto kept = std::remove_if(prefixes.rbegin(), prefixes.rend(), repeated);
  prefixes.erase(prefixes.begin(), kept.base());
  return before - prefixes.size();
}

// How many of 100,000 prefixes of the Internet's IPv4 table have the length; the rest are none.
constexpr std::array<std::pair<unsigned, std::uint64_t>, 17> lengthMix{{{8, 2},
                                                                        {9, 1},
                                                                        {10, 4},
                                                                        {11, 10},
                                                                        {12, 31},
                                                                        {13, 60},
                                                                        {14, 125},
                                                                        {15, 215},
                                                                        {16, 1400},
                                                                        {17, 860},
                                                                        {18, 1420},
                                                                        {19, 2600},
                                                                        {20, 4560},
                                                                        {21, 5400},
                                                                        {22, 11700},
                                                                        {23, 10500},
                                                                        {24, 61112}}};
constexpr std::uint64_t mixTotal = 100'000;

bool isPublic(const Prefix& prefix) {
  static const std::array<Prefix, 12> reserved{
      Prefix(IpAddr(0x00000000), 8),   // this network
      Prefix(IpAddr(0x0a000000), 8),   // private
      Prefix(IpAddr(0x64400000), 10),  // carrier-grade NAT
      Prefix(IpAddr(0x7f000000), 8),   // loopback
      Prefix(IpAddr(0xa9fe0000), 16),  // link local
      Prefix(IpAddr(0xac100000), 12),  // private
      Prefix(IpAddr(0xc0000000), 22),  // protocol assignments, documentation
      Prefix(IpAddr(0xc0a80000), 16),  // private
      Prefix(IpAddr(0xc6120000), 15),  // benchmarks
      Prefix(IpAddr(0xc6336400), 24),  // documentation
      Prefix(IpAddr(0xcb007100), 24),  // documentation
      Prefix(IpAddr(0xe0000000), 3),   // multicast and above
  };
  return std::none_of(reserved.begin(), reserved.end(),
                      [&](const Prefix& other) { return other.covers(prefix) || prefix.covers(other); });
}

// Draws different public prefixes of one length.
void drawPrefixes(unsigned length, std::uint64_t count, std::mt19937_64& random, std::vector<Prefix>& out) {
  const std::size_t begin = out.size();
  const auto from = [&] { return out.begin() + static_cast<std::ptrdiff_t>(begin); };
  while (out.size() - begin < count) {
    while (out.size() - begin < count) {
      const Prefix prefix(IpAddr(static_cast<std::uint32_t>(random() >> 32)), length);
      if (isPublic(prefix)) out.push_back(prefix);
    }
    std::sort(from(), out.end());
    out.erase(std::unique(from(), out.end()), out.end());
  }
}

void checkGenerated(std::uint64_t count) {
  if (count <= maxGeneratedPrefixes) return;
  throw RangeError("at most " + std::to_string(maxGeneratedPrefixes) + " prefixes can be generated");
}

// The address inside the prefix whose host bits are the last ones of these.
IpAddr hostIn(const Prefix& within, std::uint64_t /*high*/, std::uint64_t low) {
  return IpAddr(within.addr().value() | (static_cast<std::uint32_t>(low) & ~Prefix::mask(within.length())));
}
Ip6Addr hostIn(const Ip6Prefix& within, std::uint64_t high, std::uint64_t low) {
  return {within.addr().high() | (high & ~Ip6Prefix::highMask(within.length())),
          within.addr().low() | (low & ~Ip6Prefix::lowMask(within.length()))};
}

// Different addresses inside the prefix, which holds at least twice as many. Which ones is not a matter of the set.
template <class P>
std::unordered_set<typename P::Addr, Platform::Hasher> drawHosts(const P& within, std::uint64_t count,
                                                                 std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::unordered_set<typename P::Addr, Platform::Hasher> drawn;
  drawn.reserve(count);
  while (drawn.size() < count) {
    const std::uint64_t high = random();
    drawn.insert(hostIn(within, high, random()));
  }
  return drawn;
}

template <class P>
std::vector<IpGenPrefix> hostsWithin(const P& within, std::uint64_t count, std::uint64_t seed) {
  const unsigned hostBits = P::maxLength - within.length();
  const bool dense = hostBits < 64 && count > (std::uint64_t{1} << hostBits) / 2;
  const std::uint64_t space = dense ? std::uint64_t{1} << hostBits : 0;
  if (dense && count > space) {
    throw RangeError(Platform::toText(within) + " holds " + std::to_string(space) + " addresses, not " +
                     std::to_string(count));
  }
  std::vector<IpGenPrefix> hosts;
  hosts.reserve(count);
  if (dense) {
    // To draw the last ones would take long: those that stay out are fewer.
    const auto left = drawHosts(within, space - count, seed);
    for (std::uint64_t host = 0; host < space; ++host) {
      const auto addr = hostIn(within, 0, host);
      if (!left.contains(addr)) hosts.emplace_back(P(addr, P::maxLength));
    }
  } else {
    for (const auto& addr : drawHosts(within, count, seed)) hosts.emplace_back(P(addr, P::maxLength));
    std::sort(hosts.begin(), hosts.end());
  }
  return hosts;
}

}  // namespace

PrefixList readPrefixList(LineReader& lines) {
  PrefixList list;
  for (std::string_view text; lines.next(text);) {
    const auto prefix = Platform::TextForm<IpGenPrefix>::from(text);
    if (!prefix || prefix->isEmpty()) lines.refuse(quoted(text) + " is not " + Platform::TextForm<IpGenPrefix>::what);
    list.prefixes.push_back(*prefix);
  }
  list.duplicates = dropDuplicates(list.prefixes);
  return list;
}

std::vector<IpGenPrefix> generatePrefixes(std::uint64_t count, std::uint64_t seed) {
  checkGenerated(count);
  std::mt19937_64 random(seed);
  std::vector<Prefix> drawn;
  drawn.reserve(count);
  std::uint64_t mixSoFar = 0;
  for (const auto& [length, share] : lengthMix) {
    mixSoFar += share;
    // Rounding the running sum, not each share, makes small counts add up. At most a quarter of a length's address
    // space is taken; what is left over goes to the next length.
    const std::uint64_t due = (count * mixSoFar + mixTotal / 2) / mixTotal - drawn.size();
    drawPrefixes(length, std::min(due, std::uint64_t{1} << (length - 2)), random, drawn);
  }
  std::sort(drawn.begin(), drawn.end());
  return {drawn.begin(), drawn.end()};
}

std::vector<IpGenPrefix> generateHosts(std::uint64_t count, const IpGenPrefix& within, std::uint64_t seed) {
  checkGenerated(count);
  return within.isV4() ? hostsWithin(within.v4(), count, seed) : hostsWithin(within.v6(), count, seed);
}

}  // namespace Tools
