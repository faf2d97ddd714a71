#include "bench/harness/BenchDirectory.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace Bench {

BenchDirectory::BenchDirectory(const std::string& parent) : path_(parent + "/routecache-bench-XXXXXX") {
  if (::mkdtemp(path_.data()) == nullptr) throw std::system_error(errno, std::generic_category(), parent);
}

BenchDirectory::~BenchDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string defaultParentDirectory() {
  std::error_code error;
  const std::filesystem::path memory = "/dev/shm";
  return std::filesystem::is_directory(memory, error) ? memory : std::filesystem::temp_directory_path();
}

double monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace Bench
