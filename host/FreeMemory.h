// What a process has freed goes back to the system, which the allocator does not do with small pieces by itself.
#pragma once

namespace Tools {

// Takes about a millisecond for every four MiB that go back: for a process that has become much smaller.
void giveFreeMemoryBack();

}  // namespace Tools
