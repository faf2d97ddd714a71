// Lists of prefixes: read from a file or made up with the length mix of the public Internet table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/values/Net.h"
#include "simulator/input/LineReader.h"

namespace Tools {

struct PrefixList {
  std::vector<IpGenPrefix> prefixes;  // no prefix twice
  std::size_t duplicates = 0;         // entries dropped because the same prefix stands further on
};

// Reads a list, plain or gzip: one prefix a line, either family, host bits cleared; blank lines and what follows a '#'
// are skipped. The list keeps the order of the file; of a prefix that stands there twice the
// last place counts. Throws BadText for the first bad line ("FILE:LINE: 'x' is not an IP prefix") and when the file
// cannot be read to its end.
PrefixList readPrefixList(LineReader& lines);

inline constexpr std::uint64_t maxGeneratedPrefixes = 4'000'000;

// That many different public IPv4 prefixes, sorted; the same for the same count and seed on every machine. Their
// lengths mix as in the Internet's IPv4 table (three in five are a /24) while the address space of a length lasts.
// Throws RangeError over maxGeneratedPrefixes.
std::vector<IpGenPrefix> generatePrefixes(std::uint64_t count, std::uint64_t seed);

// That many different host prefixes (/32 or /128) inside `within`, which is not empty, sorted; the same for the same
// arguments on every machine. Throws RangeError when there are not so many, and over maxGeneratedPrefixes.
std::vector<IpGenPrefix> generateHosts(std::uint64_t count, const IpGenPrefix& within, std::uint64_t seed);

}  // namespace Tools
