// Where a Redis server listens, and as whom it is talked to.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace LinuxPlatform {

struct RedisAddress {
  std::string text;        // as it was given
  std::string socket;      // path of a Unix socket; empty: TCP
  std::string host;        // a name or an address
  std::uint16_t port = 0;  // of the host
};
// unix:/PATH, tcp://HOST[:PORT] or tcp://[IPv6]:PORT; without a port 6379, Redis' own. Throws BadText.
RedisAddress parseRedisAddress(std::string_view text);

// As AUTH takes them. No password: the server asks for none.
struct RedisCredentials {
  std::string user;  // empty: the server's default user
  std::string password;
};

}  // namespace LinuxPlatform
