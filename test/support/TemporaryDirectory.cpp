#include "test/support/TemporaryDirectory.h"

#include <cstdlib>
#include <filesystem>

#include "platform/values/Assert.h"

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "routecache-test-XXXXXX").string();
  PLATFORM_ASSERT(::mkdtemp(pattern.data()) != nullptr);
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}
