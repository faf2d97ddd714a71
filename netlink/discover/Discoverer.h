// Follows this machine's links, addresses and routes, and keeps a switch's state database as they are.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "linux/loop/EventLoop.h"
#include "netlink/discover/Survey.h"
#include "netlink/discover/SwitchState.h"
#include "netlink/messages/Socket.h"

namespace Netlink {

// Where the state goes. Waits for it.
class StateKeeper {
 public:
  virtual ~StateKeeper() = default;
  struct Outcome {
    std::size_t changes = 0;
    std::vector<std::string> refusals;  // a line for each change that it does not take
  };
  // Changes what is there and is otherwise; nothing when nothing is. Throws std::runtime_error with one line when it
  // cannot be reached; some of it may have been changed then.
  virtual Outcome keep(const StateEntities& state) = 0;
  // True when it may have lost what it was told. Cheap.
  virtual bool isAnother() = 0;
};

// An announcement of the kernel only says when to look: the machine is surveyed then as a whole, and what differs from
// what is kept is changed. So nothing depends on announcements that were lost. Between two surveys there are ten times
// as long as one takes: the thread and the kernel's locks are for others, too.
class Discoverer {
 public:
  struct Intervals {
    double compare = 30;       // seconds between two comparisons with what is kept, without a cause
    double settle = 0.02;      // from an announcement to a survey: several come together
    double look = 1;           // between two looks whether the keeper is another
    double longestRetry = 30;  // while the keeper is out of reach; a second at first
  };
  using Tell = std::function<void(const std::string& line)>;
  // All of them outlive it. Throws std::system_error.
  Discoverer(LinuxPlatform::EventLoop& loop, DiscoverSettings settings, Intervals intervals, StateKeeper& keeper,
             Tell tell);
  ~Discoverer();
  Discoverer(const Discoverer&) = delete;
  Discoverer& operator=(const Discoverer&) = delete;

  // Names and values, for operators.
  std::vector<std::pair<std::string, std::uint64_t>> figures() const;

 private:
  void handleAnnouncements();
  void surveyWanted();
  void handleSurvey();
  void handleLook();
  void keep();
  void fail(const std::string& fault);
  void tellOnce(const std::string& line);

  LinuxPlatform::EventLoop& loop_;
  const DiscoverSettings settings_;
  const Intervals intervals_;
  StateKeeper& keeper_;
  const Tell tell_;
  Socket announcements_;

  std::optional<Survey> survey_;  // the last; nothing: none has been kept
  bool isKept_ = false;           // what it says, as far as is known
  double pause_ = 0;              // seconds from one survey to the next
  double surveyedAt_ = 0;
  double keptAt_ = 0;
  double retry_ = 0;               // seconds; 0: the keeper was reached the last time
  std::string fault_;              // why it was not
  std::vector<std::string> told_;  // of what is left out or refused, in the survey at hand
  std::vector<std::string> toldBefore_;

  std::uint64_t surveys_ = 0;
  std::uint64_t changes_ = 0;

  std::unique_ptr<Platform::Task> surveyTask_;
  std::unique_ptr<Platform::Task> lookTask_;
};

}  // namespace Netlink
