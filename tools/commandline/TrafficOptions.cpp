#include "tools/commandline/TrafficOptions.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <optional>

#include "platform/values/Text.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/OptionChecks.h"

namespace Tools {

using Platform::BadText;

namespace {

// "30:60:0.5" as numbers.
std::optional<std::vector<double>> numbersIn(std::string_view text) {
  std::vector<double> numbers;
  const char* at = text.data();
  const char* const end = text.data() + text.size();
  for (;; ++at) {
    double number = 0;
    const auto [next, error] = std::from_chars(at, end, number);
    if (error != std::errc()) return std::nullopt;
    numbers.push_back(number);
    if (next == end) return numbers;
    if (*next != ':') return std::nullopt;
    at = next;
  }
}

Simulator::FlashCrowd crowdFrom(const std::string& text) {
  const auto numbers = numbersIn(text);
  if (!numbers || numbers->size() != 4) {
    throw BadText("--flash-crowd: '" + text + "' is not START:DURATION:SHARE:DESTINATIONS");
  }
  const auto& value = *numbers;
  if (!(value[3] >= 1 && value[3] <= 1e9)) {
    throw BadText("--flash-crowd: '" + text + "' is of no number of destinations that there can be");
  }
  return {value[0], value[1], value[2], static_cast<std::uint32_t>(value[3])};
}

Simulator::ScanAttack scanFrom(const std::string& text) {
  const auto numbers = numbersIn(text);
  if (!numbers || numbers->size() < 2 || numbers->size() > 3) {
    throw BadText("--scan-attack: '" + text + "' is not START:RATE or START:RATE:DURATION");
  }
  Simulator::ScanAttack scan;
  scan.start = (*numbers)[0];
  scan.rate = (*numbers)[1];
  if (numbers->size() == 3) scan.duration = (*numbers)[2];
  return scan;
}

}  // namespace

void addTrafficOptions(CLI::App& command, TrafficOptions& options) {
  auto& zipf = options.zipf;
  const auto number = [&command]<class T>(const char* name, T& value, const CLI::Validator& range, const char* what) {
    return command.add_option(name, value, what)->check(range)->capture_default_str();
  };
  const std::vector<CLI::Option*> made{
      number("--exponent", zipf.exponent, realNumber(0, Simulator::ZipfMandelbrot::maxExponent),
             "Of the Zipf-Mandelbrot law that draws destinations; 0: all alike"),
      number("--shift", zipf.shift, realNumber(0, Simulator::ZipfMandelbrot::maxShift),
             "Of the law; larger: the first ranks more alike"),
      number("--rate", zipf.rate, realNumber(0.001, mostPerSecond), "Packets per second"),
      number("--drift", zipf.drift, realNumber(0, 1), "Share of the ranks that are reshuffled in every minute, 0 to 1"),
      number("--hot-share", zipf.hotShare, realNumber(0, 1),
             "Share of the ranks that crowds and scans leave out, 0 to 1"),
      command
          .add_option("--flash-crowd", options.crowds,
                      "START:DURATION:SHARE:DESTINATIONS, a share of the packets to so many cold destinations")
          ->type_name("CROWD"),
      command.add_option("--scan-attack", options.scan, "START:RATE[:DURATION], a packet to each cold destination")
          ->type_name("SCAN")};
  number("--seed", zipf.seed, wholeNumber(0), "Another seed, other traffic");
  auto* flows = command
                    .add_option("--flows", options.flows,
                                "Replay flows instead, \"time,VRF,destination,packets\" a line, plain or gzip")
                    ->type_name("FILE");
  for (auto* option : made) flows->excludes(option);
}

TrafficPlan trafficPlan(const TrafficOptions& options) {
  TrafficPlan plan{options.zipf, std::nullopt};
  for (const auto& crowd : options.crowds) plan.zipf.crowds.push_back(crowdFrom(crowd));
  if (!options.scan.empty()) plan.zipf.scan = scanFrom(options.scan);
  plan.zipf = Simulator::checked(std::move(plan.zipf));
  if (!options.flows.empty()) {
    LineReader lines = linesOf(options.flows);
    plan.flows.emplace(lines);
  }
  return plan;
}

}  // namespace Tools
