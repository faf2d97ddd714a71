// The stream of a routing suite's forwarding-plane session, cut into its frames: version 1 (one byte), type 1
// (netlink), length including these four bytes (two bytes, big endian), and netlink messages up to that length.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "netlink/messages/Attributes.h"

namespace Netlink {

// What came is not what the protocol allows. what() is one line.
class FpmFault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The messages as a frame, in the place of what `frame` has; less than maxFrame of them.
void fpmFrame(Bytes messages, std::vector<std::byte>& frame);

// Holds what has come of one session and was not taken yet; less than one frame remains after all were taken.
class FpmFrames {
 public:
  static constexpr std::size_t headerSize = 4;
  static constexpr std::size_t maxFrame = 0xFFFF;

  void append(Bytes bytes);
  // The messages of the next whole frame, aligned to four bytes, until the next call. Nothing: it has not come yet.
  // Throws FpmFault; the stream is of no use afterwards.
  std::optional<Bytes> next();
  // Something of a frame has come, and not all of it.
  bool isWithinFrame() const { return taken_ != bytes_.size(); }

 private:
  std::vector<std::byte> bytes_;
  std::size_t taken_ = 0;
  std::vector<std::byte> frame_;
};

}  // namespace Netlink
