// The FIB's route status tables, one for each VRF and family: what the FIB holds, with the type of each route.
#pragma once

#include <string>

#include "platform/tables/SharedTable.h"
#include "platform/values/Net.h"

namespace Pondra {

// Where the FIB process publishes the routes of one VRF.
struct FibTablePaths {
  std::string ipv4;  // of a Fib::RouteStatus
  std::string ipv6;  // of a Fib6::RouteStatus
};
FibTablePaths fibTablePaths(const L3::VrfName& name);

namespace Fib {

// Route types of the IPv4 FIB by number. Only the one that this system names is listed.
enum class RouteType : std::uint8_t { unknown = 0, routeCache_ = 40 };

// One route of an IPv4 or IPv6 FIB.
template <class PrefixType, class TypeEnum>
class BasicRoute {
 public:
  BasicRoute() = default;
  BasicRoute(const PrefixType& prefix, TypeEnum routeType) : key_(prefix), routeType_(routeType) {}
  const PrefixType& key() const { return key_; }
  TypeEnum routeType() const { return routeType_; }
  bool operator==(const BasicRoute&) const = default;

 private:
  PrefixType key_;
  TypeEnum routeType_{};
};
using Route = BasicRoute<Prefix, RouteType>;

}  // namespace Fib

namespace Fib6 {

// The IPv6 FIB numbers its route types differently.
enum class RouteType : std::uint8_t { unknown = 0, routeCache_ = 27 };
using Route = Fib::BasicRoute<Ip6Prefix, RouteType>;

}  // namespace Fib6

// Order key: the address in network order, then the length: the order of the prefixes. The value is the type's number.
template <class PrefixType, class TypeEnum>
struct TableTraits<Fib::BasicRoute<PrefixType, TypeEnum>> {
  using Value = Fib::BasicRoute<PrefixType, TypeEnum>;
  using Key = PrefixType;
  static constexpr std::uint32_t keySize = PrefixType::maxLength / 8 + 1;
  static constexpr std::uint32_t maxValueSize = 1;
  static constexpr std::uint32_t layoutVersion = 1;
  static constexpr bool variableSize = false;
  static void encodeKey(const Key& key, std::byte* out);
  static std::optional<Key> decodeKey(const std::byte* in);  // nothing: a length over the family's, or host bits set
  static std::size_t encode(const Value& value, std::byte* out);
  static std::optional<Value> decode(const Key& key, Bytes in);
  static std::vector<std::pair<std::string, std::string>> fields(const Value& value);
  static std::string text(const Value& value);
};
extern template struct TableTraits<Fib::Route>;
extern template struct TableTraits<Fib6::Route>;

namespace Fib {

// Prefix -> Route.
class RouteStatus final : public RouteTable<Route> {
 public:
  static constexpr const char* typeName = "Pondra::Fib::RouteStatus";
  using RouteTable::RouteTable;
  TableLayout layout() const override { return layoutOf<RouteStatus>(); }
};

}  // namespace Fib

namespace Fib6 {

// Ip6Prefix -> Route.
class RouteStatus final : public RouteTable<Route> {
 public:
  static constexpr const char* typeName = "Pondra::Fib6::RouteStatus";
  using RouteTable::RouteTable;
  TableLayout layout() const override { return layoutOf<RouteStatus>(); }
};

}  // namespace Fib6
}  // namespace Pondra
