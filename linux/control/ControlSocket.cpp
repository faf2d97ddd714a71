#include "linux/control/ControlSocket.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "platform/values/Printable.h"

namespace LinuxPlatform {

namespace {

// A reply waits for its reader once this much of it is ready.
constexpr std::size_t outgoingMark = 64 * 1024;
// Seconds until newcomers are looked for again that found no place or no descriptor.
constexpr double acceptInterval = 0.25;
// Seconds until a reply that waits for something is looked after again.
constexpr double waitingInterval = 0.01;

std::string doneLine() {
  return "{\"done\":true}\n";
}
std::string errorLine(std::string_view text) {
  return controlLine({{"error", Platform::printable(text)}});
}

// The request on this line, or nothing.
std::optional<ControlSocket::Request> parsedRequest(std::string_view text) {
  const auto json = nlohmann::ordered_json::parse(text, nullptr, false);
  if (!json.is_object() || !json.contains("op")) return std::nullopt;
  ControlSocket::Request request;
  for (const auto& [name, value] : json.items()) {
    if (value.is_structured() || value.is_null()) return std::nullopt;
    request[name] = value.is_string() ? value.get<std::string>() : value.dump();
  }
  return request;
}

bool isMember(int peer, gid_t group, gid_t own) {
  if (own == group) return true;
  std::vector<gid_t> groups(64);
  socklen_t size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
  int result = getsockopt(peer, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
  if (result != 0 && errno == ERANGE) {  // `size` says how many bytes there are
    groups.resize(size / sizeof(gid_t));
    result = getsockopt(peer, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
  }
  if (result != 0) return false;
  groups.resize(size / sizeof(gid_t));
  return std::ranges::find(groups, group) != groups.end();
}

}  // namespace

const Lattis::EntityType& ControlSocket::Statistics::entityType() const {
  static const Lattis::EntityType type{"LinuxPlatform::ControlSocket::Statistics",
                                       {Lattis::readOnlyField<Statistics, &Statistics::clients>("clients"),
                                        Lattis::readOnlyField<Statistics, &Statistics::requests>("requests"),
                                        Lattis::readOnlyField<Statistics, &Statistics::dropped>("dropped"),
                                        Lattis::readOnlyField<Statistics, &Statistics::evicted>("evicted"),
                                        Lattis::readOnlyField<Statistics, &Statistics::refused>("refused"),
                                        Lattis::readOnlyField<Statistics, &Statistics::longestTurn>("longestTurn")},
                                       {}};
  return type;
}

struct ControlSocket::Client {
  FileDescriptor fd;
  Access access = Access::none;
  std::uint32_t watched = 0;  // the events that the loop looks for
  std::string incoming;       // at most one unfinished request and what came with it
  std::string outgoing;
  std::size_t sent = 0;                 // bytes of it that are gone
  std::unique_ptr<ControlReply> reply;  // of the request being answered
  bool hungUp = false;                  // no more requests will come
  double lastSign = 0;                  // when bytes last went either way

  // Whether it is the client that has to do something next: ask, or read what is ready.
  bool isAwaited() const { return !reply || !outgoing.empty(); }
};

ControlSocket::ControlSocket(EventLoop& loop, const std::string& path, double clientPatience)
    : loop_(loop), path_(path), patience_(clientPatience), statistics_(std::make_shared<Statistics>("control")) {
  listenAt(path);
  acceptTask_ = loop.taskIs("controlAcceptTask", Platform::TaskPriority::urgent, [this] { acceptClients(); });
  waitingTask_ = loop.taskIs("controlWaitingTask", Platform::TaskPriority::urgent, [this] { serveWaiting(); });
  acceptTask_->scheduleWithin(0);
}

void ControlSocket::listenAt(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0) {
    if (!S_ISSOCK(status.st_mode)) throw std::runtime_error(path + ": what stands there is not a socket");
    unlink(path.c_str());
  }
  listenFd_ = FileDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  // The file is made with the mode that it keeps, 0660: to connect takes the right to write, which most umasks take
  // from the group. A stricter one has kept the group out of the directory already.
  const mode_t before = umask(0117);
  const bool listening = listenFd_ &&
                         bind(listenFd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                         lstat(path.c_str(), &status) == 0 && listen(listenFd_.get(), SOMAXCONN) == 0;
  const int error = errno;
  umask(before);
  group_ = status.st_gid;
  if (listening) return;
  throw std::system_error(error, std::generic_category(), path);
}

ControlSocket::~ControlSocket() {
  for (const auto& [fd, client] : clients_) loop_.fdDel(fd);
  loop_.fdDel(listenFd_.get());
  unlink(path_.c_str());
}

// --- Connections -----------------------------------------------------------------------------------------------------

void ControlSocket::acceptClients() {
  if (clients_.size() >= maxClients) makeRoom();
  errno = 0;
  while (clients_.size() < maxClients) {
    FileDescriptor accepted(accept4(listenFd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!accepted && (errno == EINTR || errno == ECONNABORTED)) continue;
    if (!accepted) break;
    auto client = std::make_unique<Client>();
    const int fd = accepted.get();
    client->fd = std::move(accepted);
    client->access = accessOf(fd);
    client->lastSign = loop_.now();
    ++statistics_->clients_;
    watch(*client, EPOLLIN);
    clients_[fd] = std::move(client);
  }
  const bool all = clients_.size() < maxClients && errno == EAGAIN;
  if (all && !listening_) loop_.fdIs(listenFd_.get(), EPOLLIN, [this](std::uint32_t) { acceptClients(); });
  // No place, descriptor or memory is left: whoever waits goes on waiting, and the loop must not be woken for it for
  // ever.
  if (!all && listening_) loop_.fdDel(listenFd_.get());
  if (!all) acceptTask_->scheduleWithin(acceptInterval);
  listening_ = all;
}

// If anybody wants to come in.
void ControlSocket::makeRoom() {
  pollfd newcomers{listenFd_.get(), POLLIN, 0};
  if (poll(&newcomers, 1, 0) <= 0) return;
  const Client* silent = nullptr;
  for (const auto& [fd, client] : clients_) {
    if (client->isAwaited() && (silent == nullptr || client->lastSign < silent->lastSign)) silent = client.get();
  }
  if (silent == nullptr || loop_.now() - silent->lastSign < patience_) return;
  ++statistics_->evicted_;
  end(silent->fd.get(), Fate::close);
}

ControlSocket::Access ControlSocket::accessOf(int fd) const {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return Access::none;
  if (peer.uid == geteuid() || peer.uid == 0) return Access::change;
  return isMember(fd, group_, peer.gid) ? Access::ask : Access::none;
}

void ControlSocket::end(int fd, Fate fate) {
  if (fate == Fate::drop) ++statistics_->dropped_;
  loop_.fdDel(fd);
  clients_.erase(fd);
  if (!listening_) acceptTask_->scheduleWithin(0);
}

void ControlSocket::watch(Client& client, std::uint32_t events) {
  if (client.watched == events) return;
  client.watched = events;
  loop_.fdIs(client.fd.get(), events, [this, fd = client.fd.get()](std::uint32_t ready) { handleClient(fd, ready); });
}

void ControlSocket::handleClient(int fd, std::uint32_t events) {
  const auto began = std::chrono::steady_clock::now();
  Client& client = *clients_.at(fd);
  Fate fate = (events & (EPOLLHUP | EPOLLERR)) != 0 ? Fate::close : Fate::keep;
  if (fate == Fate::keep && (events & EPOLLIN) != 0) fate = receive(client);
  if (fate == Fate::keep) fate = serve(client);
  if (fate != Fate::keep) end(fd, fate);
  const std::chrono::duration<double> turn = std::chrono::steady_clock::now() - began;
  statistics_->longestTurn_ = std::max(statistics_->longestTurn_, turn.count());
}

ControlSocket::Fate ControlSocket::receive(Client& client) {
  std::array<char, 16 * 1024> buffer;  // NOLINT: filled by recv
  const ssize_t count = recv(client.fd.get(), buffer.data(), buffer.size(), 0);
  if (count < 0) return errno == EAGAIN || errno == EINTR ? Fate::keep : Fate::close;
  if (count == 0) client.hungUp = true;
  client.incoming.append(buffer.data(), static_cast<std::size_t>(count));
  client.lastSign = loop_.now();
  return Fate::keep;
}

// Sends, produces and takes up requests until something has to be waited for or the time slice is spent.
ControlSocket::Fate ControlSocket::serve(Client& client) {
  do {
    if (client.outgoing.size() >= outgoingMark || !client.reply) {
      if (const Fate fate = send(client); fate != Fate::keep) return fate;
      if (!client.outgoing.empty()) break;
    }
    if (client.reply) {
      if (!produce(client)) break;
      continue;
    }
    const std::size_t before = client.incoming.size();
    if (const Fate fate = nextRequest(client); fate != Fate::keep) return fate;
    if (client.incoming.size() != before) continue;
    if (client.hungUp) return Fate::close;
    watch(client, EPOLLIN);
    return Fate::keep;
  } while (!acceptTask_->shouldYield());  // the slice of this callback, whichever task is asked
  if (const Fate fate = send(client); fate != Fate::keep) return fate;
  // No new requests are read while one is being answered: their sender waits in its own memory.
  const bool isWaiting = client.outgoing.empty() && client.reply && client.reply->isWaiting();
  watch(client, isWaiting ? 0U : std::uint32_t{EPOLLOUT});
  if (isWaiting) waitingTask_->scheduleWithin(waitingInterval);
  return Fate::keep;
}

void ControlSocket::serveWaiting() {
  std::vector<int> waiting;
  for (const auto& [fd, client] : clients_) {
    if (client->watched == 0) waiting.push_back(fd);
  }
  for (const int fd : waiting) handleClient(fd, 0);
}

ControlSocket::Fate ControlSocket::send(Client& client) {
  while (client.sent < client.outgoing.size()) {
    const std::string_view unsent = std::string_view(client.outgoing).substr(client.sent);
    const ssize_t count = ::send(client.fd.get(), unsent.data(), unsent.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno == EAGAIN ? Fate::keep : Fate::close;
    client.sent += static_cast<std::size_t>(count);
    client.lastSign = loop_.now();
  }
  client.outgoing.clear();
  client.sent = 0;
  return Fate::keep;
}

// --- Requests --------------------------------------------------------------------------------------------------------

ControlSocket::Fate ControlSocket::nextRequest(Client& client) {
  const std::size_t end = client.incoming.find('\n');
  if (end == std::string::npos) return client.incoming.size() > maxRequestSize ? Fate::drop : Fate::keep;
  if (end > maxRequestSize) return Fate::drop;
  const auto request = parsedRequest(std::string_view(client.incoming).substr(0, end));
  if (!request) return Fate::drop;
  client.incoming.erase(0, end + 1);
  ++statistics_->requests_;
  answer(client, *request);
  return Fate::keep;
}

void ControlSocket::answer(Client& client, const Request& request) {
  const std::string& op = request.at("op");
  const auto operation = operations_.find(op);
  if (client.access == Access::none || (operation != operations_.end() && operation->second.access > client.access)) {
    ++statistics_->refused_;
    client.outgoing += errorLine(refusal(op));
    return;
  }
  if (operation == operations_.end()) {
    client.outgoing += errorLine("nothing is known of '" + op + "'");
    return;
  }
  try {
    client.reply = operation->second.handler(request);
    if (!client.reply) client.outgoing += doneLine();
  } catch (const std::exception& error) {
    client.outgoing += errorLine(error.what());
  }
}

std::string ControlSocket::refusal(const std::string& op) const {
  return "'" + op + "' is not for you: user " + std::to_string(geteuid()) +
         ", who runs the agent, and root may do all, group " + std::to_string(group_) + " may only look";
}

// False when the reply has nothing to say at the moment.
bool ControlSocket::produce(Client& client) {
  const std::size_t before = client.outgoing.size();
  try {
    if (client.reply->produce(client.outgoing)) return client.outgoing.size() != before;
    client.outgoing += doneLine();
  } catch (const std::exception& error) {
    client.outgoing += errorLine(error.what());
  }
  client.reply.reset();
  return true;
}

}  // namespace LinuxPlatform
