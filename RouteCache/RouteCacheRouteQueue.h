// The route work queue of SwRouteSm: which configured routes are to be decided, and in which order.
//
// A fresh change never waits behind routes that wait for something else. A key that a reaction puts in is *fresh* and
// visited first, in the order of arrival. A key that a visit leaves queued is set apart by what it waits for:
//   - a VRF: not visited again before that VRF is woken;
//   - room in a route table: not visited again before there is room;
//   - anything else (via, tunnel interface, resolution): a *leftover*, visited in turn, a time slice a second.
// So half a million routes of a VRF that never comes cost nothing.
//
// Invariant: every queued key is in exactly one list, or is the one being visited; its flags are kept with it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "RouteCache/RouteCacheFlatMap.h"
#include "platform/Rib.h"

namespace RouteCache {

class RouteQueue {
 public:
  using RouteKey = Routing::Rib::RouteKey;
  // Bits of the flag byte.
  static constexpr std::uint8_t initFlag = 1;
  static constexpr std::uint8_t vtepFlag = 2;

  RouteQueue();

  std::size_t size() const { return index_.size(); }
  bool empty() const { return index_.empty(); }
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
  // What the key being visited waits for; a visit that sets nothing makes it a leftover.
  void waitForVrf(std::uint32_t piVrfId);
  void waitForRoom(AddressFamily family);
  // Puts the visited key where it belongs now, if it is still queued.
  void visitEnded();

  bool hasFresh() const;
  bool hasLeftovers() const;
  bool isWaitingForRoom(AddressFamily family) const;
  // All keys that wait for this VRF become fresh. Costs the same however many there are.
  void wakeVrf(std::uint32_t piVrfId);
  // A mark to tell how far one round over the leftovers goes: keys that become leftovers from now on stand behind it.
  std::size_t leftoverCount() const { return leftovers_; }

 private:
  static constexpr std::uint32_t none = 0xFFFFFFFF;
  // A list is a ring of nodes through a node of its own, its head: a node leaves it, and a list joins another, without
  // anybody knowing which list that is.
  struct Node {
    RouteKey key;
    std::uint32_t previous = none;
    std::uint32_t next = none;
    std::uint8_t flags = 0;
    bool leftover = false;
  };
  struct NodeRef {
    RouteKey key;
    std::uint32_t node = none;
  };
  struct KeyOf {
    const RouteKey& operator()(const NodeRef& ref) const { return ref.key; }
  };
  // Nodes in blocks, so that a growing queue moves none of them.
  class Nodes {
   public:
    Node& operator[](std::uint32_t node) { return blocks_[node / blockSize][node % blockSize]; }
    const Node& operator[](std::uint32_t node) const { return blocks_[node / blockSize][node % blockSize]; }
    std::uint32_t add();
    std::uint32_t size() const { return size_; }
    void clear();

   private:
    static constexpr std::uint32_t blockSize = 1024;
    std::vector<std::unique_ptr<Node[]>> blocks_;
    std::uint32_t size_ = 0;
  };
  enum : std::uint32_t { freshList = 0, leftoverList = 1, roomList4 = 2, roomList6 = 3, fixedLists = 4 };

  std::uint32_t newNode();
  void freeNode(std::uint32_t node);
  std::uint32_t newList();
  void append(std::uint32_t list, std::uint32_t node);
  void unlink(std::uint32_t node);
  bool isEmptyList(std::uint32_t list) const { return nodes_[list].next == list; }
  std::optional<Visit> visit(std::uint32_t list);
  static std::uint32_t roomList(AddressFamily family) { return family == AddressFamily::ipv6 ? roomList6 : roomList4; }

  Nodes nodes_;
  std::uint32_t freeNodes_ = none;  // chained by `next`
  FlatTable<NodeRef, RouteKey, KeyOf> index_;
  std::unordered_map<std::uint32_t, std::uint32_t> vrfLists_;  // pi VRF id -> list
  std::size_t leftovers_ = 0;
  std::uint32_t visited_ = none;
  std::uint32_t visitedGoesTo_ = leftoverList;
};

}  // namespace RouteCache
