// Doing something as another user of the machine. Only root can.
#pragma once

#include <grp.h>
#include <unistd.h>

#include <vector>

#include "platform/values/Assert.h"

// While it lives this process acts as that user, with this one group.
class OtherUser {
 public:
  static constexpr uid_t id = 65534;

  explicit OtherUser(gid_t group) : group_(getegid()), groups_(256) {
    const int count = getgroups(static_cast<int>(groups_.size()), groups_.data());
    PLATFORM_ASSERT(count >= 0);
    groups_.resize(static_cast<std::size_t>(count));
    PLATFORM_ASSERT(setgroups(0, nullptr) == 0 && setegid(group) == 0 && seteuid(id) == 0);
  }
  ~OtherUser() {
    PLATFORM_ASSERT(seteuid(0) == 0 && setegid(group_) == 0 && setgroups(groups_.size(), groups_.data()) == 0);
  }
  OtherUser(const OtherUser&) = delete;
  OtherUser& operator=(const OtherUser&) = delete;

 private:
  gid_t group_;
  std::vector<gid_t> groups_;
};

// For the begin of a test.
#define SKIP_UNLESS_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "only root can be another user"
