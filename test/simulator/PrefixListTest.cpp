#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "simulator/input/PrefixList.h"
#include "simulator/routing/NexthopSets.h"
#include "tools/commandline/Common.h"

namespace {

using Tools::NexthopSetOptions;
using Tools::NexthopSets;

class PrefixListTest : public ::testing::Test {
 protected:
  ~PrefixListTest() override { std::filesystem::remove(file_); }

  // Reads the text as a list; what is thrown comes back as text after the file's name.
  std::string read(const std::string& text) {
    std::ofstream(file_, std::ios::binary) << text;
    return readFile();
  }
  std::string readFile() {
    try {
      Tools::LineReader lines = Tools::linesOf(file_);
      const Tools::PrefixList list = Tools::readPrefixList(lines);
      std::string out;
      for (const IpGenPrefix& prefix : list.prefixes) out += Platform::toText(prefix) + " ";
      return out + "-" + std::to_string(list.duplicates);
    } catch (const Platform::BadText& error) {
      return std::string(error.what()).substr(file_.size());
    }
  }
  const std::string file_ = ::testing::TempDir() + "prefixes." + std::to_string(::getpid());
};

TEST_F(PrefixListTest, ReadsEveryLineOrNone) {
  const struct {
    const char* what;
    std::string text;
    std::string result;
  } cases[] = {
      {"both families, no line end at the end", "10.0.0.0/8\n2001:db8::/32", "10.0.0.0/8 2001:db8::/32 -0"},
      {"blanks, comments, carriage returns", "# head\r\n\n \t10.0.0.0/8 # one\r\n", "10.0.0.0/8 -0"},
      {"host bits are cleared before lines are compared", "10.1.0.0/8\n11.0.0.0/8\n10.0.0.1/8\n",
       "11.0.0.0/8 10.0.0.0/8 -1"},
      {"nothing", "", "-0"},
      {"no length", "10.0.0.0/8\n10.0.0.1\n", ":2: '10.0.0.1' is not an IP prefix"},
      {"a second column", "10.0.0.0/8 7\n", ":1: '10.0.0.0/8 7' is not an IP prefix"},
      {"length too long", "\n::/129\n", ":2: '::/129' is not an IP prefix"},
      {"unprintable bytes are not quoted as they are", std::string("\x1b[2J\0/8\n", 8),
       ":1: '?[2J?/8' is not an IP prefix"},
      {"a long line", std::string(61, 'x'), ":1: '" + std::string(60, 'x') + "...' is not an IP prefix"},
      {"one endless line", std::string(1 << 20, 'x'), ":1: a line over 65536 bytes"},
      {"a long comment is no line of its own", "#" + std::string(10000, 'x') + "\n1.0.0.0/8", "1.0.0.0/8 -0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(read(c.text), c.result);
  }
  std::filesystem::remove(file_);
  EXPECT_EQ(readFile(), ": No such file or directory");
}

TEST_F(PrefixListTest, ReadsGzipAndTellsWhenItIsCutShort) {
  std::string lines;
  for (unsigned i = 0; i < 50'000; ++i) lines += Platform::toText(Prefix(IpAddr(i * 2654435761U), 32)) + "\n";
  gzFile out = gzopen(file_.c_str(), "wb");
  gzwrite(out, lines.data(), static_cast<unsigned>(lines.size()));
  gzclose(out);
  Tools::LineReader plain = Tools::linesOf(file_);
  EXPECT_EQ(Tools::readPrefixList(plain).prefixes.size(), 50'000U);
  std::filesystem::resize_file(file_, std::filesystem::file_size(file_) / 2);
  EXPECT_EQ(readFile(), ": the compressed data end too early");
}

TEST(GeneratePrefixesTest, MakesDifferentPublicPrefixesInTheMixOfTheInternet) {
  for (const std::uint64_t count : {1U, 10U, 100'000U}) {
    const auto prefixes = Tools::generatePrefixes(count, 7);
    ASSERT_EQ(prefixes.size(), count);
    EXPECT_EQ(prefixes, Tools::generatePrefixes(count, 7));
    EXPECT_EQ(std::ranges::adjacent_find(prefixes, std::ranges::greater_equal()), prefixes.end()) << "sorted, unique";
    std::map<unsigned, unsigned> lengths;
    for (const auto& prefix : prefixes) {
      ++lengths[prefix.length()];
      EXPECT_FALSE(Prefix(IpAddr(0x0a000000), 8).covers(prefix.v4()));
      EXPECT_LT(prefix.v4().addr().value(), 0xe0000000);
    }
    EXPECT_NEAR(lengths[24], 0.61 * static_cast<double>(count), 1.0 + 0.01 * static_cast<double>(count));
  }
  EXPECT_NE(Tools::generatePrefixes(100, 7), Tools::generatePrefixes(100, 8));
#ifndef _GLIBCXX_DEBUG  // containers that check take minutes for it
  // More than the address space of the short lengths has to give: the surplus becomes longer prefixes.
  EXPECT_EQ(Tools::generatePrefixes(Tools::maxGeneratedPrefixes, 1).size(), Tools::maxGeneratedPrefixes);
#endif
  EXPECT_THROW(Tools::generatePrefixes(Tools::maxGeneratedPrefixes + 1, 1), RangeError);
}

TEST(GeneratePrefixesTest, MakesDifferentHostsInsideAPrefix) {
  const struct {
    const char* within;
    std::uint64_t count;
  } cases[] = {{"10.1.0.0/16", 1},      {"10.1.0.0/16", 20'000}, {"10.1.0.0/16", 40'000},
               {"10.1.0.0/16", 65'536}, {"0.0.0.0/0", 1000},     {"2001:db8::1234:0/112", 60'000},
               {"2001:db8::/64", 1000}, {"2001:db8::/32", 1000}, {"::/0", 1000}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.count) + " in " + c.within);
    const auto within = Platform::fromText<IpGenPrefix>(c.within);
    const auto hosts = Tools::generateHosts(c.count, within, 7);
    ASSERT_EQ(hosts.size(), c.count);
    EXPECT_EQ(hosts, Tools::generateHosts(c.count, within, 7));
    EXPECT_EQ(std::ranges::adjacent_find(hosts, std::ranges::greater_equal()), hosts.end()) << "sorted, unique";
    const bool inside = std::ranges::all_of(hosts, [&](const IpGenPrefix& host) {
      return within.isV4() ? host.isV4() && host.v4().isHost() && within.v4().covers(host.v4())
                           : host.isV6() && host.v6().isHost() && within.v6().covers(host.v6());
    });
    EXPECT_TRUE(inside);
    // Over all of the prefix: its upper half has its share.
    const auto upper = std::ranges::count_if(hosts, [&](const IpGenPrefix& host) {
      const unsigned firstHostBit = within.length();
      return within.isV4() ? host.v4().bit(firstHostBit) : host.v6().bit(firstHostBit);
    });
    EXPECT_NEAR(static_cast<double>(upper), 0.5 * static_cast<double>(c.count),
                60.0 + 0.01 * static_cast<double>(c.count));
  }
  const auto all = Platform::fromText<IpGenPrefix>("0.0.0.0/0");
  EXPECT_NE(Tools::generateHosts(100, all, 7), Tools::generateHosts(100, all, 8));
  // What a seed gives is the same everywhere: it follows from a generator whose numbers the language fixes.
  std::mt19937_64 random(1);
  std::set<IpGenPrefix> drawn;
  while (drawn.size() < 100) {
    random();  // the high half of an IPv6 address
    drawn.emplace(Prefix(IpAddr(0x0a000000 | (static_cast<std::uint32_t>(random()) & 0x00ffffff)), 32));
  }
  EXPECT_THAT(Tools::generateHosts(100, Platform::fromText<IpGenPrefix>("10.0.0.0/8"), 1),
              ::testing::ElementsAreArray(drawn));
  EXPECT_THROW(Tools::generateHosts(257, Platform::fromText<IpGenPrefix>("10.0.0.0/24"), 1), RangeError);
  EXPECT_THROW(Tools::generateHosts(3, Platform::fromText<IpGenPrefix>("::1/127"), 1), RangeError);
  EXPECT_THROW(Tools::generateHosts(Tools::maxGeneratedPrefixes + 1, Platform::fromText<IpGenPrefix>("::/0"), 1),
               RangeError);
}

NexthopSetOptions options(const char* base, std::uint32_t vteps, std::uint32_t paths, std::uint32_t sets) {
  return {Platform::fromText<IpGenAddr>(base), vteps, paths, sets, {IntfId("Vxlan1"), 10, {}}};
}

TEST(NexthopSetsTest, EverySetIsAnother) {
  const struct {
    std::uint32_t vteps, paths, sets;
  } cases[] = {{1, 1, 1}, {5, 1, 5},  {5, 5, 1},    {2, 2, 1},   {3, 2, 3},
               {5, 4, 5}, {7, 2, 21}, {40, 4, 240}, {64, 32, 64}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.vteps) + " VTEPs, " + std::to_string(c.paths) + " paths");
    const NexthopSets sets(options("10.255.0.250", c.vteps, c.paths, c.sets));
    std::set<std::set<IpGenAddr>> seen;
    for (std::uint32_t set = 0; set < sets.size(); ++set) {
      const auto via = sets.via(set);
      EXPECT_EQ(via.key(), set + 1U);
      std::set<IpGenAddr> vteps;
      for (const auto& nexthop : via.nexthops()) vteps.insert(nexthop.remoteVtep);
      EXPECT_EQ(vteps.size(), c.paths);
      EXPECT_TRUE(seen.insert(vteps).second) << "set " << set << " was there before";
    }
    EXPECT_THROW(NexthopSets(options("10.255.0.250", c.vteps, c.paths, c.sets + 1)), RangeError) << "one more";
  }
}

TEST(NexthopSetsTest, RefusesWhatNoAddressesCanGive) {
  EXPECT_THROW(NexthopSets(options("10.0.0.1", 0, 1, 0)), RangeError);
  EXPECT_THROW(NexthopSets(options("10.0.0.1", 2, 3, 0)), RangeError);
  EXPECT_THROW(NexthopSets(options("10.0.0.1", 64, 33, 0)), RangeError);
  EXPECT_THROW(NexthopSets(options("255.255.255.255", 2, 1, 0)), RangeError);
  EXPECT_THROW(NexthopSets(options("", 1, 1, 0)), RangeError);
  const auto last = NexthopSets(options("2001:db8::ffff", 2, 2, 0)).via(0).nexthops().back();
  EXPECT_EQ(Platform::toText(last.remoteVtep), "2001:db8::1:0");
  EXPECT_EQ(Platform::toText(last.routerMac), "02:00:00:01:00:00");
}

}  // namespace
