// The tables that processes other than the agent own: which paths they lie under, and which bytes are keys and values.
#pragma once

#include <string>

#include "RouteCache/RouteCache.h"
#include "platform/tables/Fib.h"
#include "platform/tables/Rib.h"
#include "platform/tables/SharedTable.h"

namespace Client {

struct WritableTable {
  Pondra::TableLayout layout;
  bool (*isKey)(Pondra::Bytes key);                         // these bytes of the right size can be decoded
  bool (*isValue)(Pondra::Bytes key, Pondra::Bytes value);  // so can these, under a key that is one
};

// Null: the path is not for other processes to write.
const WritableTable* writableTable(const std::string& path);

// Calls visit(const Table*), with a null pointer, for each type of them.
template <class Visit>
void forEachWritable(Visit&& visit) {
  visit(static_cast<const Routing::Rib::RouteConfig*>(nullptr));
  visit(static_cast<const Routing::Rib::RouteCache::Evpn::ViaConfig*>(nullptr));
  visit(static_cast<const Pondra::Fib::RouteStatus*>(nullptr));
  visit(static_cast<const Pondra::Fib6::RouteStatus*>(nullptr));
  visit(static_cast<const RouteCache::Ipv4HitBitStatus*>(nullptr));
  visit(static_cast<const RouteCache::Ipv4ProgrammedRouteStatus*>(nullptr));
}

}  // namespace Client
