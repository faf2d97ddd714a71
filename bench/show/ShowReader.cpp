#include "bench/show/ShowReader.h"

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string_view>
#include <thread>

#include "bench/show/ShowSwitch.h"

namespace Bench {

namespace {

// Leaves the listing under way.
struct Told {};

class ListingReader {
 public:
  explicit ListingReader(double pause) : pause_(pause) {}
  void read(const std::string& directory) {
    try {
      for (;;) {
        Tools::askAgentForBytes(directory, showRequest(listingCommand(), false),
                                [this](std::string_view content) { take(content); });
      }
    } catch (const Told&) {
      std::cout << nlohmann::json{{"bytes", bytes_}}.dump() << std::endl;
    }
  }

 private:
  void take(std::string_view content) {
    constexpr std::uint64_t portion = 64 * 1024;
    if (bytes_ == 0) std::cout << nlohmann::json::object().dump() << std::endl;
    const std::uint64_t before = bytes_ / portion;
    bytes_ += content.size();
    if (bytes_ / portion == before) return;
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (::poll(&input, 1, 0) > 0) throw Told();
    if (pause_ > 0) std::this_thread::sleep_for(std::chrono::duration<double>(pause_));
  }

  double pause_;
  std::uint64_t bytes_ = 0;
};

}  // namespace

void runListingReader(const std::string& directory, double pause) {
  ListingReader(pause).read(directory);
}

}  // namespace Bench
