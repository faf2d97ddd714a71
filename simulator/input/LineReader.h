// Text files with one entry a line, plain or gzip.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

struct gzFile_s;

namespace Tools {

// Reads a file's entries in their order. Every failure is a BadText of one line that names the file.
class LineReader {
 public:
  // Of an open descriptor, which stays the caller's and may be closed at once; `name` is what errors call the file.
  LineReader(std::string name, int descriptor);

  // The next line that holds something besides blanks and a comment ('#' and all behind it), without these; valid until
  // the next call. False behind the last one. Throws when the file cannot be read to its end, and for a line longer
  // than any sensible one: a device may have no other end.
  bool next(std::string_view& entry);

  // "FILE:LINE" of the entry read last.
  std::string place() const;
  // Throws BadText("FILE:LINE: <what>").
  [[noreturn]] void refuse(const std::string& what) const;

 private:
  struct Close {
    void operator()(gzFile_s* file) const;
  };

  bool nextLine();
  void checkEnd() const;
  [[noreturn]] void fail(const char* what) const;

  std::string name_;
  std::unique_ptr<gzFile_s, Close> file_;
  std::string line_;
  std::size_t lineNumber_ = 0;
};

// The text without blanks around it.
std::string_view trimmed(std::string_view text);

// What somebody wrote, in single quotes and fit for one line of a terminal: as printable() has it, cut when long.
std::string quoted(std::string_view text);

}  // namespace Tools
