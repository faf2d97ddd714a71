#include "linux/redis/RedisConnection.h"

#include <hiredis/async.h>
#include <hiredis/hiredis.h>
#include <sys/epoll.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

namespace LinuxPlatform {

std::string textOf(const redisReply& reply) {
  return reply.str == nullptr ? std::string() : std::string(reply.str, reply.len);
}

struct RedisConnection::Pending {
  RedisConnection& connection;
  Answer answer;
};

RedisConnection::RedisConnection(EventLoop& loop, const RedisAddress& address, const RedisCredentials& credentials,
                                 Lost lost)
    : loop_(loop), lost_(std::move(lost)) {
  context_ = address.socket.empty() ? redisAsyncConnect(address.host.c_str(), address.port)
                                    : redisAsyncConnectUnix(address.socket.c_str());
  if (context_ == nullptr) throw std::bad_alloc();
  if (context_->err != 0) {
    const std::string why = context_->errstr != nullptr ? context_->errstr : "";
    redisAsyncFree(context_);
    throw std::runtime_error(why);
  }
  watch();
  if (!credentials.password.empty()) {
    std::vector<std::string> words{"AUTH"};
    if (!credentials.user.empty()) words.push_back(credentials.user);
    words.push_back(credentials.password);
    command(words, [this](const redisReply& reply) {
      if (reply.type != REDIS_REPLY_ERROR) return;
      refusal_ = textOf(reply);
      lost_(refusal_);
    });
  }
}

RedisConnection::~RedisConnection() {
  isEnding_ = true;
  if (context_ != nullptr) redisAsyncFree(context_);
}

// The library says by these calls what it waits for.
void RedisConnection::watch() {
  fd_ = context_->c.fd;
  context_->ev.data = this;
  context_->ev.addRead = [](void* data) { of(data).interestIs(EPOLLIN, 0); };
  context_->ev.delRead = [](void* data) { of(data).interestIs(0, EPOLLIN); };
  context_->ev.addWrite = [](void* data) { of(data).interestIs(EPOLLOUT, 0); };
  context_->ev.delWrite = [](void* data) { of(data).interestIs(0, EPOLLOUT); };
  context_->ev.cleanup = [](void* data) { of(data).handleLoss(); };
  interestIs(EPOLLOUT, 0);  // connected, or refused
}

void RedisConnection::interestIs(std::uint32_t add, std::uint32_t remove) {
  const std::uint32_t interest = (interest_ | add) & ~remove;
  if (interest == interest_ || fd_ < 0) return;
  interest_ = interest;
  loop_.fdIs(fd_, interest, [this](std::uint32_t events) { ready(events); });
}

void RedisConnection::ready(std::uint32_t events) {
  if (context_ != nullptr && (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) redisAsyncHandleRead(context_);
  if (context_ != nullptr && (events & EPOLLOUT) != 0) redisAsyncHandleWrite(context_);
}

void RedisConnection::handleLoss() {
  if (fd_ >= 0) loop_.fdDel(fd_);
  fd_ = -1;
  const std::string why = context_->errstr != nullptr ? context_->errstr : "";
  context_ = nullptr;
  if (!isEnding_ && refusal_.empty()) lost_(why.empty() ? "the connection was closed" : why);
}

void RedisConnection::command(const std::vector<std::string>& words, Answer answer) {
  if (context_ == nullptr) return;
  std::vector<const char*> texts;
  std::vector<std::size_t> lengths;
  texts.reserve(words.size());
  lengths.reserve(words.size());
  for (const auto& word : words) {
    texts.push_back(word.data());
    lengths.push_back(word.size());
  }
  auto pending = std::make_unique<Pending>(Pending{*this, std::move(answer)});
  const int status = redisAsyncCommandArgv(context_, answered, pending.get(), static_cast<int>(words.size()),
                                           texts.data(), lengths.data());
  if (status != REDIS_OK) return;        // it is being lost
  static_cast<void>(pending.release());  // answered() takes it
  ++unanswered_;
}

// Called with no reply when the connection goes.
void RedisConnection::answered(redisAsyncContext*, void* reply, void* data) {
  const std::unique_ptr<Pending> pending(static_cast<Pending*>(data));
  pending->connection.handleAnswer(*pending, static_cast<const redisReply*>(reply));
}

void RedisConnection::handleAnswer(Pending& pending, const redisReply* reply) {
  --unanswered_;
  if (reply != nullptr && !isEnding_) pending.answer(*reply);
}

void RedisConnection::subscribe(const std::vector<std::string>& channels, std::function<void()> subscribed,
                                Message message) {
  subscribed_ = std::move(subscribed);
  message_ = std::move(message);
  for (const auto& channel : channels) {
    if (context_ == nullptr) return;
    const char* words[] = {"SUBSCRIBE", channel.data()};
    const std::size_t lengths[] = {9, channel.size()};
    redisAsyncCommandArgv(context_, pushed, this, 2, words, lengths);
  }
}

void RedisConnection::pushed(redisAsyncContext*, void* reply, void* data) {
  RedisConnection& connection = of(data);
  if (reply != nullptr && !connection.isEnding_) connection.handleMessage(*static_cast<const redisReply*>(reply));
}

void RedisConnection::handleMessage(const redisReply& reply) {
  if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 3) return;
  const std::string kind = textOf(*reply.element[0]);
  if (kind == "subscribe") subscribed_();
  if (kind == "message") message_(textOf(*reply.element[1]), textOf(*reply.element[2]));
}

void RedisConnection::flush() {
  if (context_ != nullptr && (interest_ & EPOLLOUT) != 0) redisAsyncHandleWrite(context_);
}

}  // namespace LinuxPlatform
