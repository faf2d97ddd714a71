// Whether a table's file has got the room that its writes asked for, and when somebody is to be told that it has not.
#pragma once

#include <utility>

#include "platform/tables/SharedTable.h"

namespace LinuxPlatform {

// A shortage is told once, until a write has got much room again: a place more may lie on a page that the file has
// already, while the disk is as full as before.
class RoomNotice {
 public:
  void writeBegins() { gotMuch_ = missed_ = false; }
  void asked(bool isThere, bool isMuch) {
    missed_ = missed_ || !isThere;
    gotMuch_ = gotMuch_ || (isThere && isMuch);
  }
  // The write has ended so. True: its shortage is a new one.
  bool writeEnds(Pondra::WriteResult result) {
    if (result == Pondra::WriteResult::ok && gotMuch_ && !missed_) isTold_ = false;
    return result == Pondra::WriteResult::full && missed_ && !std::exchange(isTold_, true);
  }

 private:
  bool gotMuch_ = false;
  bool missed_ = false;
  bool isTold_ = false;
};

}  // namespace LinuxPlatform
