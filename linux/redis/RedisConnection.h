// One connection to a Redis server, driven by the event loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "linux/loop/EventLoop.h"
#include "linux/redis/RedisAddress.h"

struct redisAsyncContext;
struct redisReply;

namespace LinuxPlatform {

// Of a text or an error.
std::string textOf(const redisReply& reply);

// Commands go out in their order, and their answers come in it. Nothing here waits: a command is put into a buffer that
// leaves when the server takes it. Its owner keeps the number of unanswered commands small.
//
// A connection that is lost, or whose credentials are refused, tells so once, from the event loop; no answer comes
// afterwards. It must not be destroyed from inside one of its calls. Whoever has one ignores SIGPIPE
// (EventLoop::stopOnSignals does).
class RedisConnection {
 public:
  // An answer may be of any type, errors included (hiredis.h: REDIS_REPLY_...); it is gone after the call.
  using Answer = std::function<void(const redisReply&)>;
  using Lost = std::function<void(const std::string& why)>;
  using Message = std::function<void(const std::string& channel, const std::string& text)>;

  // Begins to connect. A host is a numeric address here: looking a name up waits for others. Loop outlives it. Throws
  // std::runtime_error with the system's reason when that fails at once.
  RedisConnection(EventLoop& loop, const RedisAddress& address, const RedisCredentials& credentials, Lost lost);
  RedisConnection(const RedisConnection&) = delete;
  RedisConnection& operator=(const RedisConnection&) = delete;
  ~RedisConnection();

  void command(const std::vector<std::string>& words, Answer answer);
  // Nothing but this is asked of the connection from now on. `subscribed` is called once for each channel.
  void subscribe(const std::vector<std::string>& channels, std::function<void()> subscribed, Message message);
  // Gives the system what it takes of the commands so far, so that they survive this process.
  void flush();

  std::size_t unanswered() const { return unanswered_; }

 private:
  struct Pending;
  void watch();
  void ready(std::uint32_t events);
  void interestIs(std::uint32_t add, std::uint32_t remove);
  void handleAnswer(Pending& pending, const redisReply* reply);
  void handleMessage(const redisReply& reply);
  void handleLoss();
  static RedisConnection& of(void* data) { return *static_cast<RedisConnection*>(data); }
  static void pushed(redisAsyncContext* context, void* reply, void* connection);
  static void answered(redisAsyncContext* context, void* reply, void* pending);

  EventLoop& loop_;
  Lost lost_;
  std::function<void()> subscribed_;
  Message message_;
  redisAsyncContext* context_ = nullptr;  // null once it is lost
  int fd_ = -1;
  std::uint32_t interest_ = 0;
  std::size_t unanswered_ = 0;
  bool isEnding_ = false;
  std::string refusal_;  // of the credentials
};

}  // namespace LinuxPlatform
