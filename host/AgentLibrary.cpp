#include "host/AgentLibrary.h"

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>

namespace Tools {

std::string defaultAgentLibrary() {
  std::string name = "libRouteCacheAgent.so";
  std::error_code error;
  const std::filesystem::path here = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  for (const auto& directory : {here, here.parent_path() / "lib"}) {
    if (!error && std::filesystem::exists(directory / name, error)) return directory / name;
  }
  return name;
}

std::unique_ptr<Platform::AgentBase> agentFromLibrary(const std::string& library, const std::string& agentName) {
  // The dynamic linker would wait at a pipe for somebody to write to it.
  std::error_code error;
  const auto kind = std::filesystem::status(library, error).type();
  if (kind != std::filesystem::file_type::not_found && kind != std::filesystem::file_type::regular) {
    throw std::runtime_error(library + ": no library, and no regular file");
  }
  void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (handle == nullptr) throw std::runtime_error(dlerror());
  const auto factory = reinterpret_cast<Platform::AgentFactory>(dlsym(handle, Platform::agentFactorySymbol));
  if (factory == nullptr)
    throw std::runtime_error(library + ": no agent library, '" + Platform::agentFactorySymbol + "' is missing");
  return std::unique_ptr<Platform::AgentBase>(factory(agentName.c_str()));
}

}  // namespace Tools
