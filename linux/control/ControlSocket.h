// The door for operators: a Unix stream socket on which commands of other processes ask the running agent.
//
// One request is one line, a JSON object whose values are texts, numbers or booleans; "op" says what is wanted. The
// reply is one JSON object a line: any number of lines of content, then {"done": true} or {"error": "one line"}. The
// line {"bytes": N} is followed by N bytes of content as they are, and then by the next line. Requests of one
// connection are answered in order, one after the other.
//
// Who may ask: the agent's user and root everything; members of the socket file's group what changes nothing; others
// nothing. The file's mode keeps others out, and so does the agent, which asks the kernel who is on the other side.
//
// Nobody on the other side can hurt the loop: a request that is no such line, or is over maxRequestSize, costs its
// sender the connection; a reply is produced piece by piece as the reader takes it, a time slice at a time, so neither
// a stalled reader nor a huge reply holds memory or the thread. Beyond maxClients whoever comes waits in the socket's
// queue for a place. Nobody is cut off who is being answered; but of those that the agent waits for, to ask or to read
// on, the one that has been silent longest goes when that is longer than `patience` and somebody wants its place.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "lib/control/ControlReply.h"
#include "linux/files/FileDescriptor.h"
#include "linux/loop/EventLoop.h"
#include "platform/state/Entity.h"

namespace LinuxPlatform {

class ControlSocket {
 public:
  static constexpr std::size_t maxRequestSize = 64 * 1024;
  static constexpr std::size_t maxClients = 32;
  static constexpr double patience = 10;  // seconds; a command waits longer than that for its answer

  using Request = std::map<std::string, std::string, std::less<>>;
  // Carries out a request; null: there is nothing to say. Throws with one line for whoever asked.
  using Handler = std::function<std::unique_ptr<ControlReply>(const Request&)>;
  // What a request does, and what a client may.
  enum class Access { none, ask, change };

  // What has happened on the socket, as an entity that operators can read.
  class Statistics final : public Lattis::Entity {
   public:
    using Entity::Entity;
    const Lattis::EntityType& entityType() const override;
    std::uint64_t clients() const { return clients_; }
    std::uint64_t requests() const { return requests_; }
    std::uint64_t dropped() const { return dropped_; }  // for a bad request
    std::uint64_t evicted() const { return evicted_; }  // for want of room
    std::uint64_t refused() const { return refused_; }  // requests of users who may not
    // Seconds, in wall time: the longest that one client has held the thread before others had their turn.
    double longestTurn() const { return longestTurn_; }

   private:
    friend class ControlSocket;
    std::uint64_t clients_ = 0;
    std::uint64_t requests_ = 0;
    std::uint64_t dropped_ = 0;
    std::uint64_t evicted_ = 0;
    std::uint64_t refused_ = 0;
    double longestTurn_ = 0;
  };

  // Listens at this path; a socket that stands there is removed, anything else refused. `clientPatience` is for tests.
  // Throws std::runtime_error.
  ControlSocket(EventLoop& loop, const std::string& path, double clientPatience = patience);
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  void opIs(const std::string& op, Access access, Handler handler) { operations_[op] = {access, std::move(handler)}; }
  std::shared_ptr<Statistics> statistics() const { return statistics_; }

 private:
  struct Client;
  enum class Fate { keep, close, drop };
  struct Operation {
    Access access = Access::change;
    Handler handler;
  };

  void listenAt(const std::string& path);
  void acceptClients();
  void makeRoom();
  Access accessOf(int fd) const;
  void handleClient(int fd, std::uint32_t events);
  Fate receive(Client& client);
  Fate serve(Client& client);
  Fate nextRequest(Client& client);
  Fate send(Client& client);
  void answer(Client& client, const Request& request);
  std::string refusal(const std::string& op) const;
  bool produce(Client& client);
  void watch(Client& client, std::uint32_t events);
  void end(int fd, Fate fate);
  void serveWaiting();

  EventLoop& loop_;
  std::string path_;
  double patience_;
  gid_t group_ = 0;  // of the socket's file
  FileDescriptor listenFd_;
  bool listening_ = false;  // the loop tells of newcomers; else acceptTask_ looks for them
  std::map<std::string, Operation, std::less<>> operations_;
  std::map<int, std::unique_ptr<Client>> clients_;
  std::shared_ptr<Statistics> statistics_;
  std::unique_ptr<Platform::Task> acceptTask_;   // looks again when there was no place or descriptor for a client
  std::unique_ptr<Platform::Task> waitingTask_;  // looks again after replies that wait for something
};

}  // namespace LinuxPlatform
