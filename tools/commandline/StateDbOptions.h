// The options that say which state database a command works on, when it is one that many processes share.
#pragma once

#include <functional>
#include <string>

#include "linux/redis/RedisStateDb.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace Tools {

struct StateDbOptions {
  std::string address;  // empty: the one in a running agent
  std::string switchName;
  std::string user;
  std::string passwordFile;

  bool isShared() const { return !address.empty(); }
  // Reads the password's file. Throws BadText for what is no address, no switch's name or no password.
  LinuxPlatform::RedisStateDbSettings settings(std::function<void(const std::string& line)> notice) const;
};

// Adds --state-db, which is returned, --switch and the credentials' options. `options` outlives the parsing.
CLI::Option* addStateDbOptions(CLI::App& command, StateDbOptions& options);

}  // namespace Tools
