// What the kernel has of something, all of it at once: for who can wait for it.
#pragma once

#include <functional>

#include "netlink/messages/MessageBuffer.h"
#include "netlink/messages/Socket.h"

namespace Netlink {

// Hands over each message of the answer to `question`, the request for a dump. A dump that the kernel has changed
// beneath is whole, too, but may lack something or say it twice: who heeds announcements hears of it. Throws
// std::system_error when the kernel refuses, and for what is lost on the way.
void dumped(const MessageBuffer& question, const std::function<void(const nlmsghdr&)>& take);

}  // namespace Netlink
