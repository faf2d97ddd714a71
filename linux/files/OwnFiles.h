// Files and directories of one user, in places where somebody else may have put something first.
//
// What a process of another user may do with a run directory follows from the modes, less the umask:
//
//   directories            0750   the directory's group may enter and list them
//   tables, trace files    0640   ... and read these
//   locks                  0600   nobody else's: whoever may open a lock can hold up the one it is meant for
//
// Nothing here waits for a FIFO's other end, follows a symbolic link in a name's last place, or writes into a file of
// another user.
#pragma once

#include <sys/types.h>

#include <string>

#include "linux/files/FileDescriptor.h"

namespace LinuxPlatform {

inline constexpr mode_t directoryMode = 0750;
inline constexpr mode_t readableMode = 0640;
inline constexpr mode_t lockMode = 0600;

// A regular file, or why it could not be opened in one line that names it. Neither: there is none.
struct OpenFile {
  FileDescriptor fd;
  std::string fault;
  int error = 0;  // errno, where the system refused
};
OpenFile openToRead(const std::string& name);
// To read and write: it has to be this user's. A mode that allows others more than `mode` is cut down to it.
OpenFile openToWrite(const std::string& name, mode_t mode);
// The same; made when it is missing.
OpenFile openOrCreate(const std::string& name, mode_t mode);
// An empty one, in the place of whatever file stood there.
OpenFile createAfresh(const std::string& name, mode_t mode);
// Whether the name leads to this open file.
bool leadsTo(const std::string& name, const FileDescriptor& fd);

// Makes the directory when it is missing, and those above it with the modes that they usually get. Throws
// std::runtime_error with one line when that is impossible or something else stands there, a symbolic link included.
void makeDirectory(const std::string& path);
// Throws std::runtime_error with one line unless the directory is this user's and nobody else may write into it:
// otherwise others could put something else in the place of what is there.
void checkOwnDirectory(const std::string& path);

}  // namespace LinuxPlatform
