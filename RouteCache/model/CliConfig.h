#pragma once

#include <cstdint>
#include <string>

#include "platform/state/Entity.h"

namespace RouteCache {

// "routecache/cliconfig": the operator's three threshold levels. At a hardware utilisation of `...HwUtilPercentage` or
// more, routes idle for `...IdleTime` or longer may leave hardware.
class CliConfig final : public Lattis::Entity {
 public:
  static constexpr const char* typeName = "RouteCache::CliConfig";
  static constexpr std::uint8_t maxHwUtilPercentage = 100;
  static constexpr std::uint16_t maxIdleTime = 5100;  // seconds: 255 steps of the hardware's idle clock
  class Reactor : public Lattis::ReactorOf<CliConfig> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleThresholdConfig() = 0;  // any of the six changed
  };

  using Entity::Entity;
  std::uint8_t lowThresholdHwUtilPercentage() const { return lowThresholdHwUtilPercentage_; }
  void lowThresholdHwUtilPercentageIs(std::uint8_t percent);
  std::uint8_t mediumThresholdHwUtilPercentage() const { return mediumThresholdHwUtilPercentage_; }
  void mediumThresholdHwUtilPercentageIs(std::uint8_t percent);
  std::uint8_t highThresholdHwUtilPercentage() const { return highThresholdHwUtilPercentage_; }
  void highThresholdHwUtilPercentageIs(std::uint8_t percent);
  std::uint16_t lowThresholdIdleTime() const { return lowThresholdIdleTime_; }  // seconds
  void lowThresholdIdleTimeIs(std::uint16_t seconds);
  std::uint16_t mediumThresholdIdleTime() const { return mediumThresholdIdleTime_; }
  void mediumThresholdIdleTimeIs(std::uint16_t seconds);
  std::uint16_t highThresholdIdleTime() const { return highThresholdIdleTime_; }
  void highThresholdIdleTimeIs(std::uint16_t seconds);
  const Lattis::EntityType& entityType() const override;
  // A percentage over 100, levels that do not rise from low to high, an idle time over 5100 seconds.
  std::string fault() const override;

 private:
  template <class T>
  void thresholdIs(T& field, T value);
  std::uint8_t lowThresholdHwUtilPercentage_ = 85;
  std::uint8_t mediumThresholdHwUtilPercentage_ = 90;
  std::uint8_t highThresholdHwUtilPercentage_ = 95;
  std::uint16_t lowThresholdIdleTime_ = 1100;
  std::uint16_t mediumThresholdIdleTime_ = 300;
  std::uint16_t highThresholdIdleTime_ = 100;
};

}  // namespace RouteCache
