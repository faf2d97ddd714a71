// The route work queue of SwRouteSm: which configured routes are to be decided, and in which order.
//
// A fresh change never waits behind routes that wait for something else. A key that a reaction puts in is *fresh* and
// visited first, in the order of arrival. A key that a visit leaves queued is set apart by what it waits for:
//   - a VRF: not visited again before that VRF is woken;
//   - room in a route table: not visited again before there is room;
//   - anything else (via, tunnel interface, resolution, an adjacency's room): a *leftover*, visited in turn, in rounds.
// So half a million routes of a VRF that never comes cost nothing.
//
// Invariant: every queued key is in exactly one ring, or is the one being visited; its flags are kept with it. A key is
// told while it is in the fresh ring and has been put there by itself, and a leftover while it is in that ring; both
// are counted.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <unordered_map>

#include "RouteCache/queues/KeyRings.h"
#include "platform/tables/Rib.h"

namespace RouteCache {

class RouteQueue {
 public:
  using RouteKey = Routing::Rib::RouteKey;
  // Bits of the flag byte.
  static constexpr std::uint8_t initFlag = 1;
  static constexpr std::uint8_t vtepFlag = 2;

  std::size_t size() const { return rings_.size(); }
  bool empty() const { return rings_.empty(); }
  std::optional<std::uint8_t> flags(const RouteKey& key) const;

  // Queues the key, or overwrites its flags. Fresh either way, unless it is the key being visited: that one only gets
  // the flags, and goes where the visit ends.
  void routeToProcessIs(const RouteKey& key, std::uint8_t flags);
  // The same for a walk over all routes: a key that is queued already keeps its flags unless they are zero.
  void routeToProcessAdd(const RouteKey& key, std::uint8_t flags);
  void routeToProcessDel(const RouteKey& key);
  void routeToProcessDelAll();

  // The key that the next visit takes, or the empty key: where processing resumes.
  RouteKey routeToProcessBookmark() const;

  // --- Visiting ---
  struct Visit {
    RouteKey key;
    std::uint8_t flags = 0;
  };
  // Takes the oldest fresh key, the oldest one waiting for room, or the oldest leftover; nothing: there is none. The
  // key stays queued; visitEnded follows.
  std::optional<Visit> visitFresh();
  std::optional<Visit> visitWaitingForRoom(AddressFamily family);
  std::optional<Visit> visitLeftover();
  // The keys that visitFresh() would take one after the other, as many as there is room for; how many.
  std::size_t freshKeys(std::span<RouteKey> keys) const { return rings_.firstKeys(fresh_, keys); }
  // What the key being visited waits for; a visit that sets nothing makes it a leftover.
  void waitForVrf(std::uint32_t piVrfId);
  void waitForRoom(AddressFamily family);
  // Puts the visited key where it belongs now, if it is still queued.
  void visitEnded();

  bool hasFresh() const;
  // Keys that reactions have put in and that are still fresh: those of a VRF that was woken are not counted.
  std::size_t toldCount() const { return told_; }
  bool isWaitingForRoom(AddressFamily family) const;
  // All keys that wait for this VRF become fresh. Costs the same however many there are.
  void wakeVrf(std::uint32_t piVrfId);
  // A mark to tell how far one round over the leftovers goes: keys that become leftovers from now on stand behind it.
  std::size_t leftoverCount() const { return leftovers_; }
  template <class Visit>
  void forEachFresh(Visit&& visit) const {
    for (Node node = rings_.first(fresh_); node != none; node = rings_.next(node)) visit(rings_.key(node));
  }

 private:
  struct Data {
    std::uint8_t flags = 0;
    bool leftover = false;
    bool told = false;
  };
  using Rings = KeyRings<RouteKey, Data>;
  using Node = Rings::Node;
  static constexpr Node none = Rings::none;

  // What a visit does concerns its own key nearly always: that one need not be looked up.
  bool isVisited(const RouteKey& key) const { return visited_ != none && rings_.key(visited_) == key; }
  void append(Node ring, Node node);
  void unlink(Node node);
  std::optional<Visit> visit(Node ring);
  Node roomRing(AddressFamily family) const { return family == AddressFamily::ipv6 ? room6_ : room4_; }

  Rings rings_;
  const Node fresh_ = rings_.ringIs();
  const Node leftover_ = rings_.ringIs();
  const Node room4_ = rings_.ringIs();
  const Node room6_ = rings_.ringIs();
  std::unordered_map<std::uint32_t, Node> vrfRings_;  // by pi VRF id
  std::size_t leftovers_ = 0;
  std::size_t told_ = 0;
  Node visited_ = none;
  Node visitedGoesTo_ = none;
};

}  // namespace RouteCache
