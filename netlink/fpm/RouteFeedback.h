// What a routing suite is told of its own routes: that they are forwarded, or that they are not.
//
//   said, waits to be forwarded ──► told "offloaded" ◄──► told "failed"
//            └── not forwarded for failAfter ──────────────────▲
//
// Moves between hardware and software say nothing. A new session is told of everything anew.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "netlink/fpm/FpmRib.h"
#include "netlink/fpm/PublishedRoutes.h"
#include "netlink/messages/MessageBuffer.h"
#include "platform/services/TaskScheduler.h"

namespace Netlink {

// A route in terms of whoever forwards it.
struct ForwardedRoute {
  std::uint32_t hwVrfId = 0;
  IpGenPrefix prefix;
};

// Where the feedback goes.
class FeedbackSink {
 public:
  virtual ~FeedbackSink() = default;
  // Somebody is there to read it, and not much waits to be read.
  virtual bool canSend() const = 0;
  virtual void send(Bytes frame) = 0;
  virtual void flush() = 0;  // what was sent goes, as far as somebody takes it
};

// Invariant: a route whose state is not what was told is queued, or has a deadline, or waits for the sink or for the id
// of its VRF.
class RouteFeedback final : private PublishedRoutes::Listener, private FpmRib::Listener {
 public:
  struct Settings {
    double failAfter = 10;  // seconds that a route may be forwarded by nobody before that is told
    double recheck = 0.25;  // seconds until the kernel is asked again for what it has not yet
  };
  // Which of the routes the kernel's mirror has carried out. Empty: there is no mirror, and the tables count; nothing:
  // there is one, and it does not answer.
  using InKernel = std::function<std::optional<std::vector<bool>>(std::span<const ForwardedRoute>)>;

  // All of them outlive it.
  RouteFeedback(Pondra::TableService& tables, Platform::TaskScheduler& tasks, FpmRib& rib, FeedbackSink& sink,
                InKernel inKernel, const Settings& settings);
  ~RouteFeedback() override;

  // Hardware ids by VRF id: routes of others are not told of.
  void hwVrfIdsAre(const std::map<std::uint32_t, std::uint32_t>& hwVrfIds);
  // The sink takes something again.
  void wake();

  std::vector<std::pair<std::string, std::uint64_t>> figures() const;

 private:
  using RouteKey = FpmRib::RouteKey;
  enum class Told : std::uint8_t { nothing, offloaded, failed };
  struct State {
    Told told = Told::nothing;
    bool isQueued = false;
    bool hasDeadline = false;
    bool hasRecheck = false;
    double doubtedSince = -1;  // seconds; negative: it is not
  };
  struct Deadline {
    double at = 0;
    RouteKey key;
  };

  void handleRoute(const RouteKey& key) override;
  void handleSession() override;
  void handlePublished(std::uint32_t hwVrfId, const IpGenPrefix& prefix) override;
  void handleAllPublished() override;

  void queue(const RouteKey& key);
  void handleProcessing();
  void handleWalk();
  void handleDeadlines();
  void process(const RouteKey& key);
  void doubt(const RouteKey& key, State& state);
  void deadlineIs(const RouteKey& key, State& state);
  void recheck(const RouteKey& key, State& state);
  void tellForwarded();
  void tell(const RouteKey& key, const FpmRib::Said& said, Told told);

  const Settings settings_;
  Platform::TaskScheduler& tasks_;
  FpmRib& rib_;
  FeedbackSink& sink_;
  const InKernel inKernel_;
  std::map<std::uint32_t, std::uint32_t> hwVrfIds_;  // by VRF id
  std::map<std::uint32_t, std::uint32_t> vrfIds_;    // by hardware id
  std::unordered_map<RouteKey, State, Platform::Hasher> states_;
  std::deque<RouteKey> queue_;
  std::deque<Deadline> deadlines_;   // in their order
  std::deque<Deadline> rechecks_;    // likewise
  std::vector<RouteKey> forwarded_;  // published: to be told when the kernel has them
  bool walks_ = false;               // over all routes
  std::optional<RouteKey> walked_;   // the last one; nothing: it begins
  bool walksAgain_ = false;          // once it has come to its end
  std::uint64_t offloaded_ = 0;      // messages
  std::uint64_t failed_ = 0;
  MessageBuffer message_;
  std::vector<std::byte> frame_;
  std::unique_ptr<Platform::Task> task_;
  std::unique_ptr<Platform::Task> deadlineTask_;
  std::unique_ptr<PublishedRoutes> published_;
};

}  // namespace Netlink
