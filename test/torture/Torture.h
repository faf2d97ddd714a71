// What the torture's parts share: tables in memory, keys and values by number, and a reader whose every call has to
// end.
//
// The program knows images as bytes, views, writers and followers, not what lies where. It is compiled from the tables'
// own sources, with a hook before each load and each store.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/tables/ChangeFollower.h"
#include "lib/tables/TableFormat.h"
#include "lib/tables/TableInspection.h"
#include "lib/tables/TableView.h"
#include "lib/tables/TableWriter.h"

namespace Torture {

using LinuxPlatform::ChangeFollower;
using LinuxPlatform::Entry;
using LinuxPlatform::KeyWords;
using LinuxPlatform::TableView;
using LinuxPlatform::TableWriter;

using Random = std::mt19937;
using Model = std::map<std::uint32_t, std::string>;  // by number

// --- What went on ----------------------------------------------------------------------------------------------------

struct Counts {
  std::map<std::string, std::uint64_t> of;
  std::uint64_t failures = 0;
};
extern Counts counts;
extern std::string scene;  // seed, shape and operation, for failures
void fail(const std::string& what);
inline void count(const char* what, std::uint64_t number = 1) {
  counts.of[what] += number;
}

// --- Tables ----------------------------------------------------------------------------------------------------------

struct Shape {
  std::uint32_t keySize = 9;
  std::uint32_t maxValueSize = 5;
  bool variable = false;
  std::uint32_t capacity = 8;
  std::uint32_t universe = 20;  // numbers that have a key
  bool crowded = false;         // the hash index puts all of these keys into the same few lines
  Pondra::TableLayout layout() const { return {"Torture::Table", "route", 1, keySize, maxValueSize, variable}; }
  std::string text() const;
};
// Every key size, both kinds of value, small tables and ones that need more than one level of whatever orders them.
Shape shapeOf(unsigned seed, Random& random);

// Keys for the numbers, in the same order. They share beginnings and ends, as those of routes do.
class Keys {
 public:
  Keys(const Shape& shape, Random& random);
  const KeyWords& operator[](std::uint32_t number) const { return words_[number]; }
  Pondra::Bytes bytes(std::uint32_t number) const { return std::as_bytes(std::span(bytes_[number])); }
  // Nothing: no key of ours.
  std::optional<std::uint32_t> number(const KeyWords& key) const;
  std::optional<std::uint32_t> number(Pondra::Bytes key) const;

 private:
  std::uint32_t size_;
  std::vector<std::string> bytes_;
  std::vector<KeyWords> words_;
};

std::string randomValue(const Shape& shape, Random& random);

// A table in memory, with an inaccessible page behind it.
class Memory {
 public:
  Memory(const Shape& shape, std::uint32_t slots);
  explicit Memory(const Shape& shape) : Memory(shape, shape.capacity) {}
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;
  ~Memory();
  std::string bytes() const { return {reinterpret_cast<const char*>(base_), geometry.fileSize}; }
  void bytesAre(const std::string& bytes);
  const LinuxPlatform::TableGeometry geometry;

 private:
  std::size_t mapped_;
  std::byte* base_;

 public:
  const LinuxPlatform::TableImage image;
};

// In words.
std::string difference(const Model& found, const Model& wanted);

struct Change {
  enum class Kind { write, erase, eraseAll, giveBack } kind = Kind::write;
  std::uint32_t number = 0;
  std::string value;
  std::string text() const;
  void applyTo(Model& model) const;
};
Change randomChange(const Shape& shape, Random& random);

// --- Readers ---------------------------------------------------------------------------------------------------------

template <class Seeker, class Cursor>
Cursor cursorOf(bool (Seeker::*)(const KeyWords&, bool, Pondra::MutableBytes, Cursor&, Entry&) const);
using Cursor = decltype(cursorOf(&TableView::seek));

// Reads a table by numbers. A call that takes more loads than any search of such a table may is a failure.
class Reader {
  Shape shape_;
  const Keys& keys_;

 public:
  Reader(const Memory& memory, const Shape& shape, const Keys& keys)
      : shape_(shape), keys_(keys), view(memory.image, report), value_(shape.maxValueSize) {}
  std::optional<std::string> find(std::uint32_t number);
  bool has(std::uint32_t number);
  using Found = std::optional<std::pair<std::uint32_t, std::string>>;
  Found seek(std::uint32_t from, bool inclusive, Cursor& cursor);
  Found seek(std::uint32_t from, bool inclusive) {
    Cursor cursor{};
    return seek(from, inclusive, cursor);
  }
  // All entries. Out of order or without end is a failure.
  Model walk();

  std::vector<std::string> damage;
  const LinuxPlatform::DamageReport report = [this](std::string_view what) { damage.emplace_back(what); };
  ChangeFollower* follower = nullptr;  // learns what is read
  std::uint64_t mostLoads = 5000 + 200 * std::uint64_t{shape_.universe};

 private:
  bool bounded(const std::function<bool()>& read);

 public:
  const TableView view;

 private:
  std::vector<std::byte> value_;
  Entry entry_;
};

// Hears of so many keys, and has had enough of new ones after half of them.
class Listener final : public ChangeFollower::Listener {
 public:
  Listener(std::uint64_t most, std::function<void(const KeyWords& key)> hear) : most_(most), hear_(std::move(hear)) {}
  void keyChanged(const KeyWords& key, std::uint64_t) override {
    ++heard_;
    hear_(key);
  }
  Pondra::Appetite appetite() override {
    if (heard_ >= most_) return Pondra::Appetite::nothing;
    return heard_ > most_ / 2 ? Pondra::Appetite::changesOfKnown : Pondra::Appetite::everything;
  }

 private:
  const std::uint64_t most_;
  std::uint64_t heard_ = 0;
  const std::function<void(const KeyWords& key)> hear_;
};

// A process that believes what it is told.
class Believer {
 public:
  Believer(const Memory& memory, const Shape& shape, const Keys& keys) : reader(memory, shape, keys), keys_(keys) {
    follower.start(reader.view);
    reader.follower = &follower;
    believed = reader.walk();
  }
  void deliver(std::uint64_t most = ~std::uint64_t{0});
  void catchUp();

  Reader reader;
  ChangeFollower follower{reader.report};
  Model believed;

 private:
  const Keys& keys_;
};

// What a filesystem does with pages that it gets back; word by word, so that others meet it half done.
LinuxPlatform::Release releaseIn(const Memory& memory);

// A writer that is compared with a model at every call.
class Writer {
 public:
  Writer(const Memory& memory, const Shape& shape, const Keys& keys)
      : shape_(shape),
        keys_(keys),
        memory_(memory),
        writer(memory.image, shape.capacity, report, {}, releaseIn(memory)),
        reader(memory, shape, keys) {}
  void apply(const Change& change, Model& model);
  // So many steps of giving memory back, each about so many places. True: nothing is left to do.
  bool giveBack(unsigned steps, std::uint32_t places);
  void applyRandom(unsigned changes, Model& model, Random& random) {
    while (changes-- > 0) apply(randomChange(shape_, random), model);
  }
  // To the end of what the take-over has left to do, in small steps.
  void settle() {
    while (!writer.verify(7)) {
    }
  }
  // Invariants, and that everything it holds is the model.
  void check(const Model& model);

  std::vector<std::string> damage;

 private:
  LinuxPlatform::DamageReport report = [this](std::string_view what) { damage.emplace_back(what); };
  Shape shape_;
  const Keys& keys_;
  const Memory& memory_;

 public:
  TableWriter writer;
  Reader reader;
};

// A table with a past: many changes, at last `entries` entries.
Model makeHistory(const Memory& memory, const Shape& shape, const Keys& keys, std::uint32_t entries, Random& random);

// --- Parts; each runs one seed ---------------------------------------------------------------------------------------

void stopOperations(unsigned seed);
void stopAdoptions(unsigned seed);
void stopRebuilds(unsigned seed);
void stopMigrations(unsigned seed);
void interleave(unsigned seed);
void damageBytes(unsigned seed);
// The same with a table and damage that somebody has thought up.
void damageAs(std::span<const std::uint8_t> input);
void fillDisks(unsigned seed);
void cutFiles(unsigned seed);
void killWriters(unsigned seed);
void crowd(unsigned seed);

}  // namespace Torture
