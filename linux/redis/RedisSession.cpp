#include "linux/redis/RedisSession.h"

#include <arpa/inet.h>
#include <hiredis/hiredis.h>
#include <netdb.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

namespace LinuxPlatform {

using Platform::TaskPriority;

namespace {

constexpr double lookUpPoll = 0.02;  // seconds between two looks whether a name has been looked up

bool isNumeric(const std::string& host) {
  unsigned char address[sizeof(in6_addr)];
  return inet_pton(AF_INET, host.c_str(), address) == 1 || inet_pton(AF_INET6, host.c_str(), address) == 1;
}

// Waits for name servers.
std::vector<std::string> numericAddresses(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return {};
  std::vector<std::string> addresses;
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
    char text[NI_MAXHOST] = "";
    if (getnameinfo(address->ai_addr, address->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0) {
      addresses.emplace_back(text);
    }
  }
  freeaddrinfo(found);
  return addresses;
}

// Of the server as a whole, whatever it was asked. NOPERM is not: others may be permitted.
bool speaksOfServer(std::string_view error) {
  constexpr std::string_view kinds[] = {"LOADING", "NOAUTH", "WRONGPASS", "MASTERDOWN", "CLUSTERDOWN", "BUSY"};
  return std::any_of(std::begin(kinds), std::end(kinds), [error](auto kind) { return error.starts_with(kind); });
}

}  // namespace

RedisSession::RedisSession(EventLoop& loop, RedisSettings settings, Handlers handlers)
    : loop_(loop),
      settings_(std::move(settings)),
      handlers_(std::move(handlers)),
      fenceChannel_(settings_.switchName + "|fence|" + std::to_string(getpid()) + "|" +
                    std::to_string(std::random_device()())),
      chance_(std::random_device()()),
      timerTask_(loop.taskIs("stateDbSessionTask", TaskPriority::urgent, [this] { handleTimer(); })) {
  timerTask_->scheduleWithin(0);
}

RedisSession::~RedisSession() = default;

void RedisSession::handleTimer() {
  if (failure_) return close();
  switch (state_) {
    case State::resting:
      return begin();
    case State::lookingUp:
      return lookUp();
    case State::opening:
      if (loop_.now() - since_ >= openingLimit) return fail("no answer");
      return timerTask_->scheduleWithin(openingLimit);
    case State::open:
      return check();
  }
}

void RedisSession::begin() {
  since_ = loop_.now();
  const RedisAddress& address = settings_.address;
  if (!address.socket.empty() || isNumeric(address.host)) return connect(address);
  // A thread that may outlive this: name servers that do not answer keep it for half a minute.
  state_ = State::lookingUp;
  std::promise<std::vector<std::string>> promise;
  lookedUp_ = promise.get_future();
  std::thread([host = address.host, promise = std::move(promise)]() mutable {
    promise.set_value(numericAddresses(host));
  }).detach();
  timerTask_->scheduleWithin(lookUpPoll);
}

void RedisSession::lookUp() {
  if (lookedUp_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
    return timerTask_->scheduleWithin(lookUpPoll);
  }
  const auto found = lookedUp_.get();
  if (found.empty()) return fail("the name of the host is not known");
  RedisAddress numeric = settings_.address;
  numeric.host = found[nextAddress_++ % found.size()];
  connect(numeric);
}

void RedisSession::connect(const RedisAddress& numeric) {
  state_ = State::opening;
  const auto lost = [this](const std::string& why) { fail(why); };
  try {
    commands_ = std::make_unique<RedisConnection>(loop_, numeric, settings_.credentials, lost);
    messages_ = std::make_unique<RedisConnection>(loop_, numeric, settings_.credentials, lost);
  } catch (const std::runtime_error& error) {
    return fail(error.what());
  }
  stepsToOpen_ = 3;
  messages_->subscribe(
      {settings_.switchName, fenceChannel_}, [this] { stepIsOpened(); },
      [this](const auto& channel, const auto& text) { handleMessage(channel, text); });
  commands_->command({"PING"}, [this](const redisReply& reply) {
    if (reply.type == REDIS_REPLY_ERROR) return fail(textOf(reply));
    stepIsOpened();
  });
  timerTask_->scheduleWithin(openingLimit);
}

void RedisSession::stepIsOpened() {
  if (--stepsToOpen_ > 0 || failure_) return;
  state_ = State::open;
  since_ = loop_.now();
  ++openings_;
  fault_.clear();
  if (!std::exchange(toldFault_, {}).empty()) {
    settings_.notice("state database at " + settings_.address.text + ": reached again");
  }
  timerTask_->scheduleWithin(checkInterval);
  handlers_.opened();
}

void RedisSession::fail(const std::string& why) {
  if (!failure_) failure_ = why;
  timerTask_->scheduleWithin(0);
}

void RedisSession::close() {
  fault_ = *std::exchange(failure_, std::nullopt);
  const bool wasOpen = state_ == State::open;
  state_ = State::resting;
  commands_.reset();
  messages_.reset();
  fences_.clear();
  checkedAt_.reset();
  if (wasOpen && loop_.now() - since_ >= checkInterval) {
    delay_ = firstDelay;
    lastFault_.clear();
  }
  if (toldFault_.empty() && lastFault_ != fault_) {
    settings_.notice("state database at " + settings_.address.text + ": " + fault_ +
                     "; what is known stays, and it is tried again and again");
    lastFault_ = toldFault_ = fault_;
  }
  const double part = std::uniform_real_distribution<>(0.5, 1)(chance_);
  timerTask_->scheduleWithin(delay_ * part);
  delay_ = std::min(delay_ * 2, longestDelay);
  if (wasOpen) handlers_.closed();
}

// What goes out on the one connection comes back on the other: both live.
void RedisSession::check() {
  timerTask_->scheduleWithin(checkInterval);
  if (checkedAt_) {
    if (loop_.now() - *checkedAt_ >= answerLimit) fail("no answer for some time");
    return;
  }
  checkedAt_ = loop_.now();
  fence([this] { checkedAt_.reset(); });
}

void RedisSession::command(const std::vector<std::string>& words, RedisConnection::Answer answer) {
  if (!isOpen()) return;
  commands_->command(words, [this, answer = std::move(answer)](const redisReply& reply) {
    if (failure_) return;
    if (reply.type == REDIS_REPLY_ERROR && speaksOfServer(textOf(reply))) {
      return fail(textOf(reply));
    }
    answer(reply);
  });
}

void RedisSession::flush() {
  if (isOpen()) commands_->flush();
}

void RedisSession::fence(std::function<void()> passed) {
  const std::uint64_t number = nextFence_++;
  fences_[number] = std::move(passed);
  command({"PUBLISH", fenceChannel_, std::to_string(number)}, [this](const redisReply& reply) {
    if (reply.type == REDIS_REPLY_ERROR) fail(textOf(reply));  // it would never come back
  });
}

void RedisSession::handleMessage(const std::string& channel, const std::string& text) {
  if (state_ != State::open || failure_) return;
  if (channel == settings_.switchName) return handlers_.message(text);
  const auto found = fences_.find(std::strtoull(text.c_str(), nullptr, 10));
  if (channel != fenceChannel_ || found == fences_.end()) return;
  const auto passed = std::move(found->second);
  fences_.erase(found);
  passed();
}

}  // namespace LinuxPlatform
