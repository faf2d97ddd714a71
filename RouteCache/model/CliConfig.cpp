#include "RouteCache/model/CliConfig.h"

#include <utility>

namespace RouteCache {

using Lattis::attributeField;

template <class T>
void CliConfig::thresholdIs(T& field, T value) {
  if (std::exchange(field, value) == value) return;
  notify<Reactor>([](Reactor& reactor) { reactor.handleThresholdConfig(); });
}

void CliConfig::lowThresholdHwUtilPercentageIs(std::uint8_t percent) {
  thresholdIs(lowThresholdHwUtilPercentage_, percent);
}
void CliConfig::mediumThresholdHwUtilPercentageIs(std::uint8_t percent) {
  thresholdIs(mediumThresholdHwUtilPercentage_, percent);
}
void CliConfig::highThresholdHwUtilPercentageIs(std::uint8_t percent) {
  thresholdIs(highThresholdHwUtilPercentage_, percent);
}
void CliConfig::lowThresholdIdleTimeIs(std::uint16_t seconds) {
  thresholdIs(lowThresholdIdleTime_, seconds);
}
void CliConfig::mediumThresholdIdleTimeIs(std::uint16_t seconds) {
  thresholdIs(mediumThresholdIdleTime_, seconds);
}
void CliConfig::highThresholdIdleTimeIs(std::uint16_t seconds) {
  thresholdIs(highThresholdIdleTime_, seconds);
}

const Lattis::EntityType& CliConfig::entityType() const {
  using This = CliConfig;
  static const Lattis::EntityType type{
      typeName,
      {attributeField<This, &This::lowThresholdHwUtilPercentage, &This::lowThresholdHwUtilPercentageIs>(
           "lowThresholdHwUtilPercentage"),
       attributeField<This, &This::mediumThresholdHwUtilPercentage, &This::mediumThresholdHwUtilPercentageIs>(
           "mediumThresholdHwUtilPercentage"),
       attributeField<This, &This::highThresholdHwUtilPercentage, &This::highThresholdHwUtilPercentageIs>(
           "highThresholdHwUtilPercentage"),
       attributeField<This, &This::lowThresholdIdleTime, &This::lowThresholdIdleTimeIs>("lowThresholdIdleTime"),
       attributeField<This, &This::mediumThresholdIdleTime, &This::mediumThresholdIdleTimeIs>(
           "mediumThresholdIdleTime"),
       attributeField<This, &This::highThresholdIdleTime, &This::highThresholdIdleTimeIs>("highThresholdIdleTime")},
      {}};
  return type;
}

std::string CliConfig::fault() const {
  const std::pair<const char*, std::uint8_t> percentages[] = {
      {"lowThresholdHwUtilPercentage", lowThresholdHwUtilPercentage_},
      {"mediumThresholdHwUtilPercentage", mediumThresholdHwUtilPercentage_},
      {"highThresholdHwUtilPercentage", highThresholdHwUtilPercentage_}};
  for (const auto& [name, percent] : percentages) {
    if (percent > maxHwUtilPercentage) return std::string(name) + " " + std::to_string(percent) + " is over 100";
  }
  const std::pair<const char*, std::uint16_t> idleTimes[] = {{"lowThresholdIdleTime", lowThresholdIdleTime_},
                                                             {"mediumThresholdIdleTime", mediumThresholdIdleTime_},
                                                             {"highThresholdIdleTime", highThresholdIdleTime_}};
  for (const auto& [name, seconds] : idleTimes) {
    if (seconds > maxIdleTime) return std::string(name) + " " + std::to_string(seconds) + " is over 5100 seconds";
  }
  if (lowThresholdHwUtilPercentage_ > mediumThresholdHwUtilPercentage_ ||
      mediumThresholdHwUtilPercentage_ > highThresholdHwUtilPercentage_) {
    return "utilisation thresholds must rise from low to high: " + std::to_string(lowThresholdHwUtilPercentage_) +
           ", " + std::to_string(mediumThresholdHwUtilPercentage_) + ", " +
           std::to_string(highThresholdHwUtilPercentage_);
  }
  return {};
}

}  // namespace RouteCache
