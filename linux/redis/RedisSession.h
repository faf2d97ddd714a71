// A standing connection to a Redis server: one to command, one to listen; opened again whenever it is lost.
#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "linux/loop/EventLoop.h"
#include "linux/redis/RedisAddress.h"
#include "linux/redis/RedisConnection.h"
#include "platform/services/TaskScheduler.h"

namespace LinuxPlatform {

struct RedisSettings {
  RedisAddress address;
  RedisCredentials credentials;
  std::string switchName;  // every key and channel begins with it
  // What cannot be set from outside is this process' to write; else it is another's and read, or will be its own later
  // (RedisMirror::outputsAreOwned).
  bool ownsOutputs = true;
  // One line for whoever runs the process.
  std::function<void(const std::string& line)> notice;
};

// Open, it has both connections, and hears what is published on the switch's channel from then on. It closes when
// either is lost or has not answered for some seconds, and opens again: after a tenth of a second at first, after up to
// five when that fails again and again, a part of it by chance, as a fleet of switches may have lost the same server. A
// server that lets us in and closes again soon, for one reason, fails again and again too, and is told once. Nothing
// waits: a server that stands still costs what is kept for it, and that is bounded by who uses this.
//
// Its handlers are called from the event loop.
class RedisSession {
 public:
  struct Handlers {
    std::function<void()> opened;
    std::function<void()> closed;
    std::function<void(const std::string& text)> message;  // on the switch's channel
  };
  static constexpr double firstDelay = 0.1;   // seconds until the first try to open again
  static constexpr double longestDelay = 5;   // seconds
  static constexpr double openingLimit = 5;   // seconds that a server may take to let us in
  static constexpr double checkInterval = 5;  // seconds between two looks whether it still answers
  static constexpr double answerLimit = 15;   // seconds without an answer, and the session closes

  // Begins to open. Loop outlives it.
  RedisSession(EventLoop& loop, RedisSettings settings, Handlers handlers);
  RedisSession(const RedisSession&) = delete;
  RedisSession& operator=(const RedisSession&) = delete;
  ~RedisSession();

  const RedisSettings& settings() const { return settings_; }
  bool isOpen() const { return state_ == State::open; }
  // Why it is not open; empty before the first failure.
  const std::string& fault() const { return fault_; }
  std::uint64_t openings() const { return openings_; }

  // Only while it is open. An error that speaks of the whole server (it is loading, it wants a password) closes the
  // session, and the answer does not come.
  void command(const std::vector<std::string>& words, RedisConnection::Answer answer);
  void flush();
  std::size_t unanswered() const { return commands_ ? commands_->unanswered() : 0; }
  // Calls `passed` when everything has been delivered that was published before. Nothing after a close.
  void fence(std::function<void()> passed);
  // It is of no use any more.
  void fail(const std::string& why);

 private:
  enum class State : std::uint8_t { resting, lookingUp, opening, open };

  void handleTimer();
  void begin();
  void lookUp();
  void connect(const RedisAddress& numeric);
  void stepIsOpened();
  void close();
  void check();
  void handleMessage(const std::string& channel, const std::string& text);

  EventLoop& loop_;
  const RedisSettings settings_;
  const Handlers handlers_;
  const std::string fenceChannel_;  // nobody else's
  State state_ = State::resting;
  std::unique_ptr<RedisConnection> commands_;
  std::unique_ptr<RedisConnection> messages_;
  std::future<std::vector<std::string>> lookedUp_;  // the host's numeric addresses
  std::size_t nextAddress_ = 0;                     // to be tried, of those
  int stepsToOpen_ = 0;
  std::optional<std::string> failure_;  // that is to be acted on, outside of the connections' calls
  std::string fault_;
  std::string toldFault_;  // not "reached again" since
  std::string lastFault_;  // told, and not followed by a session that has stood for a while
  double since_ = 0;       // when the state began
  double delay_ = firstDelay;
  std::uint64_t openings_ = 0;
  std::uint64_t nextFence_ = 0;
  std::map<std::uint64_t, std::function<void()>> fences_;
  std::optional<double> checkedAt_;  // of the look that has not been answered
  std::minstd_rand chance_;
  std::unique_ptr<Platform::Task> timerTask_;
};

}  // namespace LinuxPlatform
