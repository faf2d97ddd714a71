// Table files between real processes: a writer and its successors, who wakes whom, files that are lost or damaged.
// Writers that are stopped or killed in mid-change: test/torture/.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

#include "lib/tables/TableFormat.h"
#include "lib/tables/TableView.h"
#include "lib/tables/TableWriter.h"
#include "linux/files/ProcessLimits.h"
#include "linux/tables/SharedTableService.h"
#include "test/support/TestTables.h"

namespace {

using LinuxPlatform::SharedTableService;
using Pondra::CollectionInfo;
using Pondra::MountKind;
using Pondra::TableError;
using testing::ElementsAre;
using testing::HasSubstr;
using TestTables::FixedRecord;
using TestTables::FixedTable;
using TestTables::SizedRecord;
using TestTables::SizedTable;

constexpr auto never = [] { return false; };

// The wait status of a child that runs one function.
int statusOfChild(const std::function<void()>& run) {
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    run();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

using Contents = std::map<std::uint64_t, FixedRecord>;

Contents contents(const FixedTable& table) {
  Contents found;
  for (const auto& value : table) {
    EXPECT_TRUE(found.empty() || found.rbegin()->first < value.number) << "out of order";
    found.emplace(value.number, value);
  }
  return found;
}

// What a process that follows the table believes it to hold.
class Believer final : public FixedTable::Reactor {
 public:
  explicit Believer(std::shared_ptr<const FixedTable> table) : FixedTable::Reactor(table), table_(std::move(table)) {
    believed = contents(*table_);
  }
  void handleMountStatus() override { ++mountStatus; }
  void handleEntry(const std::uint64_t& key) override {
    ++told;
    believed.erase(key);
    if (const auto value = table_->route(key)) believed.emplace(key, *value);
  }
  Contents believed;
  const FixedTable& table() const { return *table_; }
  std::uint64_t told = 0;
  std::uint64_t mountStatus = 0;

 private:
  std::shared_ptr<const FixedTable> table_;
};

class SharedTableProcessTest : public testing::Test {
 protected:
  static constexpr std::uint32_t capacity = 300;

  SharedTableProcessTest() {
    std::string name = testing::TempDir() + "tablesXXXXXX";
    directory = mkdtemp(name.data());
  }
  ~SharedTableProcessTest() override { std::filesystem::remove_all(directory); }

  std::unique_ptr<SharedTableService> service(std::function<void()> deliveryWanted = {}) {
    auto made = std::make_unique<SharedTableService>(directory, types, std::move(deliveryWanted));
    made->corruptionHandlerIs(
        [this](const std::string& path, const std::string& what) { damage.push_back(path + ": " + what); });
    return made;
  }
  static std::shared_ptr<FixedTable> mount(SharedTableService& service, MountKind kind,
                                           std::uint32_t entries = capacity) {
    service.mount("fixed", FixedTable::typeName, kind,
                  kind == MountKind::writer ? std::optional(CollectionInfo{"route", entries}) : std::nullopt);
    return service.get<FixedTable>("fixed");
  }
  std::string file() const { return directory + "/tables/fixed.table"; }
  const Platform::TableTypes types = TestTables::types();
  std::string directory;
  std::vector<std::string> damage;
};

TEST_F(SharedTableProcessTest, OtherProcessesChangesWakeTheLoop) {
  unsigned wanted = 0;
  const auto reading = service([&] { ++wanted; });
  Believer believer(mount(*reading, MountKind::reader));
  const auto readable = [&](int milliseconds) {
    pollfd waiting{reading->wakeupFd(), POLLIN, 0};
    return poll(&waiting, 1, milliseconds) == 1;
  };
  const auto write = [&](std::uint64_t key, bool flush) {
    statusOfChild([&] {
      const auto writing = service();
      const auto table = mount(*writing, MountKind::writer);
      table->routeIs({key, key});
      if (flush) writing->flush();
      raise(SIGKILL);
    });
  };
  EXPECT_FALSE(readable(0));
  for (const std::uint64_t key : {1u, 2u}) {  // the table appears; it changes
    write(key, true);
    ASSERT_TRUE(readable(10000));
    reading->handleWakeup();
    EXPECT_FALSE(readable(0));
    EXPECT_EQ(wanted, key);
    EXPECT_TRUE(reading->deliverChanges(never));
    EXPECT_EQ(believer.told, key);
  }
  write(3, false);  // killed before it could tell of more than its coming, which goes unheard
  std::array<char, 4096> unheard{};
  EXPECT_GT(read(reading->wakeupFd(), unheard.data(), unheard.size()), 0);
  EXPECT_FALSE(readable(0));
  EXPECT_TRUE(reading->pendingChanges());
  EXPECT_TRUE(reading->deliverChanges(never));
  EXPECT_EQ(believer.told, 3U);
  EXPECT_FALSE(reading->pendingChanges());
}

// Somebody removed the file. The next writer's table starts its count of changes anew, which must not make its changes
// look old.
TEST_F(SharedTableProcessTest, TableMadeAnewIsToldWhole) {
  const auto reading = service();
  const auto read = mount(*reading, MountKind::reader);
  Believer believer(read);
  for (const std::vector<std::uint64_t>& keys : {std::vector<std::uint64_t>{1, 2, 3, 4}, {5}, {}}) {
    const auto writing = service();
    const auto table = mount(*writing, MountKind::writer);
    for (const std::uint64_t key : keys) table->routeIs({key, key});
    reading->handleWakeup();
    EXPECT_TRUE(reading->deliverChanges(never));
    EXPECT_EQ(believer.believed, contents(*table));
    std::filesystem::remove(file());
  }
}

// What is lost is the file's name, its lock, or the whole directory; what takes its place may be no table at all.
TEST_F(SharedTableProcessTest, AWriterPutsItsRemovedTableBack) {
  const std::function<void()> losses[] = {
      [&] { std::filesystem::remove(file()); },
      [&] { std::filesystem::remove(directory + "/tables/fixed.lock"); },
      [&] { std::filesystem::remove_all(directory); },
      [&] { std::filesystem::rename(file(), directory + "/taken"); },
      [&] { std::ofstream(file() + "x"), std::filesystem::rename(file() + "x", file()); },
  };
  const auto writing = service();
  const auto written = mount(*writing, MountKind::writer);
  Believer writersOwn(written);
  const auto reading = service();
  Believer believer(mount(*reading, MountKind::reader));
  std::uint64_t key = 1;
  for (const auto& lose : losses) {
    SCOPED_TRACE(key);
    written->routeIs({key, key});
    damage.clear();
    lose();
    written->routeIs({++key, key});  // into a file without a name
    EXPECT_TRUE(writing->pendingChanges());
    EXPECT_TRUE(writing->deliverChanges(never));
    EXPECT_THAT(damage, ElementsAre("fixed: its file was removed; it is put back"));
    EXPECT_FALSE(writing->pendingChanges());
    EXPECT_THROW(mount(*service(), MountKind::writer), TableError) << "the lock is held again";
    written->routeIs({++key, key});
    writing->checkInvariants();

    damage.clear();
    reading->pendingChanges();
    reading->deliverChanges(never);
    EXPECT_EQ(contents(*reading->get<FixedTable>("fixed")), contents(*written));
    EXPECT_EQ(believer.believed, contents(*written));
    writing->deliverChanges(never);
    EXPECT_EQ(writersOwn.believed, contents(*written));
  }
  EXPECT_EQ(contents(*written).size(), key);

  // Another has become the writer meanwhile: nobody fights him, and he is told about.
  std::filesystem::remove_all(directory);
  auto other = service();
  mount(*other, MountKind::writer)->routeIs({7, 7});
  writing->pendingChanges();
  writing->deliverChanges(never);
  EXPECT_THAT(damage, ElementsAre(HasSubstr("cannot be put back: fixed mount: another process is the table's writer")));
  EXPECT_EQ(contents(*other->get<FixedTable>("fixed")).size(), 1U);
  other.reset();
  writing->pendingChanges();
  writing->deliverChanges(never);
  EXPECT_EQ(contents(*mount(*service(), MountKind::reader)).size(), key);
}

// As one leaves them that died while it built them: in slices, or at once for whoever looks something up or goes away.
TEST_F(SharedTableProcessTest, IndexesThatAreWrongAreBuiltAnewBesideReaders) {
  constexpr std::uint32_t entries = 2000;
  const auto writing = [&] {
    auto made = service();
    mount(*made, MountKind::writer, entries);
    return made;
  };
  {
    const auto first = writing();
    for (std::uint64_t key = 0; key < entries; ++key) first->get<FixedTable>("fixed")->routeIs({key, key});
  }
  const auto epochAt = LinuxPlatform::tableStateOffset + offsetof(LinuxPlatform::TableState, epoch);
  const auto stands = [&](std::optional<std::uint64_t> epoch) {
    std::fstream bytes(file(), std::ios::binary | std::ios::in | std::ios::out);
    std::uint64_t word = LinuxPlatform::checkedWord(epoch.value_or(0));
    if (epoch) bytes.seekp(epochAt).write(reinterpret_cast<const char*>(&word), sizeof word);
    bytes.seekg(epochAt).read(reinterpret_cast<char*>(&word), sizeof word);
    return LinuxPlatform::numberIn(word) % 2 == 0;
  };
  const auto reading = service();
  const Believer believer(mount(*reading, MountKind::reader));
  for (const char* who : {"nobody asks", "somebody asks", "the writer goes"}) {
    SCOPED_TRACE(who);
    EXPECT_FALSE(stands(1));
    auto next = writing();
    EXPECT_FALSE(stands({}));
    EXPECT_EQ(contents(believer.table()), believer.believed);
    const auto table = next->get<FixedTable>("fixed");
    unsigned slices = 0;
    if (who[0] == 's') {
      EXPECT_TRUE(table->route(7));
    }
    if (who[0] == 't') next.reset();
    while (next && !next->deliverChanges([] { return true; })) ++slices;
    EXPECT_EQ(slices > entries / 512, who[0] == 'n');
    EXPECT_TRUE(stands({}));
    if (next) next->checkInvariants();
    EXPECT_EQ(contents(believer.table()), believer.believed);
    EXPECT_EQ(believer.believed.size(), entries);
  }
  damage.clear();
}

TEST_F(SharedTableProcessTest, UnusableFilesAreRefusedInWords) {
  {
    const auto writing = service();
    mount(*writing, MountKind::writer)->routeIs({1, 1});
  }
  std::ifstream stream(file(), std::ios::binary);
  const std::string good(std::istreambuf_iterator<char>(stream), {});
  const auto withByte = [&](std::size_t offset) {
    std::string bytes = good;
    bytes[offset] = static_cast<char>(bytes[offset] ^ 0x40);
    return bytes;
  };
  const struct {
    const char* what;
    std::string bytes;
    const char* text;
  } cases[] = {
      {"empty", "", "too short"},
      {"half a header", good.substr(0, 600), "too short"},
      {"header only", good.substr(0, 4096), "shorter than its header says"},
      {"one byte missing", good.substr(0, good.size() - 1), "shorter than its header says"},
      {"something else", std::string(good.size(), 'x'), "no table"},
      {"other byte order", withByte(offsetof(LinuxPlatform::TableHeader, endianTag)), "byte order"},
      {"other format", withByte(offsetof(LinuxPlatform::TableHeader, formatVersion)),
       "format 67, not 3: another version of this program wrote it"},
      {"other value layout", withByte(offsetof(LinuxPlatform::TableHeader, layoutVersion)), "damaged"},
      {"scribbled slot count", withByte(offsetof(LinuxPlatform::TableHeader, slots)), "damaged"},
      {"scribbled name", withByte(offsetof(LinuxPlatform::TableHeader, path)), "damaged"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::ofstream(file(), std::ios::binary | std::ios::trunc) << c.bytes;
    for (const MountKind kind : {MountKind::reader, MountKind::writer}) {
      const auto opening = service();
      try {
        mount(*opening, kind);
        ADD_FAILURE() << "mounted";
      } catch (const TableError& error) {
        EXPECT_THAT(error.what(), testing::AllOf(HasSubstr("fixed mount: "), HasSubstr(c.text)));
      }
    }
    EXPECT_FALSE(LinuxPlatform::tableFiles(directory).at(0).path.empty());
  }

  // A later layout, and a table that waits and then gets what it cannot read.
  std::filesystem::remove(file());
  Platform::TableTypes later;
  later.typeIs<TestTables::LaterTable>();
  SharedTableService waiting(directory, later);
  std::vector<std::string> reported;
  waiting.corruptionHandlerIs([&](const std::string&, const std::string& what) { reported.push_back(what); });
  waiting.mount("fixed", FixedTable::typeName, MountKind::reader);
  const auto writing = service();
  mount(*writing, MountKind::writer);
  waiting.handleWakeup();
  EXPECT_TRUE(waiting.deliverChanges(never));
  EXPECT_THAT(reported, ElementsAre("fixed mount: the file holds layout version 1, not 2"));
  EXPECT_FALSE(waiting.entity("fixed")->mounted());
}

// A reader that waits for a table it can read: the file is none at first, and grows into one.
TEST_F(SharedTableProcessTest, AFileThatIsNoTableIsToldOnceAndTriedAgain) {
  {
    const auto writing = service();
    for (const std::uint64_t key : {1u, 2u}) mount(*writing, MountKind::writer)->routeIs({key, key});
  }
  std::ifstream stream(file(), std::ios::binary);
  const std::string good(std::istreambuf_iterator<char>(stream), {});
  const auto bytesAre = [&](const std::string& bytes) {
    std::ofstream(file(), std::ios::binary | std::ios::trunc) << bytes;
  };
  bytesAre(good.substr(0, 600));
  // One has a handler, the other prints.
  const auto reading = service();
  SharedTableService printing(directory, types);
  testing::internal::CaptureStderr();
  for (auto* waiting : {reading.get(), &printing}) waiting->mountWhenReadable("fixed", FixedTable::typeName);
  Believer believer(reading->get<FixedTable>("fixed"));
  const auto poll = [&] {
    for (auto* waiting : {reading.get(), &printing}) {
      for (unsigned i = 0; i < 25; ++i) {
        waiting->pendingChanges();
        while (!waiting->deliverChanges(never)) {
        }
      }
    }
  };
  poll();
  EXPECT_THAT(damage, ElementsAre("fixed: fixed mount: the file is too short for a table"));
  bytesAre(good.substr(0, 4096));
  poll();
  EXPECT_THAT(damage, ElementsAre(HasSubstr("too short"), HasSubstr("shorter than its header says")));
  EXPECT_FALSE(believer.table().mounted());
  bytesAre(good);
  poll();
  EXPECT_TRUE(believer.table().mounted());
  EXPECT_EQ(believer.mountStatus, 1U);
  EXPECT_EQ(believer.told, 0U) << "nobody knows which of the entries are new";
  EXPECT_EQ(contents(believer.table()).size(), 2U);
  EXPECT_EQ(printing.get<FixedTable>("fixed")->size(), 2U);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "routecache: table fixed: fixed mount: the file is too short for a table\n"
            "routecache: table fixed: fixed mount: the file is shorter than its header says\n");
  // A table that has been read stays what it is while a bad one has its name.
  const auto writing = service();
  std::filesystem::remove(file());
  bytesAre("no table");
  poll();
  EXPECT_EQ(contents(believer.table()).size(), 2U);
  std::filesystem::remove(file());
  mount(*writing, MountKind::writer)->routeIs({2, 2});
  poll();
  EXPECT_EQ(believer.told, 1U) << "the one that has gone";
  EXPECT_THAT(damage, testing::SizeIs(3));
}

// Readers in numbers cost no descriptors. Of a shortage one line stands for all tables, and it passes.
TEST_F(SharedTableProcessTest, HundredsOfTablesAreReadWithFewDescriptors) {
  constexpr unsigned count = 600;
  const auto pathOfTable = [](unsigned i) { return "vrf/" + std::to_string(i); };
  for (unsigned i = 0; i < count; ++i) {
    SharedTableService writing(directory, types);
    writing.mount(pathOfTable(i), FixedTable::typeName, MountKind::writer, CollectionInfo{"route", 4});
    writing.get<FixedTable>(pathOfTable(i))->routeIs({i, i});
  }
  EXPECT_EQ(statusOfChild([&] {
              const auto reading = service();
              reading->mountWhenReadable(pathOfTable(0), FixedTable::typeName);
              rlimit few{};
              getrlimit(RLIMIT_NOFILE, &few);
              const rlim_t before = std::exchange(few.rlim_cur, 0);
              setrlimit(RLIMIT_NOFILE, &few);
              for (unsigned i = 1; i < 10; ++i) reading->mountWhenReadable(pathOfTable(i), FixedTable::typeName);
              EXPECT_THAT(damage, ElementsAre(HasSubstr("raise its limit (ulimit -n)")));
              few.rlim_cur = std::min<rlim_t>(before, 64);
              setrlimit(RLIMIT_NOFILE, &few);
              for (unsigned i = 10; i < count; ++i) reading->mountWhenReadable(pathOfTable(i), FixedTable::typeName);
              for (unsigned i = 0; i < 10; ++i) reading->pendingChanges();
              reading->deliverChanges(never);
              for (unsigned i = 0; i < count; ++i) EXPECT_EQ(reading->entity(pathOfTable(i))->size(), 1U) << i;
              EXPECT_THAT(damage, testing::SizeIs(1));
              LinuxPlatform::raiseDescriptorLimit();
              getrlimit(RLIMIT_NOFILE, &few);
              EXPECT_EQ(few.rlim_cur, few.rlim_max);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which need memory of their own
              const rlimit noMemory{1 << 20, RLIM_INFINITY};
              setrlimit(RLIMIT_AS, &noMemory);
              EXPECT_THROW(service()->mount(pathOfTable(0), FixedTable::typeName, MountKind::reader), TableError);
#endif
            }),
            0);
}

// One mapping under two threads: the thread sanitizer sees nothing between processes, and a reader gets closer to the
// writer's heels.
class SharedTableThreadTest : public testing::Test {
 protected:
  static LinuxPlatform::KeyWords key(std::uint64_t number) {
    std::array<std::byte, 12> bytes;
    TestTables::encodeNumber(number, bytes.data());
    return LinuxPlatform::keyWords(bytes);
  }
  void write(std::uint64_t number, std::uint64_t word, std::uint32_t count) {
    const std::size_t size = TestTables::encodeWords(word, count, value.data());
    writer.write(key(number), Pondra::Bytes(value).first(size));
  }
  // Walks the table over and over in another thread while `change` runs, again and again until there were enough walks;
  // `walked` sees the keys of each.
  void walkDuring(const std::function<void()>& change,
                  const std::function<void(const std::vector<std::uint64_t>&)>& walked) {
    std::atomic<bool> over = false;
    std::atomic<unsigned> walks = 0;
    std::thread reader([&] {
      const LinuxPlatform::TableView view(image, report);
      std::vector<std::byte> bytes(layout.maxValueSize), keyBytes(12);
      LinuxPlatform::Entry entry;
      while (!over) {
        LinuxPlatform::WalkCursor cursor;
        LinuxPlatform::KeyWords from{};
        std::vector<std::uint64_t> keys;
        for (bool first = true; view.seek(from, first, bytes, cursor, entry); first = false) {
          from = entry.key;
          LinuxPlatform::keyBytes(from, keyBytes);
          keys.push_back(TestTables::decodeNumber(keyBytes.data()));
          EXPECT_TRUE(TestTables::decodeWords(Pondra::Bytes(bytes).first(entry.size)));
          EXPECT_TRUE(keys.back() % 2 == 1 || view.has(from, entry));
        }
        walked(keys);
        ++walks;
      }
    });
    do {
      change();
    } while (walks < 20 && !HasFailure());
    over = true;
    reader.join();
    writer.checkInvariants();
  }

  // Its lines begin where the processor's do, as a mapping's.
  LinuxPlatform::TableImage emptyTable() {
    void* begin = memory.data();
    std::size_t size = memory.size();
    const LinuxPlatform::TableImage table(static_cast<std::byte*>(std::align(64, geometry.fileSize, begin, size)),
                                          geometry);
    const LinuxPlatform::TableHeader header = LinuxPlatform::tableHeader("threads", layout, 300, 300, 1);
    std::memcpy(begin, &header, sizeof header);
    LinuxPlatform::formatTable(table);
    return table;
  }

  const Pondra::TableLayout layout = Pondra::layoutOf<SizedTable>();
  const LinuxPlatform::TableGeometry geometry{layout, 300};
  std::vector<std::byte> memory = std::vector<std::byte>(geometry.fileSize + 64);
  const LinuxPlatform::TableImage image = emptyTable();
  const LinuxPlatform::DamageReport report = [](std::string_view what) { ADD_FAILURE() << what; };
  LinuxPlatform::TableWriter writer{image, 300, report};
  std::vector<std::byte> value = std::vector<std::byte>(layout.maxValueSize);
};

// Slots change hands between keys near the beginning and near the end all the time: a walk that trusts an outdated link
// is thrown forward and misses what lies between.
TEST_F(SharedTableThreadTest, WalkIsNotThrownOverEntriesThatStay) {
  for (std::uint64_t number = 0; number < 20; number += 2) write(number, 1, 1);
  walkDuring(
      [&] {
        for (std::uint64_t i = 0; i < 400000; ++i) {
          writer.erase(key(i % 20 | 1));
          write((i * 7 + 11) % 20 | 1, i, 1 + static_cast<std::uint32_t>(i % SizedRecord::maxCount));
        }
      },
      [](const std::vector<std::uint64_t>& keys) {
        EXPECT_EQ(std::count_if(keys.begin(), keys.end(), [](auto number) { return number % 2 == 0; }), 10);
        EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
      });
}

}  // namespace
