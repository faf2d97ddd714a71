#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <set>

#include "simulator/input/RecordedFlows.h"
#include "simulator/traffic/ZipfTraffic.h"
#include "tools/commandline/Common.h"

namespace {

using Simulator::Burst;
using Simulator::Destination;
using Simulator::Random;
using Simulator::ZipfMandelbrot;
using Simulator::ZipfSettings;
using Simulator::ZipfTraffic;
using ::testing::SizeIs;

TEST(ZipfMandelbrotTest, DrawsByTheLaw) {
  const struct {
    std::uint32_t ranks;
    double exponent, shift;
  } cases[] = {{1, 1, 0},      {2, 1, 0},     {1000, 0, 0},     {1000, 0.7, 0},  {1000, 1, 0},
               {1000, 1.3, 5}, {1000, 2, 50}, {200'000, 1, 20}, {200'000, 3, 0}, {1'000'000, 10, 1e9}};
  constexpr std::uint64_t draws = 4'000'000;
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.ranks << " ranks, exponent " << c.exponent << ", shift " << c.shift);
    std::vector<double> expected(c.ranks);
    for (std::uint32_t r = 0; r < c.ranks; ++r) expected[r] = std::pow((1 + c.shift) / (r + 1 + c.shift), c.exponent);
    const double sum = std::accumulate(expected.begin(), expected.end(), 0.0);

    const ZipfMandelbrot law(c.ranks, c.exponent, c.shift);
    Random random(7, 0);
    std::vector<double> drawn(c.ranks);
    for (std::uint64_t i = 0; i < draws; ++i) ++drawn.at(law.draw(random));

    // Ranks 1, 2, 3..4, 5..8 and so on: every bin within five standard deviations and the table's own rounding.
    for (std::uint32_t begin = 0, end = 1; begin < c.ranks; begin = end, end = std::min(2 * end, c.ranks)) {
      const double share = std::accumulate(expected.begin() + begin, expected.begin() + end, 0.0) / sum;
      const double seen = std::accumulate(drawn.begin() + begin, drawn.begin() + end, 0.0) / draws;
      EXPECT_NEAR(seen, share, 5 * std::sqrt(share / draws) + 0.0003 * share) << "ranks from " << begin;
    }
  }
}

std::vector<Destination> hosts(std::uint32_t count) {
  std::vector<Destination> out;
  for (std::uint32_t i = 0; i < count; ++i) out.push_back({i % 3, IpAddr(0x0a000000 + i)});
  return out;
}

std::vector<std::uint32_t> pull(Simulator::TrafficSource& traffic, double until) {
  std::vector<Burst> bursts;
  traffic.pull(until, bursts);
  std::vector<std::uint32_t> out;
  for (const Burst& burst : bursts) out.insert(out.end(), burst.packets, burst.destination);
  return out;
}

// Everything at once; drift, crowd and scan meet at 60 s.
ZipfSettings busySettings() {
  ZipfSettings settings;
  settings.rate = 300.7;
  settings.drift = 0.5;
  settings.seed = 42;
  settings.crowds = {{60, 20.5, 0.5, 7}, {10, 50, 0.25, 100}};
  settings.scan = Simulator::ScanAttack{60, 10, 123.4};
  return settings;
}

TEST(ZipfTrafficTest, SameSeedSamePacketsHoweverTheTimeIsCut) {
  ZipfTraffic whole(hosts(2000), busySettings());
  const auto packets = pull(whole, 120);
  for (const double step : {0.0011, 0.1, 1.0 / 3, 20.0, 60.0}) {
    SCOPED_TRACE(step);
    ZipfTraffic cut(hosts(2000), busySettings());
    std::vector<std::uint32_t> joined;
    for (double until = 0; until < 120 + step; until += step) {
      const auto some = pull(cut, std::min(until, 120.0));
      joined.insert(joined.end(), some.begin(), some.end());
    }
    EXPECT_EQ(joined, packets);
    EXPECT_EQ(cut.byRank(), whole.byRank());
  }
  // The same on every machine: whatever is drawn comes from this finaliser, whose numbers others have published.
  EXPECT_EQ(Platform::hashOf(1), 0xb456bcfc34c2cb2cU);
  EXPECT_EQ(Platform::hashOf(2), 0x3abf2a20650683e7U);

  ZipfSettings other = busySettings();
  other.seed = 43;
  ZipfTraffic different(hosts(2000), other);
  EXPECT_NE(pull(different, 120), packets);
}

TEST(ZipfTrafficTest, KeepsTheRateExactly) {
  for (const double rate : {0.3, 1.0, 999.99, 123'456.7}) {
    SCOPED_TRACE(rate);
    ZipfSettings settings;
    settings.rate = rate;
    ZipfTraffic traffic(hosts(10), settings);
    std::size_t packets = 0;
    for (int second = 1; second <= 100; ++second) {
      packets += pull(traffic, second).size();
      ASSERT_EQ(packets, std::ceil(second * rate)) << "one packet at 0, one every 1 / rate, none at the end";
    }
  }
}

TEST(ZipfTrafficTest, DriftGivesTheShareOfRanksAnotherDestinationInEveryMinute) {
  for (const double drift : {0.0, 0.01, 0.5, 1.0}) {
    SCOPED_TRACE(drift);
    ZipfSettings settings;
    settings.rate = 1;
    settings.drift = drift;
    ZipfTraffic traffic(hosts(2000), settings);
    for (int minute = 1; minute <= 3; ++minute) {
      const auto before = traffic.byRank();
      std::vector<std::size_t> changed;
      for (const double part : {0.5, 1.0}) {
        pull(traffic, 60 * (minute - 1 + part) + 0.001);
        std::size_t differ = 0;
        for (std::size_t rank = 0; rank < before.size(); ++rank)
          differ += before[rank] != traffic.byRank()[rank] ? 1 : 0;
        changed.push_back(differ);
      }
      EXPECT_EQ(changed[0], std::lround(drift * 1000)) << "half of them in half a minute";
      EXPECT_EQ(changed[1], std::lround(drift * 2000));
      auto sorted = traffic.byRank();
      std::ranges::sort(sorted);
      for (std::uint32_t i = 0; i < sorted.size(); ++i) ASSERT_EQ(sorted[i], i);
    }
  }
}

TEST(ZipfTrafficTest, CrowdTakesItsShareToColdDestinations) {
  ZipfSettings settings;
  ZipfTraffic without(hosts(5000), settings);
  settings.crowds = {{2, 1, 0.25, 20}};
  ZipfTraffic traffic(hosts(5000), settings);
  EXPECT_EQ(pull(traffic, 2), pull(without, 2));
  const auto lawful = pull(without, 3);
  const auto packets = pull(traffic, 3);
  std::map<std::uint32_t, int> crowd;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    if (packets[i] != lawful[i]) ++crowd[packets[i]];
  }
  EXPECT_THAT(crowd, SizeIs(20));
  int taken = 0;
  for (const auto& [destination, count] : crowd) {
    const auto rank = std::ranges::find(traffic.byRank(), destination) - traffic.byRank().begin();
    EXPECT_GE(rank, 500) << "the most popular tenth is not cold";
    EXPECT_NEAR(count, 125, 60);
    taken += count;
  }
  EXPECT_NEAR(taken, 2500, 220);
  EXPECT_EQ(pull(traffic, 4), pull(without, 4)) << "over";
}

TEST(ZipfTrafficTest, ScanSendsOnePacketToEveryColdDestinationInTurn) {
  ZipfSettings settings;
  settings.drift = 1;
  ZipfTraffic without(hosts(1000), settings);
  settings.scan = Simulator::ScanAttack{1.5, 1e9, 200};
  ZipfTraffic traffic(hosts(1000), settings);
  EXPECT_EQ(pull(traffic, 1.5), pull(without, 1.5));
  const std::set<std::uint32_t> cold(traffic.byRank().begin() + 100, traffic.byRank().end());

  // What the scan adds is what is left when the other packets are taken away in their order.
  const auto lawful = pull(without, 20);
  std::vector<std::uint32_t> scanned;
  std::size_t next = 0;
  for (const auto destination : pull(traffic, 1.5 + 2)) {
    if (next < lawful.size() && destination == lawful[next]) {
      ++next;
    } else {
      scanned.push_back(destination);
    }
  }
  EXPECT_NEAR(static_cast<double>(scanned.size()), 400, 2) << "200 packets per second";
  for (const auto destination : pull(traffic, 20)) {
    if (next < lawful.size() && destination == lawful[next]) {
      ++next;
    } else {
      scanned.push_back(destination);
    }
  }
  EXPECT_EQ(next, lawful.size());
  EXPECT_THAT(scanned, SizeIs(900));
  EXPECT_TRUE(std::ranges::equal(scanned, cold)) << "all of them, once, in order";

  settings.scan->duration = 2;
  ZipfTraffic cutShort(hosts(1000), settings);
  EXPECT_EQ(pull(cutShort, 20).size(), 200'000U + 400U);
}

TEST(ZipfTrafficTest, RefusesSettingsThatCannotBe) {
  const double nan = std::nan("");
  const double inf = std::numeric_limits<double>::infinity();
  const struct {
    const char* what;
    void (*change)(ZipfSettings&, double);
    std::vector<double> values;
  } cases[] = {
      {"exponent", [](ZipfSettings& s, double x) { s.exponent = x; }, {-0.1, 10.1, nan}},
      {"shift", [](ZipfSettings& s, double x) { s.shift = x; }, {-1, inf, nan}},
      {"rate", [](ZipfSettings& s, double x) { s.rate = x; }, {0, -1, inf, nan}},
      {"drift", [](ZipfSettings& s, double x) { s.drift = x; }, {-0.1, 1.1, nan}},
      {"crowd's share", [](ZipfSettings& s, double x) { s.crowds[0].share = x; }, {-0.1, 1.1, nan}},
      {"crowd's start", [](ZipfSettings& s, double x) { s.crowds[0].start = x; }, {-1, inf, nan, 25}},
      {"crowd's duration", [](ZipfSettings& s, double x) { s.crowds[0].duration = x; }, {0, nan, 21}},
      {"crowd's size", [](ZipfSettings& s, double x) { s.crowds[0].destinations = static_cast<unsigned>(x); }, {0, 91}},
      {"scan's start", [](ZipfSettings& s, double x) { s.scan->start = x; }, {-1, inf, nan}},
      {"scan's duration", [](ZipfSettings& s, double x) { s.scan->duration = x; }, {0, nan}},
      {"scan's rate", [](ZipfSettings& s, double x) { s.scan->rate = x; }, {0, inf, nan}},
  };
  ZipfSettings good;
  good.crowds = {{10, 20, 1, 90}, {30, 10, 0.5, 1}};
  good.scan = Simulator::ScanAttack{};
  EXPECT_NO_THROW(ZipfTraffic(hosts(100), good));
  EXPECT_THROW(ZipfTraffic({}, ZipfSettings()), RangeError);
  for (const auto& c : cases) {
    for (const double value : c.values) {
      SCOPED_TRACE(::testing::Message() << c.what << " " << value);
      ZipfSettings settings = good;
      c.change(settings, value);
      EXPECT_THROW(ZipfTraffic(hosts(100), settings), RangeError);
    }
  }
}

class FlowFileTest : public ::testing::Test {
 protected:
  ~FlowFileTest() override { std::filesystem::remove(file_); }

  static std::optional<std::uint32_t> hwVrfIdOf(const L3::VrfName& name) {
    if (name.isDefault()) return 0;
    if (name == "red") return 7;
    return std::nullopt;
  }
  // What is sent, as text, or what is thrown, after the file's name.
  std::string flows(const std::string& text) {
    std::ofstream(file_, std::ios::binary) << text;
    try {
      Tools::LineReader lines = Tools::linesOf(file_);
      const auto list = Tools::RecordedFlows(lines).on(hwVrfIdOf);
      std::string out;
      for (const double until : {1.0, 2.0, 1e300}) {
        std::vector<Burst> bursts;
        list->pull(until, bursts);
        for (const auto& [index, packets] : bursts) {
          const Destination& to = list->destinations().at(index);
          out += std::to_string(to.hwVrfId) + ":" + Platform::toText(to.addr) + "x" + std::to_string(packets) + " ";
        }
        out += list->exhausted() ? "end" : "| ";
        if (list->exhausted()) break;
      }
      return out;
    } catch (const Platform::BadText& error) {
      return std::string(error.what()).substr(file_.size());
    }
  }
  const std::string file_ = ::testing::TempDir() + "flows." + std::to_string(::getpid());
};

TEST_F(FlowFileTest, ReadsEveryLineOrNone) {
  const struct {
    const char* what;
    std::string text;
    std::string result;
  } cases[] = {
      {"a header, blanks, comments", "# made up\r\n\r\ntime,VRF,destination,packets\r\n 0 , red , 1.1.1.1 , 5 # x\r\n",
       "7:1.1.1.1x5 end"},
      {"sorted by time, of equals the first first; VRFs keep addresses apart",
       "1.5,default,1.1.1.1,1\n0.5,default,1.1.1.2,2\n1.5,red,1.1.1.1,3\n1,default,1.1.1.2,4\n1.5,default,1.1.1.1,5",
       "0:1.1.1.2x2 | 0:1.1.1.2x4 0:1.1.1.1x1 7:1.1.1.1x3 0:1.1.1.1x5 end"},
      {"nothing", "", "end"},
      {"a header is the first line or none", "0,red,1.1.1.1,1\ntime,VRF,destination,packets\n",
       ":2: 'time' is not a time in seconds"},
      {"negative time", "-1,red,1.1.1.1,1", ":1: '-1' is not a time in seconds"},
      {"no end of time", "inf,red,1.1.1.1,1", ":1: 'inf' is not a time in seconds"},
      {"unknown VRF", "\n0,blue,1.1.1.1,1", ":2: there is no VRF 'blue'"},
      {"a VRF name too long", "0," + std::string(101, 'x') + ",1.1.1.1,1",
       ":1: '" + std::string(60, 'x') + "...' is not a VRF name (UTF-8, at most 100 bytes, none of them zero)"},
      {"other family", "0,red,::1,1", ":1: '::1' is not an IPv4 address"},
      {"no packet", "0,red,1.1.1.1,0", ":1: '0' is not a number of packets (1 to 4294967295)"},
      {"too many packets", "0,red,1.1.1.1,4294967296", ":1: '4294967296' is not a number of packets (1 to 4294967295)"},
      {"too few fields", "0,red,1.1.1.1", ":1: '0,red,1.1.1.1' is not time,VRF,destination,packets"},
      {"too many fields", "0,red,1.1.1.1,1,1", ":1: '0,red,1.1.1.1,1,1' is not time,VRF,destination,packets"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(flows(c.text), c.result);
  }
}

}  // namespace
