#include "test/torture/Torture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

namespace Torture {

Hooks hooks;
Counts counts;
std::string scene;

void fail(const std::string& what) {
  constexpr std::uint64_t mostLines = 30;
  if (++counts.failures <= mostLines) std::printf("FAILED [%s]: %s\n", scene.c_str(), what.c_str());
}

// --- Hooks -----------------------------------------------------------------------------------------------------------

void tooManyLoads() {
  throw Endless();
}

namespace {
struct Delayed {
  std::byte* word = nullptr;  // null: none
  std::size_t size = 0;
  std::array<std::byte, 16> before{}, after{};
  void takeEffect() {
    hooks.atStore();  // the other one is there, this one is not
    std::copy_n(after.begin(), size, std::exchange(word, nullptr));
  }
};
Delayed delayed;
}  // namespace

void delayStore(void* given, std::size_t size) {
  auto* const word = static_cast<std::byte*>(given);
  if (hooks.stores == hooks.delayed) {
    delayed.word = word;
    delayed.size = size;
    std::copy_n(word, size, delayed.before.begin());
  } else if (delayed.word != nullptr && hooks.stores == hooks.delayed + 1) {
    if (word == delayed.word) {
      delayed.word = nullptr;
      return;
    }
    std::copy_n(delayed.word, delayed.size, delayed.after.begin());
    std::copy_n(delayed.before.begin(), delayed.size, delayed.word);
  } else if (delayed.word != nullptr) {
    delayed.takeEffect();
  }
}

void endOperation() {
  if (delayed.word != nullptr && hooks.stores > hooks.delayed) delayed.takeEffect();
  delayed.word = nullptr;
  hooks.stores = 0;
}

// --- Tables ----------------------------------------------------------------------------------------------------------

std::string Shape::text() const {
  return std::to_string(capacity) + " entries, keys of " + std::to_string(keySize) + ", values of " +
         (variable ? "up to " : "") + std::to_string(maxValueSize);
}

Shape shapeOf(unsigned seed, Random& random) {
  constexpr std::uint32_t keySizes[] = {9, 4, 22, 40}, valueSizes[] = {5, 43, 20, 100},
                          capacities[] = {8, 24, 3, 80, 1};
  Shape shape;
  shape.keySize = keySizes[seed % 4];
  shape.maxValueSize = valueSizes[seed / 2 % 4];
  shape.variable = seed % 3 == 0;
  if (shape.variable) shape.maxValueSize *= 2;
  shape.capacity = capacities[random() % 5];
  shape.universe = shape.capacity * 2 + 4;
  shape.crowded = seed % 5 == 0;
  return shape;
}

Keys::Keys(const Shape& shape, Random& random) : size_(shape.keySize) {
  const auto byteOf = [&] { return static_cast<char>(std::array{0, 1, 0x7f, 0xff}[random() % 4]); };
  std::string common(size_, '\0');
  for (char& byte : common) byte = byteOf();
  const Memory memory(shape);
  const LinuxPlatform::HashIndex index(memory.image);
  const auto belongs = [&](const std::string& key) {
    return index.homeOf(index.hashOf(LinuxPlatform::keyWords(std::as_bytes(std::span(key))))) < 2;
  };
  std::set<std::string> drawn;
  while (drawn.size() < shape.universe) {
    std::string key = common;
    switch (random() % 4) {
      case 0:  // neighbours
        key.back() = static_cast<char>(random());
        break;
      case 1:  // one byte anywhere
        key[random() % size_] = static_cast<char>(random());
        break;
      case 2:
        for (char& byte : key) byte = byteOf();
        break;
      default:
        for (std::size_t at = random() % size_; at < size_; ++at) key[at] = static_cast<char>(random());
    }
    if (!shape.crowded || belongs(key)) drawn.insert(key);
  }
  bytes_.assign(drawn.begin(), drawn.end());
  for (const std::string& key : bytes_) words_.push_back(LinuxPlatform::keyWords(std::as_bytes(std::span(key))));
}

std::optional<std::uint32_t> Keys::number(const KeyWords& key) const {
  std::array<std::byte, Pondra::maxKeySize> bytes{};
  LinuxPlatform::keyBytes(key, std::span(bytes).first(size_));
  return number(std::span(bytes).first(size_));
}

std::optional<std::uint32_t> Keys::number(Pondra::Bytes key) const {
  const std::string bytes(reinterpret_cast<const char*>(key.data()), key.size());
  const auto found = std::lower_bound(bytes_.begin(), bytes_.end(), bytes);
  if (found == bytes_.end() || *found != bytes) return std::nullopt;
  return static_cast<std::uint32_t>(found - bytes_.begin());
}

std::string randomValue(const Shape& shape, Random& random) {
  std::string value(shape.variable ? random() % (shape.maxValueSize + 1) : shape.maxValueSize, '\0');
  for (char& byte : value) byte = static_cast<char>(random());
  return value;
}

Memory::Memory(const Shape& shape, std::uint32_t slots)
    : geometry(shape.layout(), slots),
      mapped_((geometry.fileSize + 4095) / 4096 * 4096),
      base_(static_cast<std::byte*>(
          mmap(nullptr, mapped_ + 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))),
      image(base_, geometry) {
  mprotect(base_ + mapped_, 4096, PROT_NONE);
  // What a new file holds before anything else.
  const auto header = LinuxPlatform::tableHeader("torture", shape.layout(), shape.capacity, slots, 1);
  std::memcpy(base_, &header, sizeof header);
  LinuxPlatform::formatTable(image);
}

Memory::~Memory() {
  munmap(base_, mapped_ + 4096);
}

void Memory::bytesAre(const std::string& bytes) {
  std::memcpy(base_, bytes.data(), bytes.size());
}

std::string Change::text() const {
  if (kind == Kind::eraseAll) return "erase all";
  if (kind == Kind::giveBack) return "give memory back";
  return (kind == Kind::write ? "write " : "erase ") + std::to_string(number);
}

void Change::applyTo(Model& model) const {
  if (kind == Kind::write) model[number] = value;
  if (kind == Kind::erase) model.erase(number);
  if (kind == Kind::eraseAll) model.clear();
}

Change randomChange(const Shape& shape, Random& random) {
  const auto number = static_cast<std::uint32_t>(random() % shape.universe);
  if (random() % 12 == 0) return {Change::Kind::giveBack, 0, {}};
  if (random() % 5 < 2) return {Change::Kind::erase, number, {}};
  return {Change::Kind::write, number, randomValue(shape, random)};
}

std::string difference(const Model& found, const Model& wanted) {
  std::string text;
  for (const auto& [number, value] : wanted) {
    if (!found.contains(number)) text += " lacks " + std::to_string(number);
    if (found.contains(number) && found.at(number) != value) text += " another value of " + std::to_string(number);
  }
  for (const auto& entry : found) {
    if (!wanted.contains(entry.first)) text += " holds " + std::to_string(entry.first);
  }
  return text;
}

// --- Readers and writers ---------------------------------------------------------------------------------------------

bool Reader::bounded(const std::function<bool()>& read) {
  const Hooks before = hooks;
  hooks.loads = 0;
  hooks.mostLoads = std::min<std::uint64_t>(before.mostLoads, mostLoads);
  bool found = false;
  try {
    found = read();
  } catch (const Endless&) {
    if (before.mostLoads < mostLoads) throw;
    fail("a read does not end");
  }
  count("reads");
  count("loads", hooks.loads);
  counts.of["most loads of a read"] = std::max(counts.of["most loads of a read"], hooks.loads);
  hooks.mostLoads = before.mostLoads;
  hooks.loads += before.loads;
  if (found && follower != nullptr) follower->seen(entry_);
  return found;
}

std::optional<std::string> Reader::find(std::uint32_t number) {
  if (!bounded([&] { return view.find(keys_[number], value_, entry_); })) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(value_.data()), entry_.size);
}

bool Reader::has(std::uint32_t number) {
  return bounded([&] { return view.has(keys_[number], entry_); });
}

Reader::Found Reader::seek(std::uint32_t from, bool inclusive, Cursor& cursor) {
  if (!bounded([&] { return view.seek(keys_[from], inclusive, value_, cursor, entry_); })) return std::nullopt;
  const auto number = keys_.number(entry_.key);
  if (!number) fail("a search finds a key that was never there");
  return std::pair(number.value_or(shape_.universe),
                   std::string(reinterpret_cast<const char*>(value_.data()), entry_.size));
}

Model Reader::walk() {
  Model found;
  Cursor cursor{};
  for (bool first = true; found.size() <= shape_.universe; first = false) {
    const std::uint32_t from = first ? 0 : found.rbegin()->first;
    auto entry = seek(from, first, cursor);
    if (!entry || entry->first >= shape_.universe) break;
    if (!first && entry->first <= from) {
      fail("a walk comes from " + std::to_string(from) + " to " + std::to_string(entry->first));
      break;
    }
    found.insert(std::move(*entry));
  }
  return found;
}

void Believer::deliver(std::uint64_t most) {
  Listener listener(most, [this](const KeyWords& key) {
    const auto number = keys_.number(key);
    if (!number) return;  // damage may make one up; a lookup would show that it is not there
    if (auto value = reader.find(*number)) {
      believed[*number] = std::move(*value);
    } else {
      believed.erase(*number);
    }
  });
  follower.deliver(listener);
}

void Believer::catchUp() {
  for (unsigned i = 0; i < 100 && follower.pending(); ++i) deliver();
  if (follower.pending()) fail("a follower is never done");
}

void Writer::apply(const Change& change, Model& model) {
  if (change.kind == Change::Kind::write) {
    const bool room = model.contains(change.number) || model.size() < shape_.capacity;
    const auto bytes = std::as_bytes(std::span(change.value));
    if ((writer.write(keys_[change.number], bytes) == Pondra::WriteResult::ok) != room) fail(change.text() + ": room");
    if (room) change.applyTo(model);
  } else if (change.kind == Change::Kind::erase) {
    if (writer.erase(keys_[change.number]) != model.contains(change.number)) fail(change.text() + ": was it there");
    change.applyTo(model);
  } else if (change.kind == Change::Kind::giveBack) {
    while (!giveBack(1, 2)) {
    }
  } else {
    while (const auto first = reader.seek(0, true)) writer.erase(keys_[first->first]);
    change.applyTo(model);
  }
  count("changes");
}

LinuxPlatform::Release releaseIn(const Memory& memory) {
  return [&memory](std::size_t begin, std::size_t end) {
    const std::size_t words = (end - begin) / sizeof(std::uint64_t);
    for (std::size_t i = 0; i < words; ++i) LinuxPlatform::store(memory.image.words(begin)[i], std::uint64_t{0});
    count("pages given back", (end - begin) / LinuxPlatform::tablePage);
    return true;
  };
}

bool Writer::giveBack(unsigned steps, std::uint32_t places) {
  const std::uint64_t before = writer.sequence();
  bool done = false;
  while (steps-- > 0 && !done) done = writer.giveMemoryBack(places);
  count("moves", writer.sequence() - before);
  return done;
}

void Writer::check(const Model& model) {
  settle();
  writer.checkInvariants();
  for (const auto& text : LinuxPlatform::TableInspection(memory_.image).check().faults) fail("a check: " + text);
  const Model found = reader.walk();
  if (found != model) fail("the table is not the model:" + difference(found, model));
  if (writer.size() != model.size()) fail("the table's size");
}

Model makeHistory(const Memory& memory, const Shape& shape, const Keys& keys, std::uint32_t entries, Random& random) {
  Model model;
  Writer writer(memory, shape, keys);
  writer.applyRandom(shape.capacity * 4, model, random);
  while (model.size() != entries) {
    const auto number = static_cast<std::uint32_t>(random() % shape.universe);
    const auto kind = model.size() < entries ? Change::Kind::write : Change::Kind::erase;
    if (model.contains(number) == (kind == Change::Kind::erase)) {
      writer.apply({kind, number, randomValue(shape, random)}, model);
    }
  }
  writer.check(model);
  for (const auto& report : writer.damage) fail("the writer of a new table reports: " + report);
  return model;
}

}  // namespace Torture
