#include "tools/commandline/TypedLine.h"

#include <cctype>
#include <cstdlib>

namespace Tools {

namespace {

bool isOneOf(char c, std::string_view characters) {
  return characters.find(c) != std::string_view::npos;
}

// Reads the line character by character.
class Reader {
 public:
  explicit Reader(std::string_view breaks) : breaks_(breaks) { line_.words.emplace_back(); }

  // `rest` begins with the next character; returns how many were taken.
  std::size_t take(std::string_view rest) {
    const char c = rest.front();
    if (line_.quote != 0) return takeQuoted(rest);
    if (c == '\\') return takeEscaped(rest);
    if (c == '\'' || c == '"') {
      line_.quote = c;
      quotedFrom_ = word().size();
      started_ = true;
    } else if (isOneOf(c, " \t\n")) {
      endWord();
    } else if (c == '~' && !started_ && rest.substr(1).starts_with('/')) {
      const char* home = std::getenv("HOME");
      add(home != nullptr ? home : "~");
    } else {
      add(rest.substr(0, 1));
      if (isOneOf(c, breaks_)) line_.kept = word().size();
    }
    return 1;
  }
  TypedLine line() {
    if (line_.quote != 0) line_.kept = quotedFrom_;
    return line_;
  }

 private:
  std::string& word() { return line_.words.back(); }
  void add(std::string_view text) {
    word() += text;
    started_ = true;
  }
  void endWord() {
    if (started_) line_.words.emplace_back();
    started_ = false;
    line_.kept = 0;
  }
  std::size_t takeEscaped(std::string_view rest) {
    add(rest.substr(1, 1));
    return 2;
  }
  std::size_t takeQuoted(std::string_view rest) {
    const char c = rest.front();
    if (line_.quote == '"' && c == '\\' && rest.size() > 1 && isOneOf(rest[1], "$`\"\\")) return takeEscaped(rest);
    if (c == line_.quote) {
      line_.quote = 0;
    } else {
      add(rest.substr(0, 1));
    }
    return 1;
  }

  TypedLine line_;
  std::string_view breaks_;
  bool started_ = false;  // the last word: it may be empty, but for quotes
  std::size_t quotedFrom_ = 0;
};

}  // namespace

TypedLine typedLine(std::string_view line, std::string_view breaks) {
  Reader reader(breaks);
  for (std::size_t at = 0; at < line.size();) at += reader.take(line.substr(at));
  return reader.line();
}

std::string insertedByBash(const TypedLine& line, const std::string& word) {
  const std::string rest = word.substr(line.kept);
  if (line.quote != 0) {
    const std::string_view special = line.quote == '"' ? "\"$`\\!" : "'";
    return rest.find_first_of(special) == std::string::npos ? rest : "";
  }
  std::string inserted;
  for (const char c : rest) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80 && std::isalnum(byte) == 0 && !isOneOf(c, "_-./,+@%:=")) inserted += '\\';
    inserted += c;
  }
  return inserted;
}

}  // namespace Tools
