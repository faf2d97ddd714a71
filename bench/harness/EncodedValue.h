// A value's key and bytes as its shared table has them, for a store that takes bytes.
#pragma once

#include <array>
#include <cstddef>
#include <span>

#include "platform/tables/SharedTable.h"

namespace Bench {

template <class Value>
std::array<std::byte, Pondra::TableTraits<Value>::keySize> encodedKey(
    const typename Pondra::TableTraits<Value>::Key& key) {
  std::array<std::byte, Pondra::TableTraits<Value>::keySize> bytes;
  Pondra::TableTraits<Value>::encodeKey(key, bytes.data());
  return bytes;
}

template <class Value>
class EncodedValue {
 public:
  explicit EncodedValue(const Value& value) : key_(encodedKey<Value>(value.key())) {
    size_ = Pondra::TableTraits<Value>::encode(value, bytes_.data());
  }
  std::span<const std::byte> key() const { return key_; }
  std::span<const std::byte> bytes() const { return std::span(bytes_).first(size_); }

 private:
  std::array<std::byte, Pondra::TableTraits<Value>::keySize> key_;
  std::array<std::byte, Pondra::TableTraits<Value>::maxValueSize> bytes_;
  std::size_t size_ = 0;
};

}  // namespace Bench
