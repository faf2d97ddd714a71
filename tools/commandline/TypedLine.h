// A command line as far as a person has typed it, read as a shell reads it: for completion.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Tools {

struct TypedLine {
  // Without their quotes. The last one is what is being typed, and may be empty; there is always one.
  std::vector<std::string> words;
  // The quotation mark that the last word is inside of; 0: none.
  char quote = 0;
  // Bytes of the last word that bash's line editor leaves as they stand when it completes the word.
  std::size_t kept = 0;
};

// `breaks` are the characters at which bash's line editor begins a word to complete, its COMP_WORDBREAKS. A leading ~/
// is the home directory; variables and commands in the line are left as they are.
TypedLine typedLine(std::string_view line, std::string_view breaks);

// What bash has to insert for the last word to become this one. Empty when there is no safe way.
std::string insertedByBash(const TypedLine& line, const std::string& word);

}  // namespace Tools
