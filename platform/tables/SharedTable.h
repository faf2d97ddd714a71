// Shared tables: keyed records in shared memory, written by one process and read by any number of others without asking
// anyone. This file holds both sides of the contract: `Table<Value>` is what the agent works with, `SharedCollection`
// and `TableService` are what a platform implements.
//
// What the implementer promises:
// - One writer at a time, held by a lock that dies with its process; a second writer is refused. Any number of readers,
//   which never block the writer and are never blocked by it, whether it is busy, stopped or dead.
// - A reader sees each entry whole: the old value or the new one.
// - A change is visible before it is notified, and notified from the event loop, never from inside a write. Changes of
//   one key may be merged; no key that changed, removals included, is ever missed, however late the reader is.
// - A reactor hears of changes made after its registration. Entries already there are not replayed.
// - Who is told may say how much he can take (Appetite). What he does not take now is told later, from what the table
//   and its changes say then; changes of keys that he knows are not kept waiting for keys that are new to him, unless
//   the table has just been replaced. As long as anything is left, the stream of changes has not paused, and nobody is
//   told that the table is reconciled. An implementer may also tell everything at once, whatever the listener says:
//   that is right, but a listener slower than the changes then has to keep them, and goes by what was for longer.
// - A table outlives its writer: the next writer of the same type finds what was published, whatever instruction the
//   last one died at; with another capacity the entries are kept (when there are more than the new capacity holds, all
//   are kept and none is added until there are fewer). Another type or layout is a TableError.
// - A reader may mount a table that does not exist yet: it is empty until the table appears, and then every entry is a
//   change. When the table is replaced (for another capacity, say), the keys under which the two differ are changes.
// - Damage is reported to the corruption handler; nobody crashes on it, loops for ever or reads out of bounds.
// - A write that finds no room is a TableError, and changes nothing.
// - A table counts its writers: every one that takes it begins another generation, in which the table is not reconciled
//   until its writer says so. Before that an entry may be missing that will come back, and one stand that will go: what
//   the writer before it knew is not all known again. A writer that puts its removed table back goes on as before.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/state/Entity.h"

namespace Pondra {

using Bytes = std::span<const std::byte>;
using MutableBytes = std::span<std::byte>;

// An error of the table service. what() is one line that names the table, the operation and the fault.
class TableError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The texts of the service's errors, filled in. They follow "<table path> <operation>: ".
std::string notAllowedText(bool initialized, bool keyNotifications);
std::string payloadText(std::string_view type, std::size_t requested, std::size_t max);
std::string outOfRangeText(std::size_t index, std::size_t max);
std::string orphanText(std::string_view table);
std::string alreadyInitializedText(std::string_view entity);

// The kinds of a mount, with the numbers that the service knows them by.
enum class MountKind : std::uint8_t {
  writer = 0,
  reader = 1,       // follows the table: reactors hear of changes
  keyedReader = 3,  // looked up and walked, never followed: a reactor on it hears nothing
};

// The entries that a table can have room for: no service has to hold more.
inline constexpr std::uint32_t maxCapacity = std::uint32_t{1} << 28;

// What a writer asks for at its mount.
struct CollectionInfo {
  std::string collection;      // "route", "adj", "routeHitBit", "via"
  std::uint32_t capacity = 0;  // entries, 1 to maxCapacity
};

// What writer and readers must agree on; it stands in the table file.
struct TableLayout {
  std::string typeName;            // "RouteCache::Ipv4RouteStatus"
  std::string collection;          // "route"
  std::uint32_t version = 1;       // of the byte layout; another version is refused
  std::uint32_t keySize = 0;       // bytes of the order key, at most maxKeySize
  std::uint32_t maxValueSize = 0;  // bytes
  bool variableSize = false;       // values differ in size: room is taken by the value's own size
};

inline constexpr std::size_t maxKeySize = 40;

enum class WriteResult : std::uint8_t { ok, full };

// What somebody who is told of changes can take now. Who has much to do yet is better told later, by the table that
// keeps the changes anyway, than made to keep them, too. An entry that he knows and that is another or gone does not
// wait for those that are new to him: as long as it is not told, he goes on by what is wrong.
// In the order of how much there is to do: the busiest of those who follow a table decides.
enum class Appetite : std::uint8_t { everything, changesOfKnown, nothing };

// Keys told and not yet handled from which on new entries wait, or everything does. So few that handling them takes
// about a millisecond: a change that is told waits behind no more.
inline constexpr std::size_t busyFrom = 1024;
inline constexpr std::size_t fullFrom = busyFrom + busyFrom / 4;
inline Appetite appetiteWith(std::size_t keysToHandle) {
  if (keysToHandle < busyFrom) return Appetite::everything;
  return keysToHandle < fullFrom ? Appetite::changesOfKnown : Appetite::nothing;
}

// Where a walk stands: room for what a collection's seek() keeps between two steps of it. Each walk has its own; a copy
// goes on by itself.
class WalkPlace {
 public:
  // What the implementer keeps, made at the first call.
  template <class T>
  T& as() {
    static_assert(sizeof(T) <= sizeof room_ && alignof(T) <= 8 && std::is_trivially_copyable_v<T>);
    if (!made_) new (room_.data()) T;
    made_ = true;
    return *std::launder(reinterpret_cast<T*>(room_.data()));
  }

 private:
  bool made_ = false;
  alignas(8) std::array<std::byte, 1536> room_;
};

// One collection in shared memory, by bytes. Keys are fixed-size byte strings that compare with memcmp as the typed
// keys order. Implemented by the platform; made by TableService::mount and attached to its table with ...ControlIs.
//
// All reads give a consistent copy of one entry. Reads on a table that does not exist yet find nothing.
class SharedCollection {
 public:
  // Where changes go: the table.
  class Sink {
   public:
    virtual ~Sink() = default;
    // `sequence` is the number of the key's latest change among all changes of this collection: every change has a
    // higher number than those before it. Keys are told in no particular order.
    virtual void keyChanged(Bytes key, std::uint64_t sequence) = 0;
    // Asked before each key that is told; again later, while something is left out, as nobody tells when more is
    // wanted.
    virtual Appetite appetite() const { return Appetite::everything; }
    virtual void quiescedChanged(bool quiesced) = 0;
    // From inside unmount(), too: mounted() is false then, and reads find nothing.
    virtual void mountStatusChanged() = 0;
    // generation() or reconciled() has changed. Of a generation this tells before its changes, and that it is
    // reconciled after all changes that were made by then.
    virtual void writerChanged() {}
  };

  virtual ~SharedCollection() = default;
  virtual const std::string& path() const = 0;
  virtual MountKind kind() const = 0;
  // False while a reader waits for the table to appear.
  virtual bool mounted() const = 0;
  virtual std::size_t size() const = 0;
  virtual std::size_t capacity() const = 0;
  // Of the table's writer, alive or dead; to be compared for equality. 0 while a reader waits for the table.
  virtual std::uint64_t generation() const = 0;
  // Whether that writer has said so.
  virtual bool reconciled() const = 0;
  // Writer only: the table holds what it should, and what is missing is gone. Until another writer takes it; wakes
  // those who follow the table.
  virtual void reconciledIs() = 0;

  // Copies the value under the key into `value` (at least maxValueSize bytes) and returns its size; nothing: no entry.
  virtual std::optional<std::size_t> find(Bytes key, MutableBytes value) const = 0;
  virtual bool has(Bytes key) const = 0;
  // Looks up all of `keys`, which lie one behind the other, in their order, without waiting for memory one by one:
  // `visit` gets the number of the key and its value, in `value`, or nothing. It must not change the table.
  using VisitFound = std::function<void(std::size_t number, const std::optional<Bytes>& value)>;
  virtual void findMany(Bytes keys, MutableBytes value, const VisitFound& visit) const = 0;
  // The first entry whose key is not below `key` (`inclusive`), or above it. Copies key and value; nothing: no more.
  // `place` is a new one, or what the last call of the walk left there: it makes the next step cheap. A walk meets
  // every entry that is there when its step comes to it.
  virtual std::optional<std::size_t> seek(Bytes key, bool inclusive, MutableBytes keyOut, MutableBytes value,
                                          WalkPlace& place) const = 0;

  // Writer only. Inserts or replaces; an equal value counts as a change. `full` when the key is new and there is no
  // room: nothing has changed. Throws TableError for a value over maxValueSize.
  virtual WriteResult write(Bytes key, Bytes value) = 0;
  virtual bool erase(Bytes key) = 0;

  // Starts to follow the table for this sink: changes from now on are delivered. Returns the sequence of the last
  // change that is not delivered (those with a higher number are). Null stops. Reader and writer kinds.
  virtual std::uint64_t follow(Sink* sink) = 0;
  virtual std::uint64_t lastSequence() const = 0;
  // Damage met by a typed layer (a value that cannot be decoded): to the corruption handler.
  virtual void reportCorruption(std::string_view what) const = 0;
};

// The typed tables' common base: what the table service needs of them.
class TableEntity : public Lattis::Entity, private SharedCollection::Sink {
 public:
  using Lattis::Entity::Entity;
  ~TableEntity() override;

  virtual TableLayout layout() const = 0;

  bool mounted() const { return control_ && control_->mounted(); }
  bool writable() const { return control_ && control_->kind() == MountKind::writer; }
  std::size_t size() const { return control_ ? control_->size() : 0; }
  std::size_t capacity() const { return control_ ? control_->capacity() : 0; }
  // See SharedCollection.
  std::uint64_t generation() const { return control_ ? control_->generation() : 0; }
  bool reconciled() const { return control_ && control_->reconciled(); }
  void reconciledIs() { writableFor("reconciledIs").reconciledIs(); }
  // The number of the table's last change: while it stays the same, every entry does. 0 while there is no table.
  std::uint64_t lastChange() const { return control_ ? control_->lastSequence() : 0; }
  // Nothing is left to tell of what has changed, as far as anybody has looked.
  bool quiesced() const { return quiesced_; }
  // True while there is room for one more key.
  bool hasRoom() const { return size() < capacity(); }

  // The table service attaches the shared collection, through ...ControlIs of the derived class.
  virtual void controlIs(std::shared_ptr<SharedCollection> control) = 0;
  // The entity learns its parent directory, when it is mounted; null, at unmount, makes it an orphan.
  virtual void handleParent(const std::shared_ptr<Lattis::Entity>& parent) = 0;
  const std::shared_ptr<Lattis::Entity>& parent() const { return parent_; }

  // Every entry as text, one by one, for tools that know the type by name only. `visit` returns false to stop. `from`
  // is a key's text to start at (the first key not below it), or empty.
  struct TextEntry {
    std::string key;
    std::vector<std::pair<std::string, std::string>> fields;  // names and text values, key first
    std::string text;                                         // the canonical text form of the value
  };
  virtual void visitText(std::string_view from, const std::function<bool(const TextEntry&)>& visit) const = 0;
  // The entry under this key's text, or nothing. Throws BadText when the text is no key.
  virtual std::optional<TextEntry> findText(std::string_view key) const = 0;
  // Follows the table by text: `changed` hears the text of each key that changes, while the watcher exists. The watcher
  // keeps the table alive.
  struct Watcher {
    virtual ~Watcher() = default;
  };
  virtual std::unique_ptr<Watcher> watchText(std::function<void(const std::string& key)> changed) const = 0;

  // Attributes "mounted", "size", "capacity", "generation", "reconciled", read only: a table's entries are reached
  // through the table service.
  const Lattis::EntityType& entityType() const override;

 protected:
  SharedCollection* control() const { return control_.get(); }
  // What ...ControlIs of the derived class does: attaches the shared collection; a second time is a TableError
  // (alreadyInitializedText).
  void attach(std::shared_ptr<SharedCollection> control);
  // The entity learns its parent directory; null makes it an orphan: its operations throw TableError (orphanText).
  void parentIs(const std::shared_ptr<Lattis::Entity>& parent);
  // The collection for reading, after the state has been checked for `operation`.
  SharedCollection& readable(std::string_view operation) const {
    if (orphan_ || !control_) refuseRead(operation);
    return *control_;
  }
  // The collection for writing; throws TableError(notAllowedText) unless this is an attached writer.
  SharedCollection& writableFor(std::string_view operation) const;
  [[noreturn]] void refuse(std::string_view operation, const std::string& text) const;
  [[noreturn]] void refuseRead(std::string_view operation) const;
  // Starts following at the first reactor; returns the last change that a reactor entering now does not hear of.
  std::uint64_t follow();

 private:
  virtual void deliverKey(Bytes key, std::uint64_t sequence) = 0;
  virtual void deliverQuiesced(bool quiesced) = 0;
  virtual void deliverMountStatus() = 0;
  virtual void deliverWriter() = 0;
  void keyChanged(Bytes key, std::uint64_t sequence) final;
  void quiescedChanged(bool quiesced) final {
    quiesced_ = quiesced;
    deliverQuiesced(quiesced);
  }
  void mountStatusChanged() final { deliverMountStatus(); }
  void writerChanged() final;

  std::shared_ptr<SharedCollection> control_;
  std::shared_ptr<Lattis::Entity> parent_;
  bool following_ = false;
  bool quiesced_ = true;
  bool orphan_ = false;
};

// The directory part of a mount path: the parent of the tables that are mounted in it. Its name is that path; it has no
// fields.
class TableDirectory final : public Lattis::Entity {
 public:
  using Lattis::Entity::Entity;
  const Lattis::EntityType& entityType() const override;
};

// How a value type lies in a table; specialised next to the value type.
//   using Key;                                            the key type, from value.key()
//   static constexpr std::uint32_t keySize, maxValueSize, layoutVersion; static constexpr bool variableSize;
//   static void encodeKey(const Key&, std::byte* out);    exactly keySize bytes, memcmp order = the key's order
//   static Key decodeKey(const std::byte* in);            or std::optional<Key>: nothing when these bytes are no key
//   static std::size_t encode(const Value&, std::byte* out);               at most maxValueSize bytes
//   static std::optional<Value> decode(const Key&, Bytes in);              nothing: these bytes are no value
//   static std::vector<std::pair<std::string, std::string>> fields(const Value&);   for tools: names and texts
//   static std::string text(const Value&);                                 the canonical text form
template <class Value>
struct TableTraits;

// One keyed table. The derived class gives it its type name and the operations their names (RouteTable, AdjTable ...
// below). The key of a value is its own key: a table never holds a value under another key.
template <class ValueType>
class Table : public TableEntity {
 public:
  using Value = ValueType;
  using Traits = TableTraits<Value>;
  using Key = typename Traits::Key;
  static_assert(Traits::keySize <= maxKeySize);

  // Hears of the table's changes while it exists. Must not outlive the table: it holds it.
  class Reactor {
   public:
    explicit Reactor(std::shared_ptr<const Table> table) : table_(std::move(table)) {
      heardFrom_ = const_cast<Table&>(*table_).enter(this);  // registration is no change of the table
    }
    Reactor(const Reactor&) = delete;
    Reactor& operator=(const Reactor&) = delete;
    virtual ~Reactor() { const_cast<Table&>(*table_).reactors_.remove(this); }
    // The entry under the key was added, changed or removed: a lookup tells which.
    virtual void handleEntry(const Key& key) = 0;
    // What it can be told of now. Less than everything only while it is about to handle what it has been told of, or
    // the others who follow the table would wait for nothing.
    virtual Appetite appetite() const { return Appetite::everything; }
    virtual void handleQuiesced(bool /*quiesced*/) {}
    // The table has appeared, become readable, or been unmounted: mounted() tells which.
    virtual void handleMountStatus() {}
    // generation() or reconciled() tells something new.
    virtual void handleWriter() {}

   private:
    friend class Table;
    std::shared_ptr<const Table> table_;
    std::uint64_t heardFrom_ = 0;
  };

  // Walks the table in key order. Holds a copy of its entry, so the entry may change or go meanwhile; ++ goes to the
  // next key that is there then.
  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Value;
    using difference_type = std::ptrdiff_t;
    using pointer = const Value*;
    using reference = const Value&;
    Iterator() = default;
    const Value& operator*() const { return *value_; }
    const Value* operator->() const { return &*value_; }
    Iterator& operator++() {
      advance(false);
      return *this;
    }
    // All ends are equal; others are equal on the same key.
    bool operator==(const Iterator& other) const {
      return value_.has_value() == other.value_.has_value() && (!value_ || value_->key() == other.value_->key());
    }

   private:
    friend class Table;
    explicit Iterator(const Table* table) : table_(table) {}
    void advance(bool inclusive) {
      std::array<std::byte, Traits::keySize> from = key_;
      for (;;) {
        const auto size = table_->readable("iteration").seek(from, inclusive, key_, table_->scratch(), place_);
        value_.reset();
        if (!size) return;
        const std::optional<Key> key = Traits::decodeKey(key_.data());
        if (key) value_ = Traits::decode(*key, Bytes(table_->scratch()).first(*size));
        if (value_) return;
        table_->control()->reportCorruption("an entry that cannot be decoded");
        from = key_;
        inclusive = false;
      }
    }
    const Table* table_ = nullptr;
    std::array<std::byte, Traits::keySize> key_{};
    std::optional<Value> value_;
    WalkPlace place_;
  };

  using TableEntity::TableEntity;

  Iterator begin() const {
    Iterator it(this);
    it.advance(true);
    return it;
  }
  Iterator end() const { return Iterator(this); }
  // The first entry whose key is not below this one.
  Iterator lowerBound(const Key& key) const {
    Iterator it(this);
    Traits::encodeKey(key, it.key_.data());
    it.advance(true);
    return it;
  }

  std::optional<Value> entry(const Key& key) const {
    std::array<std::byte, Traits::keySize> bytes;
    Traits::encodeKey(key, bytes.data());
    const auto size = readable("lookup").find(bytes, scratch());
    if (!size) return std::nullopt;
    return decoded(key, Bytes(scratch()).first(*size));
  }
  // Looks up all of the keys in their order: visit(number of the key, std::optional<Value>&&). Cheaper than one by one.
  // `visit` must not change the table.
  template <class Visit>
  void entries(std::span<const Key> keys, Visit visit) const {
    encodedEntries(keys, [&](std::size_t number, const std::optional<Bytes>& found) {
      visit(number, found ? decoded(keys[number], *found) : std::nullopt);
    });
  }
  // The same for values as they lie in the table: visit(number of the key, std::optional<Bytes>). For who keeps what it
  // has made of a value, and compares: equal bytes are equal values.
  template <class Visit>
  void encodedEntries(std::span<const Key> keys, Visit visit) const {
    constexpr std::size_t group = 64;
    std::array<std::byte, group * Traits::keySize> bytes;
    for (std::size_t first = 0; first < keys.size(); first += group) {
      const std::size_t count = std::min(group, keys.size() - first);
      for (std::size_t i = 0; i < count; ++i) Traits::encodeKey(keys[first + i], bytes.data() + i * Traits::keySize);
      readable("lookup").findMany(
          Bytes(bytes).first(count * Traits::keySize), scratch(),
          [&](std::size_t number, const std::optional<Bytes>& found) { visit(first + number, found); });
    }
  }
  // The value of these bytes of the table; nothing, and a report of damage, when they are none.
  std::optional<Value> decoded(const Key& key, Bytes bytes) const {
    auto value = Traits::decode(key, bytes);
    if (!value) control()->reportCorruption("an entry that cannot be decoded");
    return value;
  }
  bool has(const Key& key) const {
    std::array<std::byte, Traits::keySize> bytes;
    Traits::encodeKey(key, bytes.data());
    return readable("lookup").has(bytes);
  }

  void visitText(std::string_view from, const std::function<bool(const TextEntry&)>& visit) const override {
    for (Iterator it = from.empty() ? begin() : lowerBound(Platform::fromText<Key>(from)); it != end(); ++it) {
      if (!visit(textEntry(*it))) return;
    }
  }
  std::optional<TextEntry> findText(std::string_view key) const override {
    const auto value = entry(Platform::fromText<Key>(key));
    if (!value) return std::nullopt;
    return textEntry(*value);
  }
  std::unique_ptr<Watcher> watchText(std::function<void(const std::string&)> changed) const override {
    return std::make_unique<TextWatcher>(std::static_pointer_cast<const Table>(this->shared_from_this()),
                                         std::move(changed));
  }

 protected:
  // The named operations of the derived classes come down to these; `operation` is their name in errors.
  void entryIs(std::string_view operation, const Value& value) {
    std::array<std::byte, Traits::keySize> key;
    Traits::encodeKey(value.key(), key.data());
    SharedCollection& collection = writableFor(operation);
    const std::size_t size = Traits::encode(value, scratch().data());
    if (collection.write(key, Bytes(scratch()).first(size)) == WriteResult::full) {
      refuse(operation, outOfRangeText(collection.size(), collection.capacity()));
    }
    commit(&value);
  }
  void entryDel(std::string_view operation, const Key& key) {
    std::array<std::byte, Traits::keySize> bytes;
    Traits::encodeKey(key, bytes.data());
    writableFor(operation).erase(bytes);
  }
  void entryDelAll(std::string_view operation) {
    SharedCollection& collection = writableFor(operation);
    std::array<std::byte, Traits::keySize> key{};
    WalkPlace place;
    // Past a key that can be read and not be removed: a table is that damaged only until it is mended.
    for (bool erased = true; collection.seek(key, erased, key, scratch(), place);) erased = collection.erase(key);
  }
  // Tells the reactors that entered before the change being delivered was made.
  void notifyReactors(const Key& key) {
    reactors_.notify([&](Reactor& reactor) {
      if (deliveredSequence_ > reactor.heardFrom_) reactor.handleEntry(key);
    });
  }
  void notifyReactorsQuiesced(bool quiesced) {
    reactors_.notify([&](Reactor& reactor) { reactor.handleQuiesced(quiesced); });
  }
  void notifyReactorsMountStatus() {
    reactors_.notify([](Reactor& reactor) { reactor.handleMountStatus(); });
  }

 private:
  class TextWatcher final : public Watcher, public Reactor {
   public:
    TextWatcher(std::shared_ptr<const Table> table, std::function<void(const std::string&)> changed)
        : Reactor(std::move(table)), changed_(std::move(changed)) {}
    void handleEntry(const Key& key) override { changed_(Platform::toText(key)); }

   private:
    std::function<void(const std::string&)> changed_;
  };

  static TextEntry textEntry(const Value& value) {
    return {Platform::toText(value.key()), Traits::fields(value), Traits::text(value)};
  }
  std::uint64_t enter(Reactor* reactor) {
    reactors_.add(reactor);
    return follow();
  }
  MutableBytes scratch() const {
    if (scratch_.empty()) scratch_.resize(Traits::maxValueSize);
    return scratch_;
  }
  void deliverKey(Bytes key, std::uint64_t sequence) override {
    deliveredSequence_ = sequence;
    if (const std::optional<Key> typed = Traits::decodeKey(key.data())) {
      keyNotify(*typed);
    } else {
      control()->reportCorruption("a key that cannot be decoded");
    }
  }
  Appetite appetite() const final {
    Appetite least = Appetite::everything;
    reactors_.forEach([&](const Reactor& reactor) { least = std::max(least, reactor.appetite()); });
    return least;
  }
  void deliverWriter() final {
    reactors_.notify([](Reactor& reactor) { reactor.handleWriter(); });
  }
  // The notify and commit operations of the derived class, under its collection's name.
  virtual void keyNotify(const Key& key) = 0;
  virtual void commit(const Value* value) = 0;

  Platform::ReactorList<Reactor> reactors_;
  std::uint64_t deliveredSequence_ = 0;
  mutable std::vector<std::byte> scratch_;
};

// The operations of a table under its collection's name: routeIs, routeDel ... The names are part of the table's
// identity: they stand in the table service's errors.
#define PONDRA_NAMED_COLLECTION(ClassName, entryName)                                                                \
  template <class ValueType>                                                                                         \
  class ClassName : public Table<ValueType> {                                                                        \
   public:                                                                                                           \
    using Base = Table<ValueType>;                                                                                   \
    using Key = typename Base::Key;                                                                                  \
    using Base::Base;                                                                                                \
    static constexpr const char* collectionName = #entryName;                                                        \
    /* The entry under the key, or nothing; a copy. */                                                               \
    std::optional<ValueType> entryName(const Key& key) const { return this->entry(key); }                            \
    /* Inserts or replaces under the value's own key. Writer only; TableError when there is no room. */              \
    void entryName##Is(const ValueType& value) { this->entryIs(#entryName "Is", value); }                            \
    /* Removes the entry if it is there. Writer only. */                                                             \
    void entryName##Del(const Key& key) { this->entryDel(#entryName "Del", key); }                                   \
    void entryName##DelAll() { this->entryDelAll(#entryName "DelAll"); }                                             \
    /* The service's doors: a key changed, the stream of changes pauses or resumes, the mount state changed, a write \
       reached shared memory, the shared collection is there, the parent directory is known. */                      \
    void entryName##Notify(const Key& key) { this->notifyReactors(key); }                                            \
    void entryName##NotifyQuiesced(bool quiesced) { this->notifyReactorsQuiesced(quiesced); }                        \
    void entryName##NotifyMountStatus() { this->notifyReactorsMountStatus(); }                                       \
    const SharedCollection* entryName##Control() const { return this->control(); }                                   \
    virtual void entryName##Commit(const ValueType* /*value*/) {}                                                    \
    void entryName##ControlIs(std::shared_ptr<SharedCollection> control) { this->attach(std::move(control)); }       \
    void handleParent(const std::shared_ptr<Lattis::Entity>& parent) override { this->parentIs(parent); }            \
                                                                                                                     \
   private:                                                                                                          \
    void keyNotify(const Key& key) final { entryName##Notify(key); }                                                 \
    void commit(const ValueType* value) final { entryName##Commit(value); }                                          \
    void deliverQuiesced(bool quiesced) final { entryName##NotifyQuiesced(quiesced); }                               \
    void deliverMountStatus() final { entryName##NotifyMountStatus(); }                                              \
    void controlIs(std::shared_ptr<SharedCollection> control) final { entryName##ControlIs(std::move(control)); }    \
  }
PONDRA_NAMED_COLLECTION(RouteTable, route);
PONDRA_NAMED_COLLECTION(AdjTable, adj);
PONDRA_NAMED_COLLECTION(RouteHitBitTable, routeHitBit);
PONDRA_NAMED_COLLECTION(ViaTable, via);
#undef PONDRA_NAMED_COLLECTION

// A layout from the traits of a table class (one that has typeName and collectionName).
template <class TableClass>
TableLayout layoutOf() {
  using Traits = typename TableClass::Traits;
  return {TableClass::typeName, TableClass::collectionName, Traits::layoutVersion,
          Traits::keySize,      Traits::maxValueSize,       Traits::variableSize};
}

// Mounts tables by path. Owned by the platform; outlives every mounted table's use.
class TableService {
 public:
  virtual ~TableService() = default;
  // Makes the table of this type for the path, attaches its collection and keeps it for entity(). A writer names its
  // collection and capacity. Mounting a path again gives the same table when type and kind are the same. Throws
  // TableError: unknown type, another type or layout at the path, a second writer, damage that leaves nothing to read.
  virtual void mount(const std::string& path, const std::string& typeName, MountKind kind,
                     const std::optional<CollectionInfo>& info = std::nullopt) = 0;
  // The same in parts, for who must not hold the thread while a large table is made or taken over: goes on until the
  // table is mounted (true), or until shouldYield, asked after each part, says stop (false); then it is called again
  // with the same arguments. Until it is mounted entity() does not find the table, and unmount() gives it up.
  virtual bool mountPart(const std::string& path, const std::string& typeName, MountKind kind,
                         const std::optional<CollectionInfo>& info, const std::function<bool()>& /*shouldYield*/) {
    mount(path, typeName, kind, info);
    return true;
  }
  // Makes ready, in parts as above, for the first reactor of a mounted table, which otherwise takes stock of all its
  // entries when it registers.
  virtual bool followPart(const std::string& /*path*/, const std::function<bool()>& /*shouldYield*/) { return true; }
  // Mounts a reader that waits for a table it can read: whatever lies at the path now, it is no TableError. A file that
  // is no such table, or cannot be opened, is reported once to the corruption handler, and tried again when it has
  // changed and now and then. The reactors hear of the mount then, not of the entries that they find (they walk): which
  // of those are new nobody knows.
  virtual void mountWhenReadable(const std::string& path, const std::string& typeName) = 0;
  // Forgets the mount: the reactors hear of it, and whoever still holds the table holds an orphan.
  virtual void unmount(const std::string& path) = 0;
  // What was mounted at the path, or null.
  virtual std::shared_ptr<TableEntity> entity(std::string_view path) const = 0;
  template <class T>
  std::shared_ptr<T> get(std::string_view path) const {
    return std::dynamic_pointer_cast<T>(entity(path));
  }
  // Called with the table's path and one line for every damage met; several times for lasting damage. Without a
  // handler, or with an empty one, each line is printed on standard error, once.
  virtual void corruptionHandlerIs(std::function<void(const std::string& path, const std::string& what)> handler) = 0;
};

}  // namespace Pondra
