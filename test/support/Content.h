// What stands in a file.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

// All its bytes; none when there is no such file.
inline std::string contentOf(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}
