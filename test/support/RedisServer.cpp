#include "test/support/RedisServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <utility>

#include "linux/files/FileDescriptor.h"
#include "platform/values/Assert.h"
#include "test/support/Eventually.h"

using LinuxPlatform::FileDescriptor;

namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  PLATFORM_ASSERT(path.size() < sizeof address.sun_path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

// -1: nobody listens.
int connected(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = addressOf(path);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  ::close(fd);
  return -1;
}

int listening(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = addressOf(path);
  PLATFORM_ASSERT(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
  PLATFORM_ASSERT(::listen(fd, 64) == 0);
  return fd;
}

std::uint16_t freePort() {
  const FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  PLATFORM_ASSERT(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0);
  PLATFORM_ASSERT(::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size) == 0);
  return ntohs(address.sin_port);
}

bool sendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

// Reads answers in the server's protocol.
class Answers {
 public:
  explicit Answers(int fd) : fd_(fd) {}
  // The next one's texts; false: the connection has ended.
  bool take(RedisServer::Words& texts) {
    std::string line;
    if (!takeLine(line)) return false;
    const std::string rest = line.substr(1);
    if (line[0] != '$' && line[0] != '*') {
      texts.push_back(line[0] == '-' ? line : rest);
      return true;
    }
    long count = std::stol(rest);
    if (count < 0) texts.emplace_back("(nil)");
    if (line[0] == '$') return count < 0 || takeText(texts, static_cast<std::size_t>(count));
    while (count-- > 0) {
      if (!take(texts)) return false;
    }
    return true;
  }

 private:
  bool more() {
    std::array<char, 65536> bytes;
    const ssize_t count = ::recv(fd_, bytes.data(), bytes.size(), 0);
    if (count > 0) received_.append(bytes.data(), static_cast<std::size_t>(count));
    return count > 0;
  }
  bool takeLine(std::string& line) {
    std::size_t end = 0;
    while ((end = received_.find("\r\n")) == std::string::npos) {
      if (!more()) return false;
    }
    line = received_.substr(0, end);
    received_.erase(0, end + 2);
    return true;
  }
  bool takeText(RedisServer::Words& texts, std::size_t size) {
    while (received_.size() < size + 2) {
      if (!more()) return false;
    }
    texts.push_back(received_.substr(0, size));
    received_.erase(0, size + 2);
    return true;
  }
  int fd_;
  std::string received_;
};

}  // namespace

// --- The server ------------------------------------------------------------------------------------------------------

RedisServer::RedisServer(Port port, Words options)
    : options_(std::move(options)), port_(port == Port::none ? 0 : freePort()) {
  start();
}

RedisServer::~RedisServer() {
  kill();
}

void RedisServer::start() {
  Words words{"redis-server", "--dir", directory_.path(), "--unixsocket", socket(), "--bind", "127.0.0.1"};
  words.insert(words.end(), {"--port", std::to_string(port_), "--save", "", "--appendonly", "yes"});
  words.insert(words.end(), {"--appendfsync", "no", "--databases", "1", "--logfile", directory_.path() + "/log"});
  words.insert(words.end(), options_.begin(), options_.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::filesystem::remove(socket());
  process_ = ::fork();
  PLATFORM_ASSERT(process_ >= 0);
  if (process_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  waitUntilItAnswers();
}

void RedisServer::waitUntilItAnswers() const {
  PLATFORM_ASSERT(eventually([this] {
    PLATFORM_ASSERT(::waitpid(process_, nullptr, WNOHANG) == 0);
    const std::string answer = ask("PING");
    return answer == "PONG" || answer.starts_with("-NOAUTH");
  }));
}

void RedisServer::signal(int signal) const {
  ::kill(process_, signal);
}

void RedisServer::kill() {
  if (process_ <= 0) return;
  signal(SIGKILL);
  ::waitpid(std::exchange(process_, -1), nullptr, 0);
}

void RedisServer::loseData() const {
  std::filesystem::remove_all(directory_.path() + "/appendonlydir");
}

RedisServer::Words RedisServer::command(const Words& words) const {
  const int fd = connected(socket());
  if (fd < 0) return {"-not reached"};
  const FileDescriptor connection(fd);
  std::string request = "*" + std::to_string(words.size()) + "\r\n";
  for (const auto& word : words) request += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
  Words texts;
  if (!sendAll(fd, request) || !Answers(fd).take(texts)) return {"-lost"};
  return texts;
}

std::string RedisServer::ask(const std::string& text) const {
  std::istringstream in(text);
  Words words;
  for (std::string word; in >> word;) words.push_back(word);
  const Words texts = command(words);
  return texts.empty() ? "" : texts.front();
}

std::map<std::string, std::string> RedisServer::hash(const std::string& key) const {
  const Words texts = command({"HGETALL", key});
  std::map<std::string, std::string> fields;
  for (std::size_t i = 0; i + 1 < texts.size(); i += 2) fields[texts[i]] = texts[i + 1];
  return fields;
}

// --- The proxy -------------------------------------------------------------------------------------------------------

CuttingProxy::CuttingProxy(std::string socket, std::string server)
    : server_(std::move(server)), listener_(listening(socket)), thread_([this] { run(); }) {}

CuttingProxy::~CuttingProxy() {
  isEnding_ = true;
  thread_.join();
  ::close(listener_);
}

void CuttingProxy::run() {
  struct Pair {
    FileDescriptor client, server;
  };
  std::vector<Pair> pairs;
  std::array<char, 65536> bytes;
  while (!isEnding_) {
    std::vector<pollfd> ends{{listener_, POLLIN, 0}};
    for (const auto& pair : pairs) {
      ends.push_back({pair.client.get(), POLLIN, 0});
      ends.push_back({pair.server.get(), POLLIN, 0});
    }
    ::poll(ends.data(), ends.size(), 5);
    bool isCut = false;
    std::vector<std::size_t> ended;
    for (std::size_t i = 1; i < ends.size() && !isCut; ++i) {
      if (ends[i].revents == 0) continue;
      const bool isBack = i % 2 == 0;
      ssize_t count = ::recv(ends[i].fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
      if (count > 0 && isBack && left_ != never) {
        isCut = left_ <= count;
        count = std::min<ssize_t>(count, left_);
        left_ = isCut ? never : left_ - count;
      }
      if (count <= 0 && !isCut) ended.push_back((i - 1) / 2);
      if (count > 0) sendAll(ends[isBack ? i - 1 : i + 1].fd, {bytes.data(), static_cast<std::size_t>(count)});
    }
    if (isCut) {
      pairs.clear();
      ++cuts_;
      continue;
    }
    ended.erase(std::unique(ended.begin(), ended.end()), ended.end());
    for (auto i = ended.rbegin(); i != ended.rend(); ++i) pairs.erase(pairs.begin() + static_cast<std::ptrdiff_t>(*i));
    if (ends[0].revents == 0) continue;
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    const int server = connected(server_);
    if (server < 0) {
      ::close(client);
    } else {
      pairs.push_back({FileDescriptor(client), FileDescriptor(server)});
    }
  }
}
