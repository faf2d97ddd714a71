// Files that a person has named to be read.
#pragma once

#include <cstddef>
#include <string>

#include "linux/files/FileDescriptor.h"

namespace LinuxPlatform {

// A file, a device, or a pipe that somebody writes to, such as the shell's <(command), opened for reading. Throws
// BadText("NAME: reason") for what cannot be opened, for a directory, and for a pipe without a writer, which would keep
// whoever reads it waiting for ever.
FileDescriptor openInput(const std::string& name);

// All of it. Throws BadText also when it cannot be read to its end, or has more than `mostBytes`.
std::string readInput(const std::string& name, std::size_t mostBytes);

}  // namespace LinuxPlatform
