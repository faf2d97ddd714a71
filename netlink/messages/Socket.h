// A socket to this kernel's routing tables, in the network namespace that the process was in when it was made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "linux/files/FileDescriptor.h"
#include "netlink/messages/Attributes.h"
#include "netlink/messages/MessageBuffer.h"

namespace Netlink {

// Never waits: the kernel carries out what is sent before send() returns, and dumps as it is read.
class Socket {
 public:
  // `groups`: whose announcements it hears, as RTMGRP_... say. Throws std::system_error.
  explicit Socket(std::uint32_t groups = 0);

  int fd() const { return fd_.get(); }
  // What a message of a batch was refused for.
  struct Refusal {
    std::size_t message = 0;  // its place in the batch
    int error = 0;            // errno
  };
  struct Outcome {
    std::vector<Refusal> refusals;
    bool isWhole = true;  // false: answers were lost, so what was carried out is not known
  };
  // Sends a batch, whose messages are numbered from `firstSequence` on without a gap, and gathers the answers: the last
  // one has to want its answer (answerIsWanted()); from the others refusals alone are heard. Throws std::system_error.
  Outcome exchange(const MessageBuffer& batch, std::uint32_t firstSequence);

  // Sends what is answered by a dump, or not at all. Throws std::system_error.
  void send(const MessageBuffer& message);
  enum class Receipt : std::uint8_t {
    messages,
    nothing,  // for now
    overrun,  // something has been lost
  };
  // The next messages, which stay until the next call. Throws std::system_error.
  Receipt receive(Bytes& messages);

 private:
  LinuxPlatform::FileDescriptor fd_;
  std::vector<std::byte> buffer_;
};

// What a message of type NLMSG_ERROR or NLMSG_DONE says: 0, or why something was refused (errno). For a message that is
// too short EPROTO.
int errorIn(const nlmsghdr& message);

}  // namespace Netlink
