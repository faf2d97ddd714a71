// How the planes reach their tables.
#pragma once

#include <memory>

#include "platform/tables/SharedTable.h"

namespace Simulator {

template <class T>
std::shared_ptr<const T> mountedToFollow(Pondra::TableService& tables, const char* path) {
  tables.mount(path, T::typeName, Pondra::MountKind::reader);
  return tables.get<T>(path);
}

template <class T>
std::shared_ptr<T> mountedToWrite(Pondra::TableService& tables, const char* path, std::uint32_t capacity) {
  tables.mount(path, T::typeName, Pondra::MountKind::writer, Pondra::CollectionInfo{T::collectionName, capacity});
  return tables.get<T>(path);
}

}  // namespace Simulator
