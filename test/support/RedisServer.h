// A Redis server of a test's own, and what stands between it and those who ask it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "test/support/TemporaryDirectory.h"

// A process from its making to its end, which the test's own process does not outlive either. It listens on a Unix
// socket and keeps its data in a file, so that they survive it.
class RedisServer {
 public:
  using Words = std::vector<std::string>;
  enum class Port : std::uint8_t { none, ofLoopback };

  // `options` as on redis-server's command line. Waits until it answers.
  explicit RedisServer(Port port = Port::none, Words options = {});
  ~RedisServer();
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  std::string socket() const { return directory_.path() + "/redis.sock"; }
  std::string address() const { return "unix:" + socket(); }
  std::uint16_t port() const { return port_; }

  // Its answer to a command: the texts of all that is in it, "(nil)" for none; an error begins with a '-'.
  Words command(const Words& words) const;
  // To a command without blanks in its words.
  std::string ask(const std::string& command) const;
  std::map<std::string, std::string> hash(const std::string& key) const;

  void signal(int signal) const;
  // As a power cut does it.
  void kill();
  void start();
  // The next start finds no data.
  void loseData() const;

 private:
  void waitUntilItAnswers() const;

  const TemporaryDirectory directory_;
  const Words options_;
  std::uint16_t port_ = 0;
  pid_t process_ = -1;
};

// Listens on a Unix socket and passes everything on to another and back, until it cuts the connections.
class CuttingProxy {
 public:
  CuttingProxy(std::string socket, std::string server);
  ~CuttingProxy();
  CuttingProxy(const CuttingProxy&) = delete;
  CuttingProxy& operator=(const CuttingProxy&) = delete;

  // All connections end when so many more bytes have come back from the server; once.
  void cutAfter(std::int64_t bytes) { left_ = bytes; }
  std::uint64_t cuts() const { return cuts_; }

 private:
  void run();

  const std::string server_;
  const int listener_;
  static constexpr std::int64_t never = INT64_MAX;
  std::atomic<std::int64_t> left_ = never;
  std::atomic<std::uint64_t> cuts_ = 0;
  std::atomic<bool> isEnding_ = false;
  std::thread thread_;
};
