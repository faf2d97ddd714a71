// The nodes of a table's order (RadixOrder.h): their bytes, in 32-bit words.
//
//   word 0     low half: version, even in use, odd while the node is filled or nobody's
//              high half: check over all other words
//   word 1     bytes: count of places in use, length of the prefix, its first two bytes
//   word 2     bytes: the prefix's other four
//   kind 0     32 bytes: word 3 the key bytes of up to 4 places, words 4 to 7 their references
//   kind 1     96 bytes: words 3 to 6 the key bytes of up to 16 places, word 7 nothing, words 8 to 23 their references
//   kind 2     464 bytes: words 3 to 66 by key byte a place + 1, or 0 (bytes), word 67 the references that are not 0,
//              words 68 to 115 the references of up to 48 places
//   kind 3     1040 bytes: word 3 the references that are not 0, words 4 to 259 the references by key byte
//
// A reference: 0 nothing; with bit 31, the slot in the others; else the kind in bits 30..29 and the node's number + 1.
// A place whose entry has gone has reference 0 and keeps its key byte. Places of kinds 0 and 1 are in no order.
#pragma once

#include <cstdint>

#include "lib/tables/TableFormat.h"

namespace LinuxPlatform {

using NodeRef = std::uint32_t;

constexpr bool isSlot(NodeRef ref) {
  return (ref & std::uint32_t{1} << 31) != 0;
}
constexpr NodeRef refOfSlot(std::uint32_t slot) {
  return std::uint32_t{1} << 31 | slot;
}
constexpr std::uint32_t slotIn(NodeRef ref) {
  return ref & ~(std::uint32_t{1} << 31);
}
constexpr unsigned kindOf(NodeRef ref) {
  return ref >> 29 & 3;
}
// Of a reference that is neither 0 nor a slot's.
constexpr std::uint32_t nodeNumber(NodeRef ref) {
  return (ref & 0x1fffffff) - 1;
}
constexpr NodeRef refOfNode(unsigned kind, std::uint32_t number) {
  return std::uint32_t{kind} << 29 | (number + 1);
}

inline constexpr unsigned longestPrefix = 6;
inline constexpr std::array<unsigned, nodeKinds> nodePlaces{4, 16, 48, 256};
inline constexpr std::array<unsigned, nodeKinds> nodeWords{8, 24, 116, 260};  // multiples of four
inline constexpr std::array<unsigned, nodeKinds> firstRefWord{4, 8, 68, 4};
inline constexpr std::array<unsigned, nodeKinds> liveWord{0, 0, 67, 3};  // 0: it is not counted
inline constexpr unsigned keyByteWord = 3;

// The bytes of words as they lie in memory.
constexpr unsigned shiftOfByte(unsigned at) {
  return 8 * (std::endian::native == std::endian::big ? 3 - at : at);
}
constexpr std::uint8_t byteIn(std::uint32_t word, unsigned at) {
  return static_cast<std::uint8_t>(word >> shiftOfByte(at));
}
constexpr std::uint32_t withByte(std::uint32_t word, unsigned at, std::uint8_t byte) {
  return (word & ~(std::uint32_t{0xff} << shiftOfByte(at))) | std::uint32_t{byte} << shiftOfByte(at);
}
inline std::uint8_t loadByte(const std::uint32_t* node, unsigned firstWord, unsigned at) {
  return byteIn(load(node[firstWord + at / 4]), at % 4);
}
// Which of the word's four bytes is the first of this value; 4: none.
constexpr unsigned byteAmong(std::uint32_t word, std::uint8_t byte) {
  // Exact for the first byte that is zero, and none below it is touched.
  const auto firstZero = [](std::uint32_t bytes) { return (bytes - 0x01010101) & ~bytes & 0x80808080; };
  const std::uint32_t different = word ^ std::uint32_t{byte} * 0x01010101;
  if constexpr (std::endian::native == std::endian::big) {
    unsigned at = 0;
    while (at < 4 && byteIn(different, at) != 0) ++at;
    return at;
  }
  return static_cast<unsigned>(std::countr_zero(firstZero(different))) / 8;
}
// Head bytes of a node: word 1 and 2.
inline unsigned countIn(std::uint32_t word1) {
  return byteIn(word1, 0);
}
inline unsigned prefixLengthIn(std::uint32_t word1) {
  return byteIn(word1, 1);
}
inline std::uint8_t prefixByte(const std::uint32_t* node, unsigned at) {
  return loadByte(node, 1, at + 2);
}

constexpr bool isInUse(std::uint32_t word0) {
  return (word0 & 1) == 0;
}
constexpr std::uint32_t versionIn(std::uint32_t word0) {
  return word0 & 0xffff;
}
// What a change of a word does to the check.
constexpr std::uint32_t checkOfWord(std::uint32_t word) {
  return (word ^ word >> 16) & 0xffff;
}
inline constexpr std::uint32_t emptyCheck = 0x6b35;
// What stands in word 0 beside this version.
inline std::uint32_t nodeHead(const std::uint32_t* node, unsigned kind, std::uint32_t version) {
  const std::uint32_t sum = sumOf(node, nodeWords[kind]) ^ load(node[0]);
  return (checkOfWord(sum) ^ emptyCheck) << 16 | (version & 0xffff);
}
// Whether the node is as a writer left it.
inline bool nodeIsWhole(const std::uint32_t* node, unsigned kind) {
  const std::uint32_t head = load(node[0]);
  return head >> 16 == (checkOfWord(sumOf(node, nodeWords[kind]) ^ head) ^ emptyCheck);
}

}  // namespace LinuxPlatform
