#include "lib/tables/TableFormat.h"

#include <algorithm>
#include <cstring>

namespace LinuxPlatform {

namespace {

// Sections are given room on the filesystem by themselves.
std::size_t onPage(std::size_t offset) {
  return (offset + tablePage - 1) / tablePage * tablePage;
}

// Entries of a bucket line, of its 15 places: few lines overflow, and there is always one with room.
constexpr std::uint32_t entriesPerLine = 10;

// How many nodes with one child can stand in a row: two of them and what follows take more than 8 bytes of the key, or
// they would be one (RadixOrder.h).
std::uint32_t chainNodes(std::uint32_t keySize) {
  return 2 * (keySize / 8);
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

TableGeometry::TableGeometry(const Pondra::TableLayout& layout, std::uint32_t slotCount)
    : slots(slotCount),
      keySize(layout.keySize),
      maxValueSize(layout.maxValueSize),
      variableSize(layout.variableSize),
      keyWordCount((layout.keySize + 7) / 8),
      lastKeyWord(firstBytes(layout.keySize - 8 * ((layout.keySize + 7) / 8 - 1))),
      buckets(slotCount / entriesPerLine + 1),
      slotBits(static_cast<unsigned>(std::bit_width(slotCount))),
      ringSize(std::min(std::uint32_t{65536}, std::bit_ceil(std::max(slotCount, 16U)))),
      ringWords(1 + keyWordCount),
      heapClasses(0) {
  constexpr unsigned line = 64;
  constexpr unsigned descriptor = 8;
  const auto slotBytes = [this](unsigned inBuffer, unsigned inCheck) { return 8 + keySize + 2 * (inBuffer + inCheck); };
  inHeap = variableSize || slotBytes(maxValueSize, 0) > line;
  payload = inHeap ? descriptor : maxValueSize;
  lastPayloadWord = payload == 0 ? 0 : firstBytes(payload - (payload - 1) / 8 * 8);
  checkBytes = slotBytes(payload, 2) <= line ? 2 : 0;
  isShort = !inHeap && checkBytes != 0 && payload + checkBytes <= 8;
  slotWords = (slotBytes(payload, checkBytes) + 7) / 8;
  straddles = false;
  for (unsigned i = 0; i < 2; ++i) {
    const unsigned at = bufferAt(i);
    straddles = straddles || at % 8 + payload + checkBytes > 8;
    firstWords[i] = {at / 8, std::min(at / 8 + 1, slotWords - 1), at % 8 * 8};
  }

  bucketLines = onPage(tableStateOffset + sizeof(TableState));
  ring = onPage(bucketLines + std::size_t{buckets} * line);
  std::size_t end = onPage(ring + std::size_t{ringSize} * ringWords * 8);
  const auto section = [&end](std::uint32_t size, std::uint64_t count) {
    const PlaceSection places{end, size, static_cast<std::uint32_t>(count)};
    end = onPage(places.end());
    return places;
  };
  slotPlaces = section(slotWords <= 4 ? 32 : line, slots);
  // Every node has two children or more, or is one of a chain; one of a larger kind has more than it would have to have
  // for its kind, or it would have been replaced by a smaller one. A few more for those that are being replaced.
  constexpr std::uint32_t inTransit = 16;
  nodes[0] = section(32, std::uint64_t{slots} * (1 + chainNodes(keySize)) + inTransit);
  nodes[1] = section(96, slots / 3 + inTransit);
  nodes[2] = section(464, slots / 12 + inTransit);
  nodes[3] = section(1040, slots / 37 + inTransit);
  if (!inHeap) {
    fileSize = end;
    return;
  }
  // One more than there are slots: a value that replaces another is there before the other goes.
  const std::uint32_t largest = std::max(8U, (maxValueSize + 7) / 8 * 8);
  for (std::uint32_t size = 16; variableSize && size < largest;
       size = std::has_single_bit(size) ? size / 2 * 3 : size / 3 * 4) {
    heap[heapClasses++] = section(size, std::uint64_t{slots} + 1);
  }
  heap[heapClasses++] = section(largest, std::uint64_t{slots} + 1);
  fileSize = end;
}

bool TableGeometry::isRepresentable() const {
  constexpr std::uint32_t mostNodes = (std::uint32_t{1} << 29) - 1;
  constexpr std::size_t largestFile = std::size_t{1} << 43;
  return fileSize <= largestFile &&
         std::all_of(nodes.begin(), nodes.end(), [](const PlaceSection& kind) { return kind.count <= mostNodes; });
}

unsigned TableGeometry::heapClassFor(std::size_t size) const {
  unsigned number = 0;
  while (heap[number].size < size) ++number;
  return number;
}

bool HeapExtent::isPlaceIn(const TableGeometry& geometry) const {
  if (size > geometry.maxValueSize || (!geometry.variableSize && size != geometry.maxValueSize)) return false;
  const PlaceSection& places = geometry.heap[geometry.heapClassFor(size)];
  return offset >= places.begin && offset < places.end() && (offset - places.begin) % places.size == 0;
}

TableHeader tableHeader(const std::string& path, const Pondra::TableLayout& layout, std::uint32_t capacity,
                        std::uint32_t slots, std::uint64_t seed) {
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
  header.seed = seed;
  header.checksum = headerChecksum(header);
  return header;
}

std::string headerFault(const TableHeader& header) {
  if (header.magic != tableMagic) return "the file is no table";
  if (header.endianTag != tableEndianTag) return "the file was written by a machine of another byte order";
  if (header.formatVersion != tableFormatVersion) {
    return mismatch("format", std::to_string(header.formatVersion), std::to_string(tableFormatVersion)) +
           ": another version of this program wrote it; remove the file, its writer makes it anew";
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
  if (header.keySize == 0 || header.keySize > Pondra::maxKeySize || header.capacity == 0 ||
      header.slots < header.capacity || header.slots > maxSlots || header.maxValueSize > maxTableValueSize ||
      header.fileSize != TableGeometry(layout, header.slots).fileSize ||
      !TableGeometry(layout, header.slots).isRepresentable()) {
    return "the file's header contradicts itself";
  }
  return {};
}

std::uint32_t entryCheck(const KeyWords& key, unsigned keyWordCount, Bytes value, std::uint64_t sequence) {
  const auto word = [&](std::size_t i) { return wordOf(value.data() + 8 * i, value.size() - 8 * i); };
  return entryCheck(key, keyWordCount, value.size(), word, sequence);
}

std::uint32_t TableImage::highWater() const {
  const std::uint64_t mark = load(state().highWater);
  return isSound(mark) && numberIn(mark) < geometry_->slots ? static_cast<std::uint32_t>(numberIn(mark))
                                                            : geometry_->slots;
}

}  // namespace LinuxPlatform
