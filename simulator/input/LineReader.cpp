#include "simulator/input/LineReader.h"

#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/values/Printable.h"
#include "platform/values/Text.h"

namespace Tools {

namespace {

constexpr std::size_t maxLineLength = 65536;

}  // namespace

void LineReader::Close::operator()(gzFile_s* file) const {
  gzclose(file);
}

LineReader::LineReader(std::string name, int descriptor) : name_(std::move(name)) {
  const int fd = ::dup(descriptor);
  file_.reset(fd < 0 ? nullptr : gzdopen(fd, "rb"));
  if (file_ == nullptr) fail(std::strerror(errno));
  gzbuffer(file_.get(), 1 << 17);
}

bool LineReader::next(std::string_view& entry) {
  while (nextLine()) {
    entry = trimmed(std::string_view(line_).substr(0, line_.find('#')));
    if (!entry.empty()) return true;
  }
  return false;
}

bool LineReader::nextLine() {
  line_.clear();
  const gzFile file = file_.get();
  int c = gzgetc(file);
  const bool more = c != -1;
  for (; c != -1 && c != '\n'; c = gzgetc(file)) {
    if (line_.size() == maxLineLength) {
      ++lineNumber_;
      refuse("a line over " + std::to_string(maxLineLength) + " bytes");
    }
    line_.push_back(static_cast<char>(c));
  }
  if (c == -1) checkEnd();  // before anybody takes a line that was cut for a bad one
  if (more) ++lineNumber_;
  return more;
}

void LineReader::checkEnd() const {
  int code = Z_OK;
  const char* text = gzerror(file_.get(), &code);
  if (code == Z_ERRNO) fail(std::strerror(errno));
  if (code == Z_BUF_ERROR) fail("the compressed data end too early");
  if (code != Z_OK && code != Z_STREAM_END) fail(text);
}

void LineReader::fail(const char* what) const {
  throw Platform::BadText(name_ + ": " + what);
}

std::string LineReader::place() const {
  return name_ + ":" + std::to_string(lineNumber_);
}

void LineReader::refuse(const std::string& what) const {
  throw Platform::BadText(place() + ": " + what);
}

std::string_view trimmed(std::string_view text) {
  constexpr const char* blanks = " \t\r";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string quoted(std::string_view text) {
  constexpr std::size_t maxLength = 60;
  return "'" + Platform::printable(text.substr(0, maxLength)) + (text.size() > maxLength ? "...'" : "'");
}

}  // namespace Tools
