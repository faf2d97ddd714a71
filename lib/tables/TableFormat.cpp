#include "lib/tables/TableFormat.h"

#include <algorithm>
#include <cstring>

namespace LinuxPlatform {

namespace {

// To and from big-endian order; compilers know the loop for the one instruction that it is.
constexpr std::uint64_t bigEndian(std::uint64_t word) {
  if constexpr (std::endian::native == std::endian::big) return word;
  std::uint64_t swapped = 0;
  for (unsigned shift = 0; shift < 64; shift += 8) swapped |= (word >> shift & 0xff) << (56 - shift);
  return swapped;
}

std::size_t aligned(std::size_t offset) {
  return (offset + 63) & ~std::size_t{63};
}

std::uint64_t headerChecksum(const TableHeader& header) {
  std::array<unsigned char, offsetof(TableHeader, checksum)> bytes;
  std::memcpy(bytes.data(), &header, bytes.size());
  return Platform::hashBytes(bytes.data(), bytes.size());
}

template <std::size_t N>
void setText(char (&to)[N], const std::string& from) {
  std::memset(to, 0, N);
  from.copy(to, N - 1);
}

template <std::size_t N>
std::string textOf(const char (&from)[N]) {
  return std::string(from, strnlen(from, N));
}

std::string mismatch(const char* what, const std::string& found, const std::string& wanted) {
  return std::string("the file holds ") + what + " " + found + ", not " + wanted;
}

}  // namespace

void storeBytes(std::uint64_t* to, Bytes from) {
  for (std::size_t at = 0; at < from.size(); at += 8, ++to) {
    std::uint64_t word = 0;
    std::memcpy(&word, from.data() + at, std::min<std::size_t>(8, from.size() - at));
    store(*to, word);
  }
}

void loadBytes(MutableBytes to, const std::uint64_t* from) {
  for (std::size_t at = 0; at < to.size(); at += 8, ++from) {
    const std::uint64_t word = load(*from);
    std::memcpy(to.data() + at, &word, std::min<std::size_t>(8, to.size() - at));
  }
}

KeyWords keyWords(Bytes key) {
  KeyWords result;
  std::size_t word = 0;
  for (std::size_t at = 0; at < key.size(); at += 8, ++word) {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, key.data() + at, std::min<std::size_t>(8, key.size() - at));
    result.words[word] = bigEndian(bytes);
  }
  return result;
}

void keyBytes(const KeyWords& key, MutableBytes out) {
  std::size_t word = 0;
  for (std::size_t at = 0; at < out.size(); at += 8, ++word) {
    const std::uint64_t bytes = bigEndian(key.words[word]);
    std::memcpy(out.data() + at, &bytes, std::min<std::size_t>(8, out.size() - at));
  }
}

OrderGeometry::OrderGeometry(std::uint32_t slots, std::size_t begin)
    : slotBits(static_cast<unsigned>(std::bit_width(slots - 1))),
      levels(std::clamp(slotBits / 2, 1U, maxLevels)),
      end(begin + std::size_t{slots} * 4) {
  links[0] = begin;
  for (unsigned level = 1; level < levels; ++level) {
    links[level] = aligned(end);
    end = links[level] + (std::size_t{4} << (slotBits - 2 * level));
  }
}

TableGeometry::TableGeometry(const Pondra::TableLayout& layout, std::uint32_t slotCount)
    : slots(slotCount),
      keySize(layout.keySize),
      maxValueSize(layout.maxValueSize),
      variableSize(layout.variableSize),
      keyWordCount((layout.keySize + 7) / 8),
      buckets(std::bit_ceil(slotCount)),
      ringSize(std::min(std::uint32_t{65536}, std::bit_ceil(std::max(slotCount, 16U)))),
      bufferWords(1 + (variableSize ? 1 : (maxValueSize + 7) / 8)),
      bodyWords(1 + keyWordCount + 2 * bufferWords),
      ringWords(1 + keyWordCount),
      versions(aligned(tableStateOffset + sizeof(TableState))),
      bodies(aligned(versions + std::size_t{slots} * 8)),
      order(slots, aligned(bodies + std::size_t{slots} * bodyWords * 8)),
      bucketHeads(aligned(order.end)),
      ring(aligned(bucketHeads + std::size_t{buckets} * 4)),
      heap(aligned(ring + std::size_t{ringSize} * ringWords * 8)) {
  const std::uint64_t largest = (std::uint64_t{maxValueSize} + 7) / 8 * 8;
  // However the heap is cut up, one free piece is as long as the longest value: the values take at most half of it and
  // leave at most one gap more than there are values.
  heapSize = variableSize ? (2 * std::uint64_t{slots} + 2) * largest : 0;
  fileSize = heap + heapSize;
}

TableHeader tableHeader(const std::string& path, const Pondra::TableLayout& layout, std::uint32_t capacity,
                        std::uint32_t slots) {
  TableHeader header{};
  header.magic = tableMagic;
  header.endianTag = tableEndianTag;
  header.formatVersion = tableFormatVersion;
  header.layoutVersion = layout.version;
  header.keySize = layout.keySize;
  header.maxValueSize = layout.maxValueSize;
  header.variableSize = layout.variableSize ? 1 : 0;
  header.capacity = capacity;
  header.slots = slots;
  header.fileSize = TableGeometry(layout, slots).fileSize;
  setText(header.typeName, layout.typeName);
  setText(header.collection, layout.collection);
  setText(header.path, path);
  header.checksum = headerChecksum(header);
  return header;
}

std::string headerFault(const TableHeader& header) {
  if (header.magic != tableMagic) return "the file is no table";
  if (header.endianTag != tableEndianTag) return "the file was written by a machine of another byte order";
  if (header.formatVersion != tableFormatVersion) {
    return mismatch("format", std::to_string(header.formatVersion), std::to_string(tableFormatVersion));
  }
  if (header.checksum != headerChecksum(header)) return "the file's header is damaged";
  return {};
}

std::string headerFault(const TableHeader& header, const std::string& path, const Pondra::TableLayout& layout) {
  if (auto fault = headerFault(header); !fault.empty()) return fault;
  if (textOf(header.path) != path) return mismatch("table", textOf(header.path), path);
  if (textOf(header.typeName) != layout.typeName) return mismatch("type", textOf(header.typeName), layout.typeName);
  if (textOf(header.collection) != layout.collection) {
    return mismatch("collection", textOf(header.collection), layout.collection);
  }
  if (header.layoutVersion != layout.version) {
    return mismatch("layout version", std::to_string(header.layoutVersion), std::to_string(layout.version));
  }
  if (header.keySize != layout.keySize || header.maxValueSize != layout.maxValueSize ||
      header.variableSize != (layout.variableSize ? 1U : 0U)) {
    return "the file's entries have other sizes";
  }
  if (header.capacity == 0 || header.slots < header.capacity || header.slots > maxSlots ||
      header.fileSize != TableGeometry(layout, header.slots).fileSize) {
    return "the file's header contradicts itself";
  }
  return {};
}

std::uint32_t entryChecksum(const KeyWords& key, unsigned keyWordCount, Bytes value, std::uint64_t sequence) {
  std::uint64_t sum = sequence * 0x9e3779b97f4a7c15 + value.size();
  const auto take = [&sum](std::uint64_t word) { sum = std::rotl((sum ^ word) * 0xff51afd7ed558ccd, 29); };
  for (unsigned i = 0; i < keyWordCount; ++i) take(key.words[i]);
  std::size_t at = 0;
  for (; at < value.size(); at += 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, value.data() + at, std::min<std::size_t>(8, value.size() - at));
    take(word);
  }
  return static_cast<std::uint32_t>(Platform::hashOf(sum));
}

std::uint32_t TableImage::highWater() const {
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(load(state().highWater), geometry_->slots));
}

}  // namespace LinuxPlatform
