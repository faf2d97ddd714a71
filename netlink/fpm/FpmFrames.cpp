#include "netlink/fpm/FpmFrames.h"

namespace Netlink {

void fpmFrame(Bytes messages, std::vector<std::byte>& frame) {
  const std::size_t size = FpmFrames::headerSize + messages.size();
  frame = {std::byte{1}, std::byte{1}, static_cast<std::byte>(size >> 8), static_cast<std::byte>(size & 0xFF)};
  frame.insert(frame.end(), messages.begin(), messages.end());
}

void FpmFrames::append(Bytes bytes) {
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(taken_));
  taken_ = 0;
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

std::optional<Bytes> FpmFrames::next() {
  const Bytes rest = Bytes(bytes_).subspan(taken_);
  const auto at = [&](std::size_t place) { return std::to_integer<unsigned>(rest[place]); };
  if (rest.size() >= 2 && (at(0) != 1 || at(1) != 1)) {
    throw FpmFault("a frame of version " + std::to_string(at(0)) + ", type " + std::to_string(at(1)) +
                   " where 1 and 1 are known");
  }
  if (rest.size() < headerSize) return std::nullopt;
  const std::size_t length = at(2) << 8 | at(3);
  if (length < headerSize) throw FpmFault("a frame of " + std::to_string(length) + " bytes");
  if (rest.size() < length) return std::nullopt;
  const Bytes messages = rest.first(length).subspan(headerSize);
  frame_.assign(messages.begin(), messages.end());
  taken_ += length;
  return Bytes(frame_);
}

}  // namespace Netlink
