#include "platform/tables/Fib.h"

#include "platform/values/Paths.h"
#include "platform/values/WireBytes.h"

namespace Pondra {

namespace {

void write(Platform::WireWriter& writer, IpAddr addr) {
  writer.number(addr.value());
}
void write(Platform::WireWriter& writer, const Ip6Addr& addr) {
  writer.address(addr);
}
void read(Platform::WireReader& reader, IpAddr& addr) {
  addr = IpAddr(reader.number<std::uint32_t>());
}
void read(Platform::WireReader& reader, Ip6Addr& addr) {
  addr = reader.address6();
}

}  // namespace

FibTablePaths fibTablePaths(const L3::VrfName& name) {
  if (name.isDefault()) return {Paths::fib, Paths::fib6};
  return {Paths::fibOfVrf + name.text(), Paths::fib6OfVrf + name.text()};
}

template <class P, class T>
void TableTraits<Fib::BasicRoute<P, T>>::encodeKey(const P& key, std::byte* out) {
  Platform::WireWriter writer(out);
  write(writer, key.addr());
  writer.number(static_cast<std::uint8_t>(key.length()));
}

template <class P, class T>
std::optional<P> TableTraits<Fib::BasicRoute<P, T>>::decodeKey(const std::byte* in) {
  Platform::WireReader reader(in);
  typename P::Addr addr;
  read(reader, addr);
  const unsigned length = reader.number<std::uint8_t>();
  if (length > P::maxLength || !(P(addr, length).addr() == addr)) return std::nullopt;
  return P(addr, length);
}

template <class P, class T>
std::size_t TableTraits<Fib::BasicRoute<P, T>>::encode(const Value& value, std::byte* out) {
  *out = static_cast<std::byte>(value.routeType());
  return 1;
}

template <class P, class T>
std::optional<Fib::BasicRoute<P, T>> TableTraits<Fib::BasicRoute<P, T>>::decode(const P& key, Bytes in) {
  if (in.size() != 1) return std::nullopt;
  return Value(key, static_cast<T>(in[0]));
}

template <class P, class T>
std::vector<std::pair<std::string, std::string>> TableTraits<Fib::BasicRoute<P, T>>::fields(const Value& value) {
  return {{"key", Platform::toText(value.key())},
          {"routeType", std::to_string(static_cast<unsigned>(value.routeType()))}};
}

template <class P, class T>
std::string TableTraits<Fib::BasicRoute<P, T>>::text(const Value& value) {
  return "Value('Pondra::Fib::Route', ** {'key': " + Platform::toText(value.key()) +
         ", 'routeType': " + std::to_string(static_cast<unsigned>(value.routeType())) + "})";
}

template struct TableTraits<Fib::Route>;
template struct TableTraits<Fib6::Route>;

}  // namespace Pondra
