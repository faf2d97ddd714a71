#include "linux/control/ControlClient.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "linux/files/FileDescriptor.h"
#include "linux/files/RunDirectory.h"
#include "platform/values/Printable.h"
#include "platform/values/Text.h"

namespace Tools {

namespace {

constexpr const char* makesNoSense = "its answer makes no sense";

class Connection {
 public:
  Connection(const std::string& path, std::string who, double patience)
      : who_(std::move(who)), fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) fail("its path is too long for a socket");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const auto seconds = static_cast<time_t>(patience);
    const timeval timeout{seconds, static_cast<suseconds_t>((patience - static_cast<double>(seconds)) * 1e6)};
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout,
               sizeof timeout);  // of connect, too, while many others wait
    if (connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) failed();
  }

  void send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) failed();
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
  }

  std::string line() {
    std::size_t end = received_.find('\n', start_);
    while (end == std::string::npos) {
      received_.erase(0, std::exchange(start_, 0));
      const std::size_t searched = received_.size();
      receive();
      end = received_.find('\n', searched);
    }
    std::string line = received_.substr(start_, end - start_);
    start_ = end + 1;
    return line;
  }

  // Hands over the next `count` bytes, in as many parts as they arrive in.
  void bytes(std::uint64_t count, const std::function<void(std::string_view)>& content) {
    while (count > 0) {
      if (start_ == received_.size()) {
        received_.clear();
        start_ = 0;
        receive();
      }
      const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(count, received_.size() - start_));
      content(std::string_view(received_).substr(start_, part));
      start_ += part;
      count -= part;
    }
  }

  [[noreturn]] void fail(const std::string& reason) const { throw std::runtime_error(who_ + ": " + reason); }

 private:
  [[noreturn]] void failed() const {
    if (errno == EAGAIN) fail("it does not answer");
    if (errno == EACCES) fail("it answers to its own user and group only");
    fail(std::strerror(errno));
  }

  void receive() {
    std::array<char, 64 * 1024> buffer;  // NOLINT: filled by recv
    ssize_t count = -1;
    do {
      count = recv(fd_.get(), buffer.data(), buffer.size(), 0);
    } while (count < 0 && errno == EINTR);
    if (count < 0) failed();
    if (count == 0) fail("it closed the connection");
    received_.append(buffer.data(), static_cast<std::size_t>(count));
  }

  std::string who_;
  LinuxPlatform::FileDescriptor fd_;
  std::string received_;
  std::size_t start_ = 0;  // of the first byte that has not been handed out
};

Connection agentIn(const std::string& runDirectory, double patience) {
  return {LinuxPlatform::RunDirectory::controlPath(runDirectory), "the agent in " + runDirectory, patience};
}

// What cannot be sent as it is must not become something else on its way.
void checkUtf8(const Json& request) {
  for (const auto& [name, text] : request.items()) {
    if (Platform::isUtf8(text.get_ref<const std::string&>())) continue;
    throw Platform::BadText("'" + text.get<std::string>() + "' is not UTF-8");
  }
}

// Sends the request and goes through the lines of its reply's content.
template <class Content>
void ask(Connection& connection, const Json& request, Content&& content) {
  connection.send(request.dump() + "\n");
  while (true) {
    const Json line = Json::parse(connection.line(), nullptr, false);
    if (!line.is_object()) connection.fail(makesNoSense);
    if (line.contains("error")) throw Platform::BadText(line.value("error", ""));
    if (line.contains("done")) return;
    content(line);
  }
}

}  // namespace

struct AgentConnection::State {
  Connection connection;
};

AgentConnection::AgentConnection(const std::string& runDirectory, double patience)
    : state_(new State{agentIn(runDirectory, patience)}) {}
AgentConnection::~AgentConnection() = default;

void AgentConnection::ask(const Json& request, const std::function<void(const Json&)>& content) {
  checkUtf8(request);
  Tools::ask(state_->connection, request, content);
}

void askAgent(const std::string& runDirectory, const Json& request, const std::function<void(const Json&)>& content) {
  checkUtf8(request);
  AgentConnection(runDirectory).ask(request, content);
}

void askAgentForBytes(const std::string& runDirectory, const Json& request,
                      const std::function<void(std::string_view)>& content) {
  checkUtf8(request);
  Connection connection = agentIn(runDirectory, longPatience);
  ask(connection, request, [&](const Json& line) {
    const auto count = line.find("bytes");
    if (count == line.end() || !count->is_number_unsigned()) connection.fail(makesNoSense);
    connection.bytes(count->get<std::uint64_t>(), content);
  });
}

void askProcess(const std::string& socketPath, const std::string& who, const Json& request,
                const std::function<void(const Json&)>& content, double patience) {
  checkUtf8(request);
  Connection connection(socketPath, who, patience);
  ask(connection, request, content);
}

}  // namespace Tools
