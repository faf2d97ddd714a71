// What the kernel lets this process have.
#pragma once

namespace LinuxPlatform {

// Takes as many descriptors as the process may ask for by itself: the soft limit becomes the hard one. For programs
// that hold files and connections in numbers that nobody knows beforehand. What the kernel refuses stays as it was.
void raiseDescriptorLimit();

}  // namespace LinuxPlatform
