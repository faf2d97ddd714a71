#include "netlink/messages/Dump.h"

#include <linux/netlink.h>

#include <cerrno>
#include <system_error>

namespace Netlink {

void dumped(const MessageBuffer& question, const std::function<void(const nlmsghdr&)>& take) {
  Socket socket;
  socket.send(question);
  Bytes rest;
  while (socket.receive(rest) == Socket::Receipt::messages) {
    while (const nlmsghdr* message = nextMessage(rest)) {
      const bool isOver = message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR;
      if (!isOver) {
        take(*message);
        continue;
      }
      // A dump's end has a word of its own for what it was broken off for; an older kernel has none.
      const bool isMute = message->nlmsg_type == NLMSG_DONE && payloadOf(*message).size() < sizeof(int);
      const int error = isMute ? 0 : errorIn(*message);
      if (error != 0) throw std::system_error(error, std::generic_category(), "what the kernel has");
      return;
    }
  }
  throw std::system_error(ENOBUFS, std::generic_category(), "what the kernel has");
}

}  // namespace Netlink
