#include "tools/PrefixList.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <random>
#include <unordered_set>

namespace Tools {

namespace {

// Reads plain and gzip files alike, line by line.
class LineReader {
 public:
  explicit LineReader(const std::string& file)
      : name_(file == "-" ? "standard input" : file),
        file_(file == "-" ? gzdopen(0, "rb") : gzopen(file.c_str(), "rb")) {
    if (file_ == nullptr) fail(std::strerror(errno));
    gzbuffer(file_.get(), 1 << 17);
  }

  const std::string& name() const { return name_; }
  std::size_t lineNumber() const { return lineNumber_; }

  // The next line without its end, valid until the next call; false behind the last one. A line longer than any
  // sensible one arrives cut, so that a file without line ends does not fill the memory.
  bool next(std::string_view& line) {
    line_.clear();
    int c = gzgetc(file_.get());
    const bool more = c != -1;
    for (; c != -1 && c != '\n'; c = gzgetc(file_.get())) {
      if (line_.size() < maxLineLength) line_.push_back(static_cast<char>(c));
    }
    if (c == -1) checkEnd();  // before anybody takes a line that was cut for a bad one
    if (!more) return false;
    ++lineNumber_;
    if (!line_.empty() && line_.back() == '\r') line_.pop_back();
    line = line_;
    return true;
  }

 private:
  struct Close {
    void operator()(gzFile file) const { gzclose(file); }
  };
  static constexpr std::size_t maxLineLength = 4096;

  void checkEnd() const {
    int code = Z_OK;
    const char* text = gzerror(file_.get(), &code);
    if (code == Z_ERRNO) fail(std::strerror(errno));
    if (code == Z_BUF_ERROR) fail("the compressed data end too early");
    if (code != Z_OK && code != Z_STREAM_END) fail(text);
  }
  [[noreturn]] void fail(const char* what) const { throw Platform::BadText(name_ + ": " + what); }

  std::string name_;
  std::unique_ptr<std::remove_pointer_t<gzFile>, Close> file_;
  std::string line_;
  std::size_t lineNumber_ = 0;
};

std::string_view trimmed(std::string_view line) {
  line = line.substr(0, line.find('#'));
  const auto first = line.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return line.substr(first, line.find_last_not_of(" \t") - first + 1);
}

// What somebody wrote, fit for one line of a terminal.
std::string quotable(std::string_view text) {
  std::string out(text.substr(0, 60));
  for (char& c : out) {
    if (c < ' ' || c > '~') c = '?';
  }
  return text.size() > 60 ? out + "..." : out;
}

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

}  // namespace

PrefixList readPrefixList(const std::string& file) {
  LineReader reader(file);
  PrefixList list;
  for (std::string_view line; reader.next(line);) {
    const std::string_view text = trimmed(line);
    if (text.empty()) continue;
    const auto prefix = Platform::TextForm<IpGenPrefix>::from(text);
    if (!prefix || prefix->isEmpty()) {
      throw Platform::BadText(reader.name() + ":" + std::to_string(reader.lineNumber()) + ": '" + quotable(text) +
                              "' is not " + Platform::TextForm<IpGenPrefix>::what);
    }
    list.prefixes.push_back(*prefix);
  }
  list.duplicates = dropDuplicates(list.prefixes);
  return list;
}

std::vector<IpGenPrefix> generatePrefixes(std::uint64_t count, std::uint64_t seed) {
  if (count > maxGeneratedPrefixes) {
    throw RangeError("at most " + std::to_string(maxGeneratedPrefixes) + " prefixes can be generated");
  }
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

}  // namespace Tools
