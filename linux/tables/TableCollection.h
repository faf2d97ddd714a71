// One mounted table: the file, its reader, and its writer or follower, behind the platform's interface.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/tables/ChangeFollower.h"
#include "lib/tables/TableView.h"
#include "lib/tables/TableWriter.h"
#include "linux/tables/QuietClock.h"
#include "linux/tables/RoomNotice.h"
#include "linux/tables/TableFile.h"
#include "platform/tables/SharedTable.h"

namespace LinuxPlatform {

class TableCollection;

// What the mounts of one service share; lives as long as the last of them.
struct TableServiceContext {
  std::string directory;  // of the table files
  std::function<void(const std::string& path, const std::string& what)>
      corruptionHandler;  // empty: reportDamage prints
  std::function<void()> deliveryWanted;
  bool hugePages = false;                                       // asked for by writers
  bool deliveryAsked = false;                                   // since the last delivery
  std::vector<std::weak_ptr<TableCollection>> due;              // tables that the next delivery has to look at
  std::vector<std::weak_ptr<const TableCollection>> unflushed;  // tables written to
  std::vector<std::weak_ptr<TableCollection>> adopted;  // written here, their indexes not yet compared with the entries
  std::vector<std::weak_ptr<TableCollection>> sparse;   // written here, with memory to give back
  bool memoryFreed = false;                             // of this process, by tables that have become smaller
  std::set<std::pair<std::string, std::string>> printed;
  std::set<std::string> shortages;

  // To the handler; without one a line on standard error, for each fault of each table once.
  void reportDamage(const std::string& path, const std::string& what);
  // The same once for all tables: the first one that met the shortage stands for the others.
  void reportShortage(const std::string& path, const std::string& remedy);

  void wantDelivery() {
    if (deliveryAsked) return;
    deliveryAsked = true;
    if (deliveryWanted) deliveryWanted();
  }
};

class TableCollection final : public Pondra::SharedCollection, public std::enable_shared_from_this<TableCollection> {
 public:
  // Opens the table: a reader's may be missing, and a writer's is opened by open(). Throws TableError. A reader's
  // layout without a type's name stands for whatever layout the first file has that it can read.
  TableCollection(std::shared_ptr<TableServiceContext> context, std::string path, Pondra::MountKind kind,
                  Pondra::TableLayout layout, std::uint32_t capacity, Unreadable unreadable = Unreadable::error);

  // Goes on to make a writer's table or to take it over until that is done (true) or shouldYield, asked after each
  // part, says stop (false). Throws TableError. Before it is done nothing else is asked of the collection.
  bool open(const std::function<bool()>& shouldYield);
  // Takes stock of the table, in parts as above, for a sink that is to follow it: follow() goes on from there.
  bool prepareToFollow(const std::function<bool()>& shouldYield);

  const Pondra::TableLayout& layout() const { return layout_; }
  const std::string& path() const override { return path_; }
  Pondra::MountKind kind() const override { return kind_; }
  bool mounted() const override { return file_ != nullptr; }
  std::size_t size() const override;
  std::size_t capacity() const override { return file_ ? file_->capacity() : 0; }
  std::uint64_t generation() const override { return writerWords().generation; }
  bool reconciled() const override;
  void reconciledIs() override;
  std::optional<std::size_t> find(Bytes key, MutableBytes value) const override;
  bool has(Bytes key) const override;
  void findMany(Bytes keys, MutableBytes value, const VisitFound& visit) const override;
  std::optional<std::size_t> seek(Bytes key, bool inclusive, MutableBytes keyOut, MutableBytes value,
                                  Pondra::WalkPlace& place) const override;
  Pondra::WriteResult write(Bytes key, Bytes value) override;
  bool erase(Bytes key) override;
  std::uint64_t follow(Sink* sink) override;
  std::uint64_t lastSequence() const override { return view_ ? sequenceBase_ + view_->headSequence() : 0; }
  void reportCorruption(std::string_view what) const override;

  // Lets go of file and lock; whoever still holds the collection finds it empty. Tells the sink.
  void close();
  // Hands changes to the sink until there are none, it wants no more, or shouldYield says stop. True: nothing is left.
  bool deliver(const std::function<bool()>& shouldYield);
  // The sink wanted no more when it was last asked.
  bool listenerIsBusy() const { return listenerIsBusy_; }
  bool pending() const {
    const auto writerChanged = [this] { return sink_ != nullptr && writerWords() != toldWriter_; };
    return replacementDue_ || streaming_ || (follower_ && (follower_->pending() || writerChanged()));
  }
  // Puts the table among those that the next delivery looks at; false: it is one already.
  bool dueIs();
  void dueTaken() { due_ = false; }
  // Notices that the mount's name leads to another file than the one mapped; adoptReplacement() goes over to it. A file
  // that was refused is tried again when it has changed, or when `retry` says so; so is one that broke under the
  // mapping. A writer, whose files nobody else may touch, puts its own in the place again, with the entries that are
  // whole, and tells so; it also looks whether there is memory to give back, or a contradiction to verify.
  void checkReplacement(bool retry = false);
  void adoptReplacement();
  // The file under the name has been refused, and nothing is known to have changed since.
  bool refused() const { return refused_ != FileIdentity(); }
  // The mapped file was cut short or punched: checkReplacement() takes care of it.
  bool broken() const { return file_ && file_->broken(); }
  // Written here: goes on comparing what was adopted (TableWriter::verify), by some dozens of microseconds. True: done.
  bool verify();
  bool verified() const { return !writer_ || writer_->verified(); }
  // Written here: goes on giving memory back (TableWriter::giveMemoryBack), likewise. True: that is done, or has to
  // wait for quieter times.
  bool giveMemoryBack();
  // Makes those who watch the file look, if anything was written.
  void flush() const;
  void checkInvariants() const;

 private:
  // What the table's state says of its writer; zeros without a file.
  struct WriterWords {
    std::uint64_t generation = 0;
    std::uint64_t reconciled = 0;
    bool operator==(const WriterWords&) const = default;
  };
  static WriterWords wordsIn(const TableFile& file);
  WriterWords writerWords() const { return file_ ? wordsIn(*file_) : WriterWords(); }
  // This writer's come after those of the one before.
  void beginGeneration();
  void storeWriterWords(const TableFile& file) const;
  std::string fileName() const { return context_->directory + "/" + tableFileName(path_) + ".table"; }
  // That the kernel gives no pages of 2 MiB, where they are asked for.
  void tellPages(const TableFile& file) const;
  // What a writer asks for room in its file.
  Reserve roomIn(const TableFile& file);
  static Release releaseIn(const TableFile& file);
  // Puts the table among those that have memory to give back, if it has and nobody has changed it for a while.
  void lookForSparseness();
  void finishIndexes() const;
  std::unique_ptr<TableFile> openForReading();
  void beginWriting();
  void opened();
  void copyEntries(std::uint32_t capacity);
  void countAnew();
  bool ownFilesStand() const;
  void putBack();
  void copyWholeEntries();
  // The counter may be among what was cut off.
  std::uint64_t nextBase() const { return std::max(lastSequence(), newestTold_) + 1; }
  void tellBroken();
  class Delivery;
  bool deliverKeys(const std::shared_ptr<ChangeFollower>& follower, const std::function<bool()>& shouldYield);
  void refuseFile(const FileIdentity& identity, const Pondra::TableError& error);
  void writeIsNoted() const;
  void ringDoorbell() const;
  void written();
  TableWriter& writerFor(std::string_view operation);
  [[noreturn]] void refuse(std::string_view operation, const std::string& text) const;

  // Of the one that a delivery or a preparation goes on with: no sink is there that it could tell.
  bool isTakingStock() const { return follower_ != nullptr && sink_ == nullptr; }

  // What a writer's open() has come to:
  //   file_ null         nothing; beginWriting() makes the file, or takes the one that is there
  //   writer_ null       a new file is being prepared, part by part (isNew_)
  //   opened_ false      the writer takes over what is in the file, part by part
  //   opened_            done
  std::shared_ptr<TableServiceContext> context_;
  std::string path_;
  Pondra::MountKind kind_;
  Pondra::TableLayout layout_;
  DamageReport report_;
  std::uint32_t wantedCapacity_;  // a writer's
  bool isNew_ = false;            // it is making the file
  bool opened_ = false;
  TableLock lock_;
  std::shared_ptr<TableFile> file_;
  std::optional<TableView> view_;
  std::unique_ptr<TableWriter> writer_;
  WriterWords ownWords_;                     // a writer's
  mutable std::uint32_t unheardWrites_ = 0;  // since the doorbell rang last; the indexes built anew count for one
  mutable bool isUnflushed_ = false;         // named in the context
  RoomNotice room_;
  std::string notPutBack_;  // why the file could not be put back when that was last tried
  bool notCopied_ = false;  // because there was no room for a copy of the entries
  bool isSparse_ = false;   // named in the context
  QuietClock quietClock_;

  Sink* sink_ = nullptr;
  // Null: nobody follows. Without a sink: prepareToFollow() takes stock, and tells nobody. With one: it is told.
  std::shared_ptr<ChangeFollower> follower_;
  bool listenerIsBusy_ = false;
  bool streaming_ = false;          // the sink has been told of a change and not yet of their end
  WriterWords toldWriter_;          // what the sink knows of the writer
  std::uint64_t sequenceBase_ = 0;  // added to the file's sequences, so that they ascend across a replacement
  std::uint64_t newestTold_ = 0;    // of the sequences that the sink knows
  bool due_ = false;
  bool replacementDue_ = false;
  bool brokenTold_ = false;  // of the mapped file
  bool found_ = false;       // a file was there when the table was mounted, but could not be used
  FileIdentity refused_;     // a file that cannot be used
  std::string refusedText_;  // why
};

}  // namespace LinuxPlatform
