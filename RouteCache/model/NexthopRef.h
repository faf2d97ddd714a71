// Next hops and the references that gather them: how the agent finds out that two routes leave by the same way and can
// share an adjacency. In memory only; never in a table.
#pragma once

#include <compare>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "RouteCache/model/Values.h"

namespace RouteCache {

// --- Next hops -------------------------------------------------------------------------------------------------------

// An overlay next hop without the remote end point. Ordered by interface, VLAN, MAC. False when all three are empty.
class Nexthop {
 public:
  static constexpr const char* typeName = "RouteCache::Nexthop";
  static constexpr const char* what = "a next hop";

  constexpr Nexthop() = default;
  constexpr Nexthop(IntfId vti, Bridging::ExtendedVlanId extendedVlanId, const EthAddr& routerMac)
      : vti_(vti), extendedVlanId_(extendedVlanId), routerMac_(routerMac) {}
  constexpr IntfId vti() const { return vti_; }
  constexpr void vtiIs(IntfId vti) { vti_ = vti; }
  constexpr Bridging::ExtendedVlanId extendedVlanId() const { return extendedVlanId_; }
  constexpr void extendedVlanIdIs(Bridging::ExtendedVlanId vlan) { extendedVlanId_ = vlan; }
  constexpr const EthAddr& routerMac() const { return routerMac_; }
  constexpr void routerMacIs(const EthAddr& mac) { routerMac_ = mac; }

  constexpr auto operator<=>(const Nexthop&) const = default;
  constexpr explicit operator bool() const { return *this != Nexthop(); }
  constexpr std::uint64_t hash() const {
    return Platform::hashMix(Platform::hashMix(vti_.hash(), extendedVlanId_), routerMac_.value());
  }
  static constexpr auto valueParts() {
    return std::tuple(Platform::valuePart("vti", &Nexthop::vti),
                      Platform::valuePart("extendedVlanId", &Nexthop::extendedVlanId),
                      Platform::valuePart("routerMac", &Nexthop::routerMac));
  }

 private:
  IntfId vti_;
  Bridging::ExtendedVlanId extendedVlanId_ = 0;
  EthAddr routerMac_;
};

template <class Family>
struct NexthopNames;
template <>
struct NexthopNames<Ipv4Family> {
  static constexpr const char* typeName = "RouteCache::Ipv4Nexthop";
  static constexpr const char* what = "an IPv4 next hop";
  static constexpr const char* adjRefTypeName = "RouteCache::Ipv4AdjRef";
};
template <>
struct NexthopNames<Ipv6Family> {
  static constexpr const char* typeName = "RouteCache::Ipv6Nexthop";
  static constexpr const char* what = "an IPv6 next hop";
  static constexpr const char* adjRefTypeName = "RouteCache::Ipv6AdjRef";
};

// A next hop with the remote tunnel end point's address. Ordered as Nexthop, then by the address.
template <class Family>
class BasicNexthop : public Nexthop {
 public:
  using Addr = typename Family::Addr;
  static constexpr const char* typeName = NexthopNames<Family>::typeName;
  static constexpr const char* what = NexthopNames<Family>::what;

  constexpr BasicNexthop() = default;
  constexpr BasicNexthop(IntfId vti, Bridging::ExtendedVlanId extendedVlanId, const EthAddr& routerMac,
                         const Addr& remoteVtepIp)
      : Nexthop(vti, extendedVlanId, routerMac), remoteVtepIp_(remoteVtepIp) {}
  constexpr const Addr& remoteVtepIp() const { return remoteVtepIp_; }
  constexpr void remoteVtepIpIs(const Addr& addr) { remoteVtepIp_ = addr; }

  constexpr auto operator<=>(const BasicNexthop&) const = default;
  constexpr explicit operator bool() const { return *this != BasicNexthop(); }
  constexpr std::uint64_t hash() const { return Platform::hashMix(Nexthop::hash(), remoteVtepIp_.hash()); }
  static constexpr auto valueParts() {
    return std::tuple_cat(Nexthop::valueParts(),
                          std::tuple(Platform::valuePart("remoteVtepIp", &BasicNexthop::remoteVtepIp)));
  }

 private:
  Addr remoteVtepIp_;
};
using Ipv4Nexthop = BasicNexthop<Ipv4Family>;
using Ipv6Nexthop = BasicNexthop<Ipv6Family>;

// --- References ------------------------------------------------------------------------------------------------------

// The next hops behind one adjacency. Held by shared pointers, shared by the routes that use it. Filled by its maker,
// then left as it is: maps are keyed by what it holds.
class NexthopRef {
 public:
  NexthopRef(bool isV4, bool isV6) : isV4_(isV4), isV6_(isV6) {}
  NexthopRef(const NexthopRef&) = delete;
  NexthopRef& operator=(const NexthopRef&) = delete;

  bool isV4() const { return isV4_; }  // has IPv4 tunnel end points
  bool isV6() const { return isV6_; }  // has IPv6 tunnel end points
  // Some next hops were left out because their tunnel interface or VLAN is not known yet.
  bool partial() const { return partial_; }
  void partialIs(bool partial) { partial_ = partial; }

 private:
  bool isV4_;
  bool isV6_;
  bool partial_ = false;
};

// A set of next hops of one family. It holds one to a few as a rule, so it is a sorted array: one allocation, and its
// order is the order in which the slots of a via are written.
template <class FamilyType>
class BasicNexthopRef final : public NexthopRef {
 public:
  using Family = FamilyType;
  using Nexthop = BasicNexthop<Family>;
  static constexpr const char* adjRefTypeName = NexthopNames<Family>::adjRefTypeName;

  using NexthopRef::NexthopRef;

  // The set, each next hop once, in the order of Nexthop.
  const std::vector<Nexthop>& via() const { return via_; }
  const std::vector<Nexthop>& sortedVias() const { return via_; }
  bool viaHas(const Nexthop& nexthop) const;
  // Adds the next hop unless there is an equal one; returns the member, valid until the next change.
  const Nexthop& viaIs(const Nexthop& nexthop);
  void viaDel(const Nexthop& nexthop);
  void viaDelAll();

  // What the set is, whatever the order of its making: equal sets are equal and hash alike.
  bool sameContent(const BasicNexthopRef& other) const {
    return contentHash() == other.contentHash() && via_ == other.via_;
  }
  std::uint64_t contentHash() const { return contentHash_; }

 private:
  static constexpr std::uint64_t emptyHash = 1;  // an empty set is not a missing one
  void rehash();
  std::vector<Nexthop> via_;
  std::uint64_t contentHash_ = emptyHash;  // kept: routes ask far more often than sets change
};
using Ipv4NexthopRef = BasicNexthopRef<Ipv4Family>;
using Ipv6NexthopRef = BasicNexthopRef<Ipv6Family>;
extern template class BasicNexthopRef<Ipv4Family>;
extern template class BasicNexthopRef<Ipv6Family>;

// The next hops of both families behind one adjacency; either part may be missing (null).
class IpMixedNexthopRef final : public NexthopRef {
 public:
  static constexpr const char* adjRefTypeName = "RouteCache::IpMixedAdjRef";
  using NexthopRef::NexthopRef;

  template <class Family>
  const std::shared_ptr<BasicNexthopRef<Family>>& part() const {
    if constexpr (std::is_same_v<Family, Ipv4Family>) {
      return v4nh_;
    } else {
      return v6nh_;
    }
  }
  const std::shared_ptr<Ipv4NexthopRef>& v4nh() const { return v4nh_; }
  void v4nhIs(std::shared_ptr<Ipv4NexthopRef> v4nh) { v4nh_ = std::move(v4nh); }
  const std::shared_ptr<Ipv6NexthopRef>& v6nh() const { return v6nh_; }
  void v6nhIs(std::shared_ptr<Ipv6NexthopRef> v6nh) { v6nh_ = std::move(v6nh); }
  // The resolver has no FEC for one of the end points.
  bool vtepResolutionNeeded() const { return vtepResolutionNeeded_; }
  void vtepResolutionNeededIs(bool needed) { vtepResolutionNeeded_ = needed; }

  // Both parts alike; a missing part equals only a missing part.
  bool sameContent(const IpMixedNexthopRef& other) const;
  std::uint64_t contentHash() const;

 private:
  std::shared_ptr<Ipv4NexthopRef> v4nh_;
  std::shared_ptr<Ipv6NexthopRef> v6nh_;
  bool vtepResolutionNeeded_ = false;
};

std::shared_ptr<Ipv4NexthopRef> ipv4NexthopRefFactory(bool isV4, bool isV6);
std::shared_ptr<Ipv6NexthopRef> ipv6NexthopRefFactory(bool isV4, bool isV6);
std::shared_ptr<IpMixedNexthopRef> ipMixedNexthopRefFactory(bool isV4, bool isV6);

// --- References as keys ----------------------------------------------------------------------------------------------

// A reference as a value. Two are equal, and hash alike, when the sets behind them are: that is how two routes find the
// same adjacency. Null equals only null. The reference's content must not change while a map is keyed by it.
template <class Ref>
class BasicAdjRef {
 public:
  static constexpr const char* typeName = Ref::adjRefTypeName;

  BasicAdjRef() = default;
  BasicAdjRef(std::shared_ptr<Ref> ref) : ref_(std::move(ref)) {}  // NOLINT: the value form of a reference
  const std::shared_ptr<Ref>& ref() const { return ref_; }
  void refIs(std::shared_ptr<Ref> ref) { ref_ = std::move(ref); }
  explicit operator bool() const { return ref_ != nullptr; }

  bool operator==(const BasicAdjRef& other) const {
    if (ref_ == other.ref_) return true;
    return ref_ && other.ref_ && ref_->sameContent(*other.ref_);
  }
  std::uint64_t hash() const { return ref_ ? ref_->contentHash() : 0; }

 private:
  std::shared_ptr<Ref> ref_;
};
using Ipv4AdjRef = BasicAdjRef<Ipv4NexthopRef>;
using Ipv6AdjRef = BasicAdjRef<Ipv6NexthopRef>;
using IpMixedAdjRef = BasicAdjRef<IpMixedNexthopRef>;

// Reads the text of a pointer. An address that came as text is not followed: it is looked up among `living`, a range of
// shared pointers to references. Nothing: the text is none of theirs, nor that of null.
template <class Ref, class Living>
std::optional<BasicAdjRef<Ref>> adjRefFromText(std::string_view text, const Living& living) {
  if (text == Platform::toText(BasicAdjRef<Ref>())) return BasicAdjRef<Ref>();
  for (const std::shared_ptr<Ref>& ref : living) {
    if (ref && text == Platform::toText(BasicAdjRef<Ref>(ref))) return BasicAdjRef<Ref>(ref);
  }
  return std::nullopt;
}

}  // namespace RouteCache

namespace Platform {

// The text of the pointer: "0x55d0c0de1230", "0x0" for null. RouteCache::adjRefFromText() reads it back.
template <class Ref>
struct TextForm<RouteCache::BasicAdjRef<Ref>> {
  static std::string to(const RouteCache::BasicAdjRef<Ref>& value);
};
extern template struct TextForm<RouteCache::Ipv4AdjRef>;
extern template struct TextForm<RouteCache::Ipv6AdjRef>;
extern template struct TextForm<RouteCache::IpMixedAdjRef>;

}  // namespace Platform
