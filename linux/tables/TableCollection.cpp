#include "linux/tables/TableCollection.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "platform/values/Assert.h"

namespace LinuxPlatform {

using Pondra::Appetite;
using Pondra::MountKind;
using Pondra::TableError;
using Pondra::WriteResult;

namespace {
// A writer that forgets to flush is noticed after so many writes.
constexpr std::uint32_t writesPerFlush = 4096;
}  // namespace

void TableServiceContext::reportDamage(const std::string& path, const std::string& what) {
  if (corruptionHandler) {
    corruptionHandler(path, what);
    return;
  }
  constexpr std::size_t mostLines = 1000;
  if (printed.size() >= mostLines || !printed.emplace(path, what).second) return;
  std::fprintf(stderr, "routecache: table %s: %s\n", path.c_str(), what.c_str());
}

void TableServiceContext::reportShortage(const std::string& path, const std::string& remedy) {
  if (shortages.insert(remedy).second) reportDamage(path, remedy);
}

TableCollection::TableCollection(std::shared_ptr<TableServiceContext> context, std::string path, MountKind kind,
                                 Pondra::TableLayout layout, std::uint32_t capacity, Unreadable unreadable)
    : context_(std::move(context)),
      path_(std::move(path)),
      kind_(kind),
      layout_(std::move(layout)),
      report_([this](std::string_view what) { reportCorruption(what); }),
      wantedCapacity_(capacity) {
  if (kind_ == MountKind::writer) return;
  const FileIdentity identity = fileIdentity(fileName());
  try {
    file_ = openForReading();
  } catch (const TableError& error) {
    if (unreadable == Unreadable::error) throw;
    found_ = true;
    refuseFile(identity, error);
  }
  opened();
}

Reserve TableCollection::roomIn(const TableFile& file) {
  return [this, &file](std::size_t offset, std::size_t end) {
    const bool room = file.reserve(offset, end);
    tellPages(file);
    room_.asked(room, end - offset >= PlacePool::leastAhead);
    return room;
  };
}

Release TableCollection::releaseIn(const TableFile& file) {
  return [&file](std::size_t offset, std::size_t end) { return file.release(offset, end); };
}

void TableCollection::tellPages(const TableFile& file) const {
  const int reason = file.takeRefusal();
  if (reason == 0) return;
  context_->reportShortage(path_, std::string("the kernel gives no pages of 2 MiB here (") + std::strerror(reason) +
                                      "): tables go on with small ones");
}

std::unique_ptr<TableFile> TableCollection::openForReading() {
  if (!layout_.typeName.empty()) return TableFile::open(context_->directory, path_, layout_, false);
  if (fileIdentity(fileName()) == FileIdentity()) return nullptr;
  const TableFileHeader found = readTableHeader(fileName());
  if (!found.fault.empty()) throw TableError(path_ + " mount: " + found.fault);
  Pondra::TableLayout layout = layoutIn(found.header);
  auto file = TableFile::open(context_->directory, path_, layout, false);
  if (file) layout_ = std::move(layout);
  return file;
}

bool TableCollection::open(const std::function<bool()>& shouldYield) {
  constexpr std::uint32_t slotsAtATime = 16384;
  if (!file_) beginWriting();
  if (opened_) return true;
  while (isNew_ && !writer_ && !file_->preparePart()) {
    if (shouldYield()) return false;
  }
  if (!writer_) {
    writer_ = std::make_unique<TableWriter>(file_->image(), wantedCapacity_, report_, roomIn(*file_), releaseIn(*file_),
                                            TableWriter::InParts());
  }
  while (!writer_->takeOver(slotsAtATime)) {
    if (shouldYield()) return false;
  }
  storeWriterWords(*file_);
  if (isNew_) file_->publish();
  tellPages(*file_);
  if (writer_->sequence() > maxSequence / 2) countAnew();
  opened();
  return true;
}

// A table of another capacity is copied in one go.
void TableCollection::beginWriting() {
  const std::string& directory = context_->directory;
  lock_ = lockTable(directory, path_);
  file_ = TableFile::open(directory, path_, layout_, true);
  if (file_ && context_->hugePages) file_->hugePagesAreWanted();
  beginGeneration();
  isNew_ = !file_;
  if (isNew_) {
    file_ = TableFile::begin(directory, path_, layout_, wantedCapacity_, wantedCapacity_, context_->hugePages);
  } else if (file_->capacity() != wantedCapacity_) {
    copyEntries(wantedCapacity_);
    opened();
  }
}

void TableCollection::opened() {
  if (file_) view_.emplace(file_->image(), report_);
  opened_ = true;
}

// A new table begins with the time, in microseconds: made anew after it was lost, it does not look like the same
// writer's.
void TableCollection::beginGeneration() {
  if (file_) ownWords_ = wordsIn(*file_);
  if (ownWords_.generation == 0) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    ownWords_.generation =
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
  } else {
    ++ownWords_.generation;
  }
}

void TableCollection::storeWriterWords(const TableFile& file) const {
  TableState& state = file.image().state();
  store(state.generation, ownWords_.generation);
  store(state.reconciled, ownWords_.reconciled);
  file.ringDoorbell();
}

TableCollection::WriterWords TableCollection::wordsIn(const TableFile& file) {
  const TableState& state = file.image().state();
  return {load(state.generation), load(state.reconciled)};
}

bool TableCollection::reconciled() const {
  const WriterWords words = writerWords();
  return words.generation != 0 && words.generation == words.reconciled;
}

void TableCollection::reconciledIs() {
  writerFor("ReconciledIs");
  if (reconciled()) return;
  ownWords_.reconciled = ownWords_.generation;
  unheardWrites_ = 0;
  storeWriterWords(*file_);
  if (follower_ && dueIs()) context_->wantDelivery();
}

// Where there is no room for a copy, half of all sequences are left.
void TableCollection::countAnew() {
  try {
    copyEntries(file_->capacity());
  } catch (const TableError&) {
    return;
  }
}

// Copies the entries, of which it takes stock, into a file of this capacity and puts it in the place of the old one,
// which its readers go on reading until they notice. It stays the writer of that when there is no room for a copy.
void TableCollection::copyEntries(std::uint32_t capacity) {
  const auto takeStock = [&] {
    writer_ =
        std::make_unique<TableWriter>(file_->image(), file_->capacity(), report_, roomIn(*file_), releaseIn(*file_));
  };
  const bool known = writer_ != nullptr;
  if (!known) takeStock();
  const auto slots = std::max(capacity, static_cast<std::uint32_t>(writer_->size()));
  std::shared_ptr<TableFile> next =
      TableFile::create(context_->directory, path_, layout_, capacity, slots, context_->hugePages);
  if (known) takeStock();  // what is lost of a file that was cut short
  while (!writer_->verify(file_->capacity())) {
  }
  auto writer = std::make_unique<TableWriter>(next->image(), capacity, report_, roomIn(*next), releaseIn(*next));
  writer->copyFrom(TableView(file_->image(), report_));
  storeWriterWords(*next);
  next->publish();
  tellPages(*next);
  writer_ = std::move(writer);
  file_ = std::move(next);
}

void TableCollection::close() {
  Sink* const sink = mounted() ? sink_ : nullptr;
  if (writer_) writer_->finishIndexes();  // nobody else will, until there is another writer
  follow(nullptr);
  writer_.reset();
  view_.reset();
  file_.reset();
  lock_ = TableLock();
  if (sink != nullptr) sink->mountStatusChanged();
}

std::size_t TableCollection::size() const {
  return view_ ? view_->size() : 0;
}

// What is looked for where the indexes are still being built is looked for in all slots: it takes less to build them.
void TableCollection::finishIndexes() const {
  if (!writer_ || writer_->verified()) return;
  const std::uint64_t before = writer_->sequence();
  writer_->finishIndexes();
  if (writer_->sequence() != before) writeIsNoted();
}

std::optional<std::size_t> TableCollection::find(Bytes key, MutableBytes value) const {
  PLATFORM_ASSERT(key.size() == layout_.keySize && value.size() >= layout_.maxValueSize);
  finishIndexes();
  Entry found;
  if (!view_ || !view_->find(keyWords(key), value, found)) return std::nullopt;
  if (follower_) follower_->seen(found);
  return found.size;
}

bool TableCollection::has(Bytes key) const {
  PLATFORM_ASSERT(key.size() == layout_.keySize);
  finishIndexes();
  Entry found;
  if (!view_ || !view_->has(keyWords(key), found)) return false;
  if (follower_) follower_->seen(found);
  return true;
}

void TableCollection::findMany(Bytes keys, MutableBytes value, const VisitFound& visit) const {
  constexpr std::size_t group = 16;
  const std::size_t keySize = layout_.keySize;
  PLATFORM_ASSERT(keys.size() % keySize == 0 && value.size() >= layout_.maxValueSize);
  finishIndexes();
  std::array<KeyWords, group> words;
  for (std::size_t first = 0; first * keySize < keys.size(); first += group) {
    const std::size_t count = std::min(group, keys.size() / keySize - first);
    for (std::size_t i = 0; i < count; ++i) words[i] = keyWords(keys.subspan((first + i) * keySize, keySize));
    if (view_) view_->expect(std::span(words).first(count));
    for (std::size_t i = 0; i < count; ++i) {
      Entry found;
      const bool there = view_ && view_->find(words[i], value, found);
      if (there && follower_) follower_->seen(found);
      visit(first + i, there ? std::optional<Bytes>(Bytes(value).first(found.size)) : std::nullopt);
    }
  }
}

std::optional<std::size_t> TableCollection::seek(Bytes key, bool inclusive, MutableBytes keyOut, MutableBytes value,
                                                 Pondra::WalkPlace& place) const {
  PLATFORM_ASSERT(key.size() == layout_.keySize && keyOut.size() >= layout_.keySize);
  PLATFORM_ASSERT(value.size() >= layout_.maxValueSize);
  finishIndexes();
  Entry found;
  if (!view_ || !view_->seek(keyWords(key), inclusive, value, place.as<WalkCursor>(), found)) return std::nullopt;
  if (follower_) follower_->seen(found);
  keyBytes(found.key, keyOut.first(layout_.keySize));
  return found.size;
}

TableWriter& TableCollection::writerFor(std::string_view operation) {
  if (!writer_) refuse(operation, Pondra::notAllowedText(mounted(), follower_ != nullptr));
  return *writer_;
}

void TableCollection::refuse(std::string_view operation, const std::string& text) const {
  throw TableError(path_ + " " + layout_.collection + std::string(operation) + ": " + text);
}

WriteResult TableCollection::write(Bytes key, Bytes value) {
  PLATFORM_ASSERT(key.size() == layout_.keySize);
  TableWriter& writer = writerFor("Is");
  if (value.size() > layout_.maxValueSize) {
    refuse("Is", Pondra::payloadText(layout_.typeName, value.size(), layout_.maxValueSize));
  }
  room_.writeBegins();
  const WriteResult result = writer.write(keyWords(key), value);
  if (room_.writeEnds(result)) {
    reportCorruption("no space left on " + context_->directory + ": no entries are added until there is some");
  }
  if (result == WriteResult::ok) written();
  return result;
}

bool TableCollection::erase(Bytes key) {
  PLATFORM_ASSERT(key.size() == layout_.keySize);
  const bool erased = writerFor("Del").erase(keyWords(key));
  if (erased) written();
  return erased;
}

void TableCollection::written() {
  writeIsNoted();
  if (unheardWrites_ >= writesPerFlush) ringDoorbell();
  if (follower_ && dueIs()) context_->wantDelivery();
}

bool TableCollection::dueIs() {
  if (std::exchange(due_, true)) return false;
  context_->due.push_back(weak_from_this());
  return true;
}

void TableCollection::writeIsNoted() const {
  ++unheardWrites_;
  if (!std::exchange(isUnflushed_, true)) context_->unflushed.push_back(weak_from_this());
}

void TableCollection::flush() const {
  isUnflushed_ = false;
  ringDoorbell();
}

void TableCollection::ringDoorbell() const {
  if (unheardWrites_ == 0 || !file_) return;
  unheardWrites_ = 0;
  file_->ringDoorbell();
}

namespace {

// Lets a follower remember what the table holds.
class NobodyListens final : public ChangeFollower::Listener {
 public:
  explicit NobodyListens(const std::function<bool()>& shouldYield) : shouldYield_(shouldYield) {}
  void keyChanged(const KeyWords&, std::uint64_t) override {}
  Appetite appetite() override {
    return std::exchange(begun_, true) && shouldYield_() ? Appetite::nothing : Appetite::everything;
  }

 private:
  const std::function<bool()>& shouldYield_;
  bool begun_ = false;
};

}  // namespace

std::uint64_t TableCollection::follow(Sink* sink) {
  const auto prepared = isTakingStock() ? std::exchange(follower_, nullptr) : nullptr;
  sink_ = nullptr;
  follower_.reset();
  streaming_ = false;
  toldWriter_ = writerWords();
  if (sink != nullptr) {
    sink_ = sink;
    follower_ = prepared ? prepared : std::make_shared<ChangeFollower>(report_);
    if (prepared) {
      const std::function<bool()> never = [] { return false; };
      NobodyListens nobody(never);
      prepared->deliver(nobody);
    } else if (view_) {
      follower_->start(*view_);
    }
  }
  newestTold_ = std::max(newestTold_, lastSequence());
  return lastSequence();
}

bool TableCollection::prepareToFollow(const std::function<bool()>& shouldYield) {
  if (sink_ != nullptr || !view_ || kind_ == MountKind::keyedReader) return true;
  if (!follower_) {
    follower_ = std::make_shared<ChangeFollower>(report_);
    follower_->restart(*view_);  // what it tells is what it remembers
  }
  NobodyListens nobody(shouldYield);
  follower_->deliver(nobody);
  return !follower_->pending();
}

bool TableCollection::deliver(const std::function<bool()>& shouldYield) {
  const std::shared_ptr<ChangeFollower> follower = follower_;
  if (!follower) return true;
  if (sink_ == nullptr) return prepareToFollow(shouldYield);
  const WriterWords writer = writerWords();
  if (std::exchange(toldWriter_.generation, writer.generation) != writer.generation) {
    sink_->writerChanged();
    if (follower_ != follower) return true;
  }
  const bool changes = streaming_ || follower->pending();
  if (changes && !deliverKeys(follower, shouldYield)) return follower_ != follower;
  if (std::exchange(toldWriter_, writer) != writer) sink_->writerChanged();
  return !pending();
}

// Hands what a follower tells on to the sink, which may stop following, or start again, from inside any of its calls,
// or unmount the table.
class TableCollection::Delivery final : public ChangeFollower::Listener {
 public:
  Delivery(TableCollection& table, std::shared_ptr<ChangeFollower> follower, const std::function<bool()>& shouldYield)
      : table_(table), follower_(std::move(follower)), shouldYield_(shouldYield), file_(table.file_) {}
  bool followed() const { return table_.follower_ == follower_; }

  void keyChanged(const KeyWords& words, std::uint64_t sequence) override {
    if (!followed()) return;
    const MutableBytes key(bytes_.data(), table_.layout_.keySize);
    keyBytes(words, key);
    // A slot that is gone has no sequence to tell when its entry went.
    const bool broken = file_->broken();
    table_.newestTold_ = std::max(table_.newestTold_ + (broken ? 1 : 0), table_.sequenceBase_ + sequence);
    table_.sink_->keyChanged(key, broken ? table_.newestTold_ : table_.sequenceBase_ + sequence);
  }
  // However short the slice, each delivery gets further.
  Appetite appetite() override {
    if (!followed() || (std::exchange(begun_, true) && shouldYield_())) return Appetite::nothing;
    const Appetite appetite = table_.sink_->appetite();
    table_.listenerIsBusy_ = appetite != Appetite::everything;
    return appetite;
  }

 private:
  TableCollection& table_;
  const std::shared_ptr<ChangeFollower> follower_;
  const std::function<bool()>& shouldYield_;
  const std::shared_ptr<TableFile> file_;
  std::array<std::byte, Pondra::maxKeySize> bytes_{};
  bool begun_ = false;
};

// False: the sink does not follow any more, or there is more to deliver.
bool TableCollection::deliverKeys(const std::shared_ptr<ChangeFollower>& follower,
                                  const std::function<bool()>& shouldYield) {
  Delivery delivery(*this, follower, shouldYield);
  if (!streaming_) {
    streaming_ = true;
    sink_->quiescedChanged(false);
  }
  follower->deliver(delivery);
  context_->memoryFreed = follower->takeForgotten() || context_->memoryFreed;
  if (!delivery.followed() || follower->pending()) return false;
  streaming_ = false;
  sink_->quiescedChanged(true);
  return delivery.followed();
}

bool TableCollection::verify() {
  constexpr std::uint32_t entriesAtATime = 512;
  if (!writer_) return true;
  const std::uint64_t before = writer_->sequence();
  bool done = true;
  try {
    done = writer_->verify(entriesAtATime);
  } catch (const TableError& error) {
    reportCorruption(error.what());  // the next write tries to mend it again
  }
  if (writer_->sequence() != before) written();  // rebuilt: everybody looks at everything
  return done;
}

void TableCollection::lookForSparseness() {
  if (!quietClock_.takeQuiet(writer_->sequence()) || isSparse_ || !writer_->isSparse()) return;
  isSparse_ = true;
  context_->sparse.push_back(weak_from_this());
}

bool TableCollection::giveMemoryBack() {
  constexpr std::uint32_t placesAtATime = 64;
  if (!writer_) return true;
  const std::uint64_t before = writer_->sequence();
  const bool quiet = quietClock_.staysQuiet(before);
  if (!quiet) writer_->endGivingBack();
  const bool done = !quiet || writer_->giveMemoryBack(placesAtATime);
  quietClock_.ownChanges(writer_->sequence() - before);
  if (writer_->sequence() != before) written();  // whoever follows has slots to remember
  isSparse_ = !done;
  context_->memoryFreed = context_->memoryFreed || done;
  return done;
}

void TableCollection::checkReplacement(bool retry) {
  if (kind_ == MountKind::writer) {
    lookForSparseness();
    replacementDue_ = !ownFilesStand() && (!notCopied_ || retry);
    if (writer_->verified() && view_->takeContradiction()) {
      writer_->verifyAgain();
      context_->adopted.push_back(weak_from_this());
    }
    return;
  }
  if (broken()) tellBroken();
  const FileIdentity now = fileIdentity(fileName());
  if (now == FileIdentity{} || (now == refused_ && !retry)) return;
  if (!file_ || broken() || !now.isSameFile(file_->identity())) replacementDue_ = true;
}

// Once for a file, however often it is mapped again.
void TableCollection::tellBroken() {
  if (!std::exchange(brokenTold_, true)) reportCorruption("its file was cut short while it was read");
}

void TableCollection::adoptReplacement() {
  if (!std::exchange(replacementDue_, false)) return;
  if (kind_ == MountKind::writer) {
    putBack();
    return;
  }
  std::unique_ptr<TableFile> next;
  const FileIdentity identity = fileIdentity(fileName());
  try {
    next = openForReading();
  } catch (const TableError& error) {
    refuseFile(identity, error);
  }
  if (!next) return;
  refused_ = {};
  const bool same = file_ && next->identity().isSameFile(file_->identity());
  if (same && !broken()) return;
  if (!same) brokenTold_ = false;
  const bool appeared = !file_;
  if (!appeared) sequenceBase_ = nextBase();
  if (isTakingStock()) follower_.reset();  // it takes stock of the other file anew
  const auto old = std::exchange(file_, std::move(next));
  const std::optional<TableView> oldView = std::exchange(view_, TableView(file_->image(), report_));
  if (!follower_) return;
  if (!appeared) {
    follower_->restart(*view_, *oldView, old);
  } else if (found_) {
    follower_->start(*view_);  // nobody can say which of its entries are new
  } else {
    follower_->restart(*view_);
  }
  if (appeared) sink_->mountStatusChanged();
}

bool TableCollection::ownFilesStand() const {
  return !file_->cutShort() && file_->stands() && lockStands(context_->directory, path_, lock_);
}

// Somebody has removed the table, its lock or the whole directory, put something else there, or cut the file short. The
// kernel does not give a removed file its name back, so the entries are copied, all in one go: that this takes a moment
// is the least of the troubles of a switch where it happens. What fails is told once; it is tried again when the files
// are looked at next, a copy without room for it more seldom.
void TableCollection::putBack() {
  const auto entries = writer_->size();
  const bool cutShort = file_->cutShort();
  const std::string what = cutShort ? "its file was cut short" : "its file was removed";
  try {
    for (const auto& directory :
         {std::filesystem::path(context_->directory).parent_path().string(), context_->directory}) {
      makeDirectory(directory);
      checkOwnDirectory(directory);
    }
    if (!lockStands(context_->directory, path_, lock_)) lock_ = lockTable(context_->directory, path_);
    if (cutShort || !file_->stands()) copyWholeEntries();
    const auto left = writer_->size();
    const std::string loss = " with " + std::to_string(left) + " of " + std::to_string(entries) + " entries";
    notPutBack_.clear();
    reportCorruption(what + "; it is put back" + (left == entries ? "" : loss));
  } catch (const std::exception& error) {
    if (std::exchange(notPutBack_, error.what()) != error.what()) {
      reportCorruption(what + " and cannot be put back: " + error.what());
    }
  }
}

void TableCollection::copyWholeEntries() {
  if (isTakingStock()) follower_.reset();
  const auto old = file_;  // the follower's until it has gone over
  const std::uint64_t base = nextBase();
  notCopied_ = true;
  copyEntries(old->capacity());
  notCopied_ = false;
  sequenceBase_ = base;
  const std::optional<TableView> oldView = std::exchange(view_, TableView(file_->image(), report_));
  if (follower_) follower_->restart(*view_, *oldView, old);
}

// Told once for a state of the file, however often it is tried.
void TableCollection::refuseFile(const FileIdentity& identity, const TableError& error) {
  const auto* shortage = dynamic_cast<const TableShortage*>(&error);
  const bool isNew = refused_ != identity || refusedText_ != error.what();
  refused_ = identity;
  refusedText_ = error.what();
  if (shortage != nullptr) {
    context_->reportShortage(path_, shortage->remedy());
  } else if (isNew) {
    context_->reportDamage(path_, error.what());
  }
}

void TableCollection::reportCorruption(std::string_view what) const {
  context_->reportDamage(path_, std::string(what));
}

void TableCollection::checkInvariants() const {
  finishIndexes();
  if (writer_) writer_->checkInvariants();
}

}  // namespace LinuxPlatform
