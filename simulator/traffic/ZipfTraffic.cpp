#include "simulator/traffic/ZipfTraffic.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "platform/values/Assert.h"

namespace Simulator {

namespace {

constexpr double never = std::numeric_limits<double>::infinity();
constexpr double maxRate = 1e9;

// How many of the moments 0 / rate, 1 / rate, 2 / rate... lie before `time`. The moments decide, as they are rounded:
// whoever asks for the time of packet k divides as well.
std::uint64_t momentsBefore(double time, double rate) {
  if (time <= 0) return 0;
  const auto at = [rate](std::uint64_t k) { return static_cast<double>(k) / rate; };
  auto count = static_cast<std::uint64_t>(time * rate);
  while (count > 0 && at(count - 1) >= time) --count;
  while (at(count) < time) ++count;
  return count;
}

std::uint32_t shareOf(double share, std::uint64_t whole) {
  return static_cast<std::uint32_t>(std::nearbyint(share * static_cast<double>(whole)));
}

void require(bool condition, const char* text) {
  if (!condition) throw RangeError(text);
}

bool isTime(double time) {
  return time >= 0 && time < never;
}

void checkCrowds(const std::vector<FlashCrowd>& crowds) {
  double end = 0;
  for (const FlashCrowd& crowd : crowds) {
    require(isTime(crowd.start), "a flash crowd's start must be a time in seconds");
    require(crowd.duration > 0, "a flash crowd's duration must be over 0");
    require(crowd.share >= 0 && crowd.share <= 1, "a flash crowd's share must be 0 to 1");
    require(crowd.destinations > 0, "a flash crowd needs a destination");
    require(crowd.start >= end, "flash crowds must not overlap");
    end = crowd.start + crowd.duration;
  }
}

void checkSettings(const ZipfSettings& settings) {
  require(settings.exponent >= 0 && settings.exponent <= ZipfMandelbrot::maxExponent,
          "the traffic's exponent must be 0 to 10");
  require(settings.shift >= 0 && settings.shift <= ZipfMandelbrot::maxShift,
          "the traffic's shift must be 0 to 1000000000");
  require(settings.rate > 0 && settings.rate <= maxRate, "the traffic's rate must be over 0 to 1000000000");
  require(settings.drift >= 0 && settings.drift <= 1, "the traffic's drift must be 0 to 1");
  require(settings.hotShare >= 0 && settings.hotShare <= 1, "the traffic's hot share must be 0 to 1");
  if (!settings.scan) return;
  require(isTime(settings.scan->start), "the scan's start must be a time in seconds");
  require(settings.scan->duration > 0, "the scan's duration must be over 0");
  require(settings.scan->rate > 0 && settings.scan->rate <= maxRate, "the scan's rate must be over 0 to 1000000000");
}

// `count` of the values from `begin` on, each as likely as any other, in their order.
std::vector<std::uint32_t> drawSome(const std::vector<std::uint32_t>& values, std::uint32_t begin, std::uint32_t count,
                                    Random& random) {
  std::vector<std::uint32_t> drawn;
  drawn.reserve(count);
  for (auto i = begin; drawn.size() < count; ++i) {
    const auto left = static_cast<std::uint32_t>(values.size()) - i;
    if (random.below(left) < count - drawn.size()) drawn.push_back(values[i]);
  }
  return drawn;
}

}  // namespace

ZipfSettings checked(ZipfSettings settings) {
  std::ranges::stable_sort(settings.crowds, {}, &FlashCrowd::start);
  checkSettings(settings);
  checkCrowds(settings.crowds);
  return settings;
}

ZipfTraffic::ZipfTraffic(std::vector<Destination> destinations, const ZipfSettings& settings)
    : settings_(checked(settings)),
      destinations_(std::move(destinations)),
      law_(destinations_.size(), settings.exponent, settings.shift),
      popularity_(law_.ranks(), settings.seed),
      packetRandom_(settings.seed, 1),
      crowdRandom_(settings.seed, 2) {
  for (const FlashCrowd& crowd : settings_.crowds) {
    require(crowd.destinations <= coldRanks(), "a flash crowd has more destinations than are cold");
  }
  tradesPerMinute_ = std::min(shareOf(settings_.drift / 2, law_.ranks()), law_.ranks() / 2);
  if (settings_.scan) {
    const ScanAttack& scan = *settings_.scan;
    scanSize_ = coldRanks();
    // A scan that lasts long enough is not cut short; counting its packets could overflow.
    if (scan.duration * scan.rate <= static_cast<double>(scanSize_))
      scanSize_ = momentsBefore(scan.duration, scan.rate);
  }
}

void ZipfTraffic::pull(double until, std::vector<Burst>& bursts) {
  PLATFORM_ASSERT(until < never);
  for (;;) {
    const double trade = tradeAt();
    const double crowdChange = crowdChangeAt();
    const double next = std::min({trade, crowdChange, scanAt()});
    send(std::min(until, next), bursts);
    if (next >= until) return;
    if (next == trade) {
      handleTrade();
    } else if (next == crowdChange) {
      handleCrowdChange();
    } else {
      handleScan(bursts);
    }
  }
}

double ZipfTraffic::tradeAt() const {
  if (tradesPerMinute_ == 0) return never;
  return 60.0 * static_cast<double>(trades_ + 1) / static_cast<double>(tradesPerMinute_);
}

double ZipfTraffic::crowdChangeAt() const {
  if (crowd_ == settings_.crowds.size()) return never;
  const FlashCrowd& crowd = settings_.crowds[crowd_];
  return crowdDestinations_.empty() ? crowd.start : crowd.start + crowd.duration;
}

double ZipfTraffic::scanAt() const {
  if (scanned_ == scanSize_) return never;
  return settings_.scan->start + static_cast<double>(scanned_) / settings_.scan->rate;
}

void ZipfTraffic::handleTrade() {
  if (trades_ % tradesPerMinute_ == 0) popularity_.roundIs();
  popularity_.trade();
  ++trades_;
}

void ZipfTraffic::handleCrowdChange() {
  if (!crowdDestinations_.empty()) {
    crowdDestinations_.clear();
    ++crowd_;
    return;
  }
  const FlashCrowd& crowd = settings_.crowds[crowd_];
  crowdDestinations_ = drawSome(byRank(), hotRanks(), crowd.destinations, crowdRandom_);
  crowdShare_ = static_cast<std::uint64_t>(std::nearbyint(crowd.share * 4294967296.0));
}

void ZipfTraffic::handleScan(std::vector<Burst>& bursts) {
  if (scanned_ == 0) {
    scanDestinations_.assign(byRank().begin() + hotRanks(), byRank().end());
    std::ranges::sort(scanDestinations_);
  }
  bursts.push_back({scanDestinations_[scanned_], 1});
  if (++scanned_ == scanSize_) scanDestinations_ = {};
}

void ZipfTraffic::send(double until, std::vector<Burst>& bursts) {
  for (const std::uint64_t end = momentsBefore(until, settings_.rate); sent_ < end; ++sent_) {
    bursts.push_back({drawDestination(), 1});
  }
}

std::uint32_t ZipfTraffic::drawDestination() {
  const std::uint32_t lawful = byRank()[law_.draw(packetRandom_)];
  if (crowdDestinations_.empty()) return lawful;
  const std::uint64_t number = crowdRandom_.next();
  if ((number & 0xFFFFFFFF) >= crowdShare_) return lawful;
  return crowdDestinations_[Random::scaled(number, static_cast<std::uint32_t>(crowdDestinations_.size()))];
}

std::uint32_t ZipfTraffic::hotRanks() const {
  return std::min(shareOf(settings_.hotShare, law_.ranks()), law_.ranks());
}

std::uint32_t ZipfTraffic::coldRanks() const {
  return law_.ranks() - hotRanks();
}

}  // namespace Simulator
