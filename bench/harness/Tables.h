// The shared tables of a directory, as one of the benchmarks' processes has them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "host/TableTypes.h"
#include "linux/tables/SharedTableService.h"

namespace Bench {

// Keeps the tables that were mounted.
class Tables {
 public:
  explicit Tables(const std::string& directory, std::function<void()> deliveryWanted = {})
      : service_(directory, types_, std::move(deliveryWanted)) {}

  LinuxPlatform::SharedTableService& service() { return service_; }
  template <class T>
  std::shared_ptr<T> writer(const char* path, std::uint32_t capacity) {
    return mounted<T>(path, Pondra::MountKind::writer, Pondra::CollectionInfo{T::collectionName, capacity});
  }
  // Its changes reach reactors, by the service.
  template <class T>
  std::shared_ptr<T> follower(const char* path) {
    return mounted<T>(path, Pondra::MountKind::reader);
  }
  template <class T>
  std::shared_ptr<T> reader(const char* path) {
    return mounted<T>(path, Pondra::MountKind::keyedReader);
  }

 private:
  template <class T>
  std::shared_ptr<T> mounted(const char* path, Pondra::MountKind kind,
                             const std::optional<Pondra::CollectionInfo>& info = std::nullopt) {
    service_.mount(path, T::typeName, kind, info);
    return service_.get<T>(path);
  }

  Platform::TableTypes types_ = Tools::allTableTypes();
  LinuxPlatform::SharedTableService service_;
};

}  // namespace Bench
