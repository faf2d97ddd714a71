#include "linux/redis/RedisAddress.h"

#include <sys/un.h>

#include <algorithm>

#include "platform/values/Text.h"

namespace LinuxPlatform {

namespace {

constexpr std::uint16_t usualPort = 6379;

[[noreturn]] void refuse(std::string_view text) {
  throw Platform::BadText("'" + Platform::printable(text) + "' is not unix:/PATH or tcp://HOST:PORT");
}

}  // namespace

RedisAddress parseRedisAddress(std::string_view text) {
  RedisAddress address;
  address.text = text;
  constexpr std::string_view unixScheme = "unix:";
  constexpr std::string_view tcpScheme = "tcp://";
  if (text.starts_with(unixScheme)) {
    address.socket = text.substr(unixScheme.size());
    if (!address.socket.starts_with('/')) refuse(text);
    if (address.socket.size() >= sizeof(sockaddr_un::sun_path)) {
      throw Platform::BadText("'" + Platform::printable(text) + "' is longer than the path of a socket may be");
    }
    return address;
  }
  if (!text.starts_with(tcpScheme)) refuse(text);
  std::string_view rest = text.substr(tcpScheme.size());
  const bool inBrackets = rest.starts_with('[');
  const std::size_t hostEnd = inBrackets ? rest.find(']') : rest.find(':');
  if (inBrackets && hostEnd == std::string_view::npos) refuse(text);
  address.host = rest.substr(inBrackets ? 1 : 0, inBrackets ? hostEnd - 1 : hostEnd);
  rest.remove_prefix(std::min(rest.size(), inBrackets ? hostEnd + 1 : hostEnd));
  if (address.host.empty() || address.host.find_first_of("/ @") != std::string::npos) refuse(text);
  address.port = usualPort;
  if (rest.empty()) return address;
  const auto port = Platform::TextForm<std::uint16_t>::from(rest.substr(1));
  if (!rest.starts_with(':') || !port || *port == 0) refuse(text);
  address.port = *port;
  return address;
}

}  // namespace LinuxPlatform
