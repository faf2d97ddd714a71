#include "test/support/MortalTables.h"

using Pondra::Bytes;
using Pondra::MutableBytes;
using Pondra::SharedCollection;

namespace {

// A table's collection, which is for its own use only.
struct Opened : Pondra::TableEntity {
  using TableEntity::control;
};

}  // namespace

class MortalTables::Collection final : public SharedCollection {
 public:
  Collection(MortalTables& owner, SharedCollection& collection) : owner_(owner), collection_(collection) {}
  const std::string& path() const override { return collection_.path(); }
  Pondra::MountKind kind() const override { return collection_.kind(); }
  bool mounted() const override { return collection_.mounted(); }
  std::size_t size() const override { return collection_.size(); }
  std::size_t capacity() const override { return collection_.capacity(); }
  std::uint64_t generation() const override { return collection_.generation(); }
  bool reconciled() const override { return collection_.reconciled(); }
  void reconciledIs() override {
    if (!owner_.dead_) collection_.reconciledIs();
  }
  std::optional<std::size_t> find(Bytes key, MutableBytes value) const override { return collection_.find(key, value); }
  bool has(Bytes key) const override { return collection_.has(key); }
  void findMany(Bytes keys, MutableBytes value, const VisitFound& visit) const override {
    collection_.findMany(keys, value, visit);
  }
  std::optional<std::size_t> seek(Bytes key, bool inclusive, MutableBytes keyOut, MutableBytes value,
                                  Pondra::WalkPlace& place) const override {
    return collection_.seek(key, inclusive, keyOut, value, place);
  }
  Pondra::WriteResult write(Bytes key, Bytes value) override {
    if (owner_.dead_) return Pondra::WriteResult::ok;
    const auto result = collection_.write(key, value);
    lived();
    return result;
  }
  bool erase(Bytes key) override {
    if (owner_.dead_) return false;
    const bool erased = collection_.erase(key);
    if (erased) lived();
    return erased;
  }
  std::uint64_t follow(Sink* sink) override { return collection_.follow(sink); }
  std::uint64_t lastSequence() const override { return collection_.lastSequence(); }
  void reportCorruption(std::string_view what) const override { collection_.reportCorruption(what); }

 private:
  void lived() {
    if (owner_.writesToLive_ == 0 || --owner_.writesToLive_ > 0) return;
    owner_.dead_ = true;
    throw Killed();
  }

  MortalTables& owner_;
  SharedCollection& collection_;
};

void MortalTables::mount(const std::string& path, const std::string& typeName, Pondra::MountKind kind,
                         const std::optional<Pondra::CollectionInfo>& info) {
  tables_.mount(path, typeName, kind, info);
  if (kind != Pondra::MountKind::writer || written_.contains(path)) return;
  const auto table = types_.make(typeName, path.substr(path.rfind('/') + 1));
  table->controlIs(std::make_shared<Collection>(*this, *((*tables_.entity(path)).*&Opened::control)()));
  written_.emplace(path, table);
}

std::shared_ptr<Pondra::TableEntity> MortalTables::entity(std::string_view path) const {
  const auto found = written_.find(path);
  return found == written_.end() ? tables_.entity(path) : found->second;
}
