// Bytes of a routing suite's session as a fuzzer thinks them up: they are read whole or refused with an FpmFault, and
// how the stream was cut on its way changes nothing.
#include <algorithm>
#include <cstdlib>
#include <span>

#include "netlink/fpm/FpmFrames.h"
#include "netlink/fpm/FpmMessages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

struct Read {
  std::size_t frames = 0, messages = 0;
  bool isFault = false;
  bool operator==(const Read&) const = default;
};

Read readInPieces(Netlink::Bytes stream, std::size_t pieceSize) {
  Read read;
  Netlink::FpmFrames frames;
  try {
    while (!stream.empty()) {
      const auto piece = stream.first(std::min(pieceSize, stream.size()));
      stream = stream.subspan(piece.size());
      frames.append(piece);
      while (const auto frame = frames.next()) {
        ++read.frames;
        read.messages += Netlink::fpmMessagesIn(*frame).size();
      }
    }
  } catch (const Netlink::FpmFault&) {
    read.isFault = true;
  }
  return read;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto stream = std::as_bytes(std::span(data, size));
  if (readInPieces(stream, size) != readInPieces(stream, 7)) std::abort();
  return 0;
}
