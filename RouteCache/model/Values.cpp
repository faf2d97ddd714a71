#include "RouteCache/model/Values.h"

#include "platform/tables/Rib.h"
#include "platform/values/Assert.h"

namespace RouteCache {

namespace {

template <class AnyFecId>
AdjId adjIdOf(AnyFecId fecId) {
  PLATFORM_ASSERT(fecId.adjType() == Pondra::Fib::AdjType::routeCacheFwdAdj_);
  return AdjId(fecId.index());
}

}  // namespace

Fib::FecId AdjId::getFecIdFromAdjId() const {
  return {Pondra::Fib::AdjType::routeCacheFwdAdj_, value_};
}

AdjId AdjId::getAdjIdFromFecId(Fib::FecId fecId) {
  return adjIdOf(fecId);
}

AdjId AdjId::getAdjIdFromGlobalFecId(Fib::GlobalFecId fecId) {
  return adjIdOf(fecId);
}

std::uint16_t ViaIndex::checked(std::uint64_t value) {
  if (value > max) {
    throw RangeError(
        "RouteCache::ViaIndex::value < RouteCache::ViaIndex::min or > RouteCache::ViaIndex::max not allowed");
  }
  return static_cast<std::uint16_t>(value);
}

void registerTraceWords(Platform::TraceVocabulary& vocabulary) {
  vocabulary.valueTypeIs<Routing::Rib::RouteKey>();
  vocabulary.valueTypeIs<AdjId>();
  vocabulary.valueTypeIs<Ipv4RouteVrfKey>();
  vocabulary.valueTypeIs<Ipv6RouteVrfKey>();
}

}  // namespace RouteCache

namespace Platform {

using RouteCache::AdjId;
using RouteCache::BasicVia;
using RouteCache::Ipv4ProgrammedRoute;
using RouteCache::Ipv4RouteVrfKey;
using RouteCache::ViaIndex;

std::string TextForm<AdjId>::to(const AdjId& value) {
  return toText(value.value());
}

std::optional<AdjId> TextForm<AdjId>::from(std::string_view string) {
  const auto value = TextForm<std::uint32_t>::from(string);
  return value ? std::optional(AdjId(*value)) : std::nullopt;
}

std::string TextForm<ViaIndex>::to(const ViaIndex& value) {
  return toText(value.value());
}

std::optional<ViaIndex> TextForm<ViaIndex>::from(std::string_view string) {
  const auto value = TextForm<std::uint64_t>::from(string);
  return value ? std::optional(ViaIndex(*value)) : std::nullopt;
}

std::string TextForm<Ipv4ProgrammedRoute>::to(const Ipv4ProgrammedRoute& value) {
  return toText(value.key());
}

std::optional<Ipv4ProgrammedRoute> TextForm<Ipv4ProgrammedRoute>::from(std::string_view string) {
  const auto key = TextForm<Ipv4RouteVrfKey>::from(string);
  return key ? std::optional(Ipv4ProgrammedRoute(*key)) : std::nullopt;
}

template <class Family>
std::string TextForm<BasicVia<Family>>::to(const BasicVia<Family>& value) {
  return std::string("Value('") + Family::viaTypeName + "', ** {'key': " + toText(value.key()) +
         ", 'viaKey': " + toText(value.viaKey()) + "})";
}

template <class Family>
std::optional<BasicVia<Family>> TextForm<BasicVia<Family>>::from(std::string_view /*text*/) {
  assertionFailed(Family::noViaFromText, __FILE__, __LINE__);
}

template struct TextForm<RouteCache::Ipv4Via>;
template struct TextForm<RouteCache::Ipv6Via>;

}  // namespace Platform
