// Table files against the outside: locks that forked children have no part in, files that are cut short while they are
// mapped, and disks without room.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

#include "lib/tables/ChangeFollower.h"
#include "lib/tables/TableWriter.h"
#include "linux/tables/MappingGuard.h"
#include "linux/tables/SharedTableService.h"
#include "test/support/Eventually.h"
#include "test/support/TemporaryDirectory.h"
#include "test/support/TestTables.h"

namespace {

using LinuxPlatform::FileDescriptor;
using LinuxPlatform::MappingGuard;
using LinuxPlatform::SharedTableService;
using LinuxPlatform::TableWriter;
using Pondra::CollectionInfo;
using Pondra::MountKind;
using Pondra::TableError;
using testing::HasSubstr;
using TestTables::FixedTable;

pid_t forked(const std::function<void()>& run) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  run();
  _exit(testing::Test::HasFailure() ? 1 : 0);
}
int ended(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}
constexpr auto never = [] { return false; };

class TableFileTest : public testing::Test {
 protected:
  static constexpr std::uint32_t capacity = 300;
  using Contents = std::map<std::uint64_t, std::uint64_t>;

  std::unique_ptr<SharedTableService> service() {
    auto made = std::make_unique<SharedTableService>(directory.path(), types);
    made->corruptionHandlerIs([this](const std::string&, const std::string& what) { damage.push_back(what); });
    return made;
  }
  static std::shared_ptr<FixedTable> writer(SharedTableService& service, std::uint32_t entries = capacity) {
    service.mount("fixed", FixedTable::typeName, MountKind::writer, CollectionInfo{"route", entries});
    return service.get<FixedTable>("fixed");
  }
  static std::shared_ptr<FixedTable> reader(SharedTableService& service) {
    service.mount("fixed", FixedTable::typeName, MountKind::reader);
    return service.get<FixedTable>("fixed");
  }
  // True: some other process may become the writer.
  bool isFree() {
    const int status = ended(forked([&] {
      try {
        writer(*service());
      } catch (const TableError& error) {
        _exit(error.what() == std::string_view("fixed mount: another process is the table's writer") ? 1 : 2);
      }
    }));
    EXPECT_NE(WEXITSTATUS(status), 2) << "refused with other words";
    return status == 0;
  }
  static Contents contents(const FixedTable& table) {
    Contents found;
    for (const auto& value : table) found[value.number] = value.word;
    return found;
  }
  static void settle(SharedTableService& service) {
    service.pendingChanges();
    while (!service.deliverChanges(never)) {
    }
  }
  std::string file() const { return directory.path() + "/tables/fixed.table"; }

  const Platform::TableTypes types = TestTables::types();
  TemporaryDirectory directory;
  std::vector<std::string> damage;
};

TEST_F(TableFileTest, ALockIsItsProcesssAlone) {
  const std::function<pid_t()> children[] = {
      [] { return forked([] { pause(); }); },
      [] {  // no handler of fork() is called here
        pid_t pid = 0;
        char name[] = "sleep", time[] = "600";
        char* const arguments[] = {name, time, nullptr};
        EXPECT_EQ(posix_spawn(&pid, "/bin/sleep", nullptr, nullptr, arguments, environ), 0);
        return pid;
      },
  };
  for (const auto& child : children) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const FileDescriptor from(ends[0]);
    FileDescriptor to(ends[1]);
    const pid_t writing = forked([&] {
      const auto tables = service();
      writer(*tables);
      const pid_t pid = child();
      EXPECT_EQ(write(to.get(), &pid, sizeof pid), ssize_t{sizeof pid});
      pause();
    });
    to = FileDescriptor();  // or nothing would be read for ever when it dies before
    pid_t left = 0;
    ASSERT_EQ(read(from.get(), &left, sizeof left), ssize_t{sizeof left});
    EXPECT_FALSE(isFree());
    kill(writing, SIGKILL);
    ended(writing);
    EXPECT_EQ(kill(left, 0), 0);
    EXPECT_TRUE(eventually([&] { return isFree(); })) << "a child lets go before it does anything else";
    kill(left, SIGKILL);
  }

  // Within a process, and in a child that lets go of what it took for its own.
  auto tables = service();
  writer(*tables);
  const auto locked = [&] { return LinuxPlatform::tableFiles(directory.path()).at(0).writerAlive; };
  EXPECT_THROW(writer(*service()), TableError);
  EXPECT_EQ(locked(), true);
  EXPECT_FALSE(isFree()) << "who asked has let it go";
  const auto letGo = [&] {
    const FileDescriptor other(open("/dev/null", O_RDONLY | O_CLOEXEC));  // perhaps under the lock's number
    tables.reset();
    EXPECT_EQ(fcntl(other.get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(locked(), true);
    EXPECT_THROW(writer(*service()), TableError);
  };
  EXPECT_EQ(ended(forked(letGo)), 0);
  EXPECT_FALSE(isFree());
  tables.reset();
  EXPECT_EQ(locked(), false);
  EXPECT_TRUE(isFree());
}

// Files of three pages that are cut to one.
class MappingGuardTest : public testing::Test {
 protected:
  static constexpr std::size_t pages = 3;
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  TemporaryDirectory directory;
  const FileDescriptor fd{open((directory.path() + "/file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)};

  void SetUp() override {
    ASSERT_EQ(write(fd.get(), std::string(pages * page, 'x').data(), pages * page), pages * page);
  }
  std::byte* map() const {
    return static_cast<std::byte*>(mmap(nullptr, pages * page, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0));
  }
  char touch(const std::byte* base, std::size_t at) const {
    return *reinterpret_cast<const volatile char*>(base + at * page);
  }
  void cut() const { ASSERT_EQ(ftruncate(fd.get(), static_cast<off_t>(page)), 0); }
};

TEST_F(MappingGuardTest, OnlyPagesThatAreGoneBecomeZero) {
  std::vector<std::unique_ptr<MappingGuard>> guards;
  for (unsigned i = 0; i < 2500; ++i) guards.push_back(std::make_unique<MappingGuard>(map(), pages * page, true));
  for (unsigned i = 0; i < 500; ++i) guards[i * 3].reset();
  cut();
  const auto readEvery = [&](std::size_t first) {
    for (std::size_t i = first; i < guards.size(); i += 4) {
      if (!guards[i]) continue;
      EXPECT_EQ(touch(guards[i]->base(), 0), 'x');
      EXPECT_FALSE(guards[i]->broken());
      EXPECT_EQ(touch(guards[i]->base(), 2), 0);
      EXPECT_TRUE(guards[i]->broken());
      *guards[i]->base() = *(guards[i]->base() + page) = std::byte{'x'};
    }
  };
  std::thread other([&] { readEvery(0); });
  readEvery(1);
  other.join();
  for (std::size_t i = 2; i < guards.size(); i += 4) EXPECT_FALSE(guards[i] && guards[i]->broken());
}

TEST_F(MappingGuardTest, OtherFaultsAreHandedOn) {
  const auto fault = [&] {
    const MappingGuard guard(map(), pages * page, false);
    const std::byte* unguarded = map();
    cut();
    EXPECT_EQ(touch(guard.base(), 1), 0);
    EXPECT_FALSE(testing::Test::HasFailure());
    touch(unguarded, 1);
  };
  // By the signal, or by a sanitizer's handler, which was there before ours: that ends with a status of its own.
  const auto died = [](int status) { return WIFSIGNALED(status) || WEXITSTATUS(status) > 1; };
  EXPECT_TRUE(died(ended(forked(fault))));
  EXPECT_TRUE(died(ended(forked([&] {
    const MappingGuard guard(map(), pages * page, false);
    raise(SIGBUS);
  }))));
  struct sigaction before {};
  sigaction(SIGBUS, nullptr, &before);
  const pid_t handling = forked([&] {
    std::signal(SIGBUS, [](int) { _exit(7); });
    // The handler of this process's first guard may have been installed by a test before this one.
    fault();
  });
  EXPECT_EQ(WEXITSTATUS(ended(handling)), 7);
}

// Counts what it is told, and believes it.
class Believer final : public FixedTable::Reactor {
 public:
  explicit Believer(std::shared_ptr<const FixedTable> table) : Reactor(table), table_(std::move(table)) {
    for (const auto& value : *table_) believed[value.number] = value.word;
  }
  void handleEntry(const std::uint64_t& key) override {
    believed.erase(key);
    if (const auto value = table_->route(key)) believed[key] = value->word;
  }
  std::map<std::uint64_t, std::uint64_t> believed;

 private:
  std::shared_ptr<const FixedTable> table_;
};

TEST_F(TableFileTest, AFileCutShortUnderItsUsersIsPutBackAndTold) {
  auto writing = service();
  const auto written = writer(*writing);
  for (std::uint64_t key = 0; key < 200; ++key) written->routeIs({key, key});
  const Contents model = contents(*written);
  Believer writersOwn(written);
  auto reading = service();
  Believer believer(reader(*reading));
  const auto size = std::filesystem::file_size(file());
  for (const std::uintmax_t left : {std::uintmax_t{0}, std::uintmax_t{4096}, std::uintmax_t{8 * 4096}, size - 1}) {
    SCOPED_TRACE(left);
    damage.clear();
    std::filesystem::resize_file(file(), left);
    for (const auto& [key, word] : contents(*reading->get<FixedTable>("fixed"))) EXPECT_EQ(model.at(key), word);
    for (unsigned i = 0; i < 20; ++i) settle(*reading);
    const std::size_t told = left + 4096 < size ? 1 : 0;  // nobody reads the last page's end
    EXPECT_THAT(damage, testing::Contains("its file was cut short while it was read").Times(told));
    damage.clear();
    settle(*writing);
    EXPECT_THAT(damage, testing::Contains(HasSubstr("its file was cut short; it is put back")).Times(1));
    writing->checkInvariants();
    damage.clear();
    for (auto* tables : {reading.get(), writing.get()}) settle(*tables);
    for (const auto& [key, word] : contents(*written)) EXPECT_EQ(model.at(key), word);
    EXPECT_EQ(contents(*reading->get<FixedTable>("fixed")), contents(*written));
    EXPECT_EQ(believer.believed, contents(*written));
    EXPECT_EQ(writersOwn.believed, contents(*written));
    for (std::uint64_t key = 0; key < 200; ++key) written->routeIs({key, key});
    for (auto* tables : {reading.get(), writing.get()}) settle(*tables);
    EXPECT_EQ(believer.believed, model);
    EXPECT_THAT(damage, testing::IsEmpty());
  }

  // Nobody is there to put it back, until somebody gives the file its bytes again.
  written->routeIs({200, 200});
  settle(*reading);
  writing.reset();
  std::ifstream stream(file(), std::ios::binary);
  const std::string good(std::istreambuf_iterator<char>(stream), {});
  std::filesystem::resize_file(file(), 0);
  contents(*reading->get<FixedTable>("fixed"));
  settle(*reading);
  EXPECT_THAT(damage, testing::Contains("its file was cut short while it was read").Times(1));
  EXPECT_THAT(damage, testing::Contains(HasSubstr("too short")).Times(1));
  damage.clear();
  std::fstream(file(), std::ios::binary | std::ios::in | std::ios::out) << good;
  for (unsigned i = 0; i < 20; ++i) settle(*reading);
  EXPECT_EQ(believer.believed.size(), 201U);
  EXPECT_THAT(damage, testing::IsEmpty());
}

// What a kernel gives differs; with or without, the tables are the same, and a refusal is one line for all of them.
TEST_F(TableFileTest, PagesOfTwoMebibytesAreGivenOrRefusedInALine) {
  constexpr std::uint32_t entries = 70000;  // slots alone take more than one such page
  std::string shared = "/dev/shm/routecache-test-XXXXXX";
  const bool hasShared = mkdtemp(shared.data()) != nullptr;
  for (const std::string& where : {directory.path(), hasShared ? shared : directory.path() + "/again"}) {
    SCOPED_TRACE(where);
    damage.clear();
    Contents model;
    for (unsigned goes = 0; goes < 2; ++goes) {
      SharedTableService writing(where, types), reading(where, types);
      writing.corruptionHandlerIs([this](const std::string&, const std::string& what) { damage.push_back(what); });
      writing.hugePagesAreWanted();
      const auto written = writer(writing, entries);
      const auto toldAtOnce = damage.size();
      writing.mount("other", FixedTable::typeName, MountKind::writer, CollectionInfo{"route", entries});
      for (std::uint64_t key = goes; key < entries; key += 2) {
        written->routeIs({key, key});
        writing.get<FixedTable>("other")->routeIs({key, key});
        model[key] = key;
      }
      settle(writing);
      writing.checkInvariants();
      EXPECT_EQ(contents(*reader(reading)), model);
      EXPECT_EQ(contents(*written), model);
      EXPECT_TRUE(goes > 0 || damage.size() == toldAtOnce) << "it was known when the file was made";
    }
    const auto refusals = std::count_if(damage.begin(), damage.end(), [](const std::string& line) {
      return line.starts_with("the kernel gives no pages of 2 MiB here (");
    });
    EXPECT_EQ(static_cast<std::size_t>(refusals), damage.size());
    EXPECT_LE(refusals, 2) << "one for each service";
    struct stat status {};
    EXPECT_EQ(stat((where + "/tables/fixed.table").c_str(), &status), 0);
    const bool whole = status.st_blocks >= 3 * (2 << 20) / 512;  // more than the entries take by themselves
    EXPECT_TRUE(whole || refusals > 0);
  }
  if (hasShared) std::filesystem::remove_all(shared);
}

// How a table that was much fuller gives its memory back: with values in the slots, and with values in the heap.
class TableMemoryTest : public testing::TestWithParam<std::uint32_t> {
 protected:
  static constexpr std::uint32_t capacity = 60000, kept = 10;  // one in so many

  std::unique_ptr<LinuxPlatform::TableFile> file(const std::string& path) const {
    std::filesystem::create_directories(directory.path() + "/tables");
    auto made = LinuxPlatform::TableFile::create(directory.path() + "/tables", path, layout, capacity, capacity);
    made->publish();
    return made;
  }
  TableWriter writer(const LinuxPlatform::TableFile& in) {
    return {in.image(), capacity, report, [&in](std::size_t begin, std::size_t end) { return in.reserve(begin, end); },
            [this, &in](std::size_t begin, std::size_t end) { return !refuses && in.release(begin, end); }};
  }
  // Keys lie scattered: who stays is next to others that go.
  static LinuxPlatform::KeyWords key(std::uint32_t number) { return {{Platform::hashMix(number, 0), number}}; }
  std::vector<std::byte> value(std::uint32_t number) const {
    return std::vector<std::byte>(layout.maxValueSize, static_cast<std::byte>(number * 7));
  }
  void fill(TableWriter& table, std::uint32_t step) const {
    for (std::uint32_t number = 0; number < capacity; number += step) table.write(key(number), value(number));
  }
  static void thin(TableWriter& table) {
    for (std::uint32_t number = 0; number < capacity; ++number) {
      if (number % kept != 0) table.erase(key(number));
    }
  }
  std::size_t bytesOf(const std::string& path) const {
    struct stat status {};
    EXPECT_EQ(stat((directory.path() + "/tables/" + path + ".table").c_str(), &status), 0);
    return static_cast<std::size_t>(status.st_blocks) * 512;
  }
  void expectKept(const TableWriter& table, const LinuxPlatform::TableView& view) const {
    table.checkInvariants();
    std::vector<std::byte> found(layout.maxValueSize);
    LinuxPlatform::Entry entry;
    for (std::uint32_t number = 0; number < capacity; ++number) {
      const bool there = view.find(key(number), found, entry);
      ASSERT_EQ(there, number % kept == 0) << number;
      ASSERT_TRUE(!there || found == value(number)) << number;
    }
  }

  TemporaryDirectory directory;
  const Pondra::TableLayout layout{"Test::Memory", "entry", 1, 16, GetParam(), false};
  const LinuxPlatform::DamageReport report = [](std::string_view what) { ADD_FAILURE() << what; };
  bool refuses = false;
};
INSTANTIATE_TEST_SUITE_P(Values, TableMemoryTest, testing::Values(4U, 100U));

struct Listener final : LinuxPlatform::ChangeFollower::Listener {
  void keyChanged(const LinuxPlatform::KeyWords&, std::uint64_t) override { ++told; }
  Pondra::Appetite appetite() override { return Pondra::Appetite::everything; }
  std::uint64_t told = 0;
};

TEST_P(TableMemoryTest, GoesBackToWhatTheEntriesNeedAndTellsNobody) {
  const auto peaked = file("peaked"), modest = file("modest");
  TableWriter fewer = writer(*modest);
  fill(fewer, kept);
  {
    TableWriter table = writer(*peaked);
    fill(table, 1);
    const LinuxPlatform::TableView view(peaked->image(), report);
    LinuxPlatform::ChangeFollower follower(report);
    follower.start(view);
    const auto deliver = [&] {
      Listener listener;
      follower.deliver(listener);
      return listener.told;
    };
    EXPECT_FALSE(table.isSparse());
    thin(table);
    EXPECT_EQ(deliver(), capacity - capacity / kept);
    ASSERT_TRUE(table.isSparse());
    while (!table.giveMemoryBack(64)) EXPECT_EQ(deliver(), 0U);
    EXPECT_FALSE(table.isSparse());
    EXPECT_EQ(deliver(), 0U);
    EXPECT_FALSE(follower.pending());
    EXPECT_TRUE(follower.takeForgotten());
    EXPECT_LT(bytesOf("peaked"), bytesOf("modest") * 11 / 10);
    expectKept(table, view);

    thin(table);  // nothing is there to go
    for (std::uint32_t number = 0; number < capacity; number += kept) table.erase(key(number));
    EXPECT_EQ(deliver(), capacity / kept) << "who moved is known where it is now";
    fill(table, kept);
    deliver();
  }
  TableWriter next = writer(*peaked);
  while (!next.verify(1000)) {
  }
  expectKept(next, LinuxPlatform::TableView(peaked->image(), report));
}

TEST_P(TableMemoryTest, StaysWhereTheFilesystemTakesNoneBack) {
  const auto only = file("only");
  TableWriter table = writer(*only);
  fill(table, 1);
  thin(table);
  refuses = true;
  while (!table.giveMemoryBack(1000)) {
  }
  EXPECT_FALSE(table.isSparse()) << "it is not tried again and again";
  expectKept(table, LinuxPlatform::TableView(only->image(), report));
}

// A disk of one megabyte, in a namespace of this child's own. False: nobody may have one here.
bool mountSmallDisk(const std::string& directory) {
  const auto writeTo = [](const char* name, const std::string& text) { std::ofstream(name) << text; };
  const std::string user = std::to_string(geteuid()), group = std::to_string(getegid());
  if (unshare(CLONE_NEWNS) != 0) {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    writeTo("/proc/self/setgroups", "deny");
    writeTo("/proc/self/uid_map", user + " " + user + " 1");
    writeTo("/proc/self/gid_map", group + " " + group + " 1");
  }
  return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("none", directory.c_str(), "tmpfs", 0, "size=1m,mode=0750") == 0;
}

TEST_F(TableFileTest, AFullDiskIsARefusalAndNothingElse) {
  constexpr int noDisk = 77;
  const int status = ended(forked([&] {
    if (!mountSmallDisk(directory.path())) _exit(noDisk);
    auto writing = service();
    try {
      writer(*writing, 100000);
      ADD_FAILURE() << "more than there is room for";
    } catch (const TableError& error) {
      EXPECT_STREQ(error.what(),
                   ("fixed mount: no space left on " + directory.path() + "/tables for the table").c_str());
    }
    const std::filesystem::directory_iterator files(directory.path() + "/tables");
    for (const auto& left : files) EXPECT_EQ(left.path().extension(), ".lock");

    auto written = writer(*writing);
    for (std::uint64_t key = 0; key < 10; ++key) written->routeIs({key, key});
    auto reading = service();
    const auto read = reader(*reading);
    std::ofstream filler(directory.path() + "/filler");
    while (filler << std::string(4096, 'f') << std::flush) {
    }
    for (std::uint64_t key = 1000; key < 2000; ++key) EXPECT_FALSE(read->has(key));  // into pages never used
    for (std::uint64_t key = 0; key < capacity; ++key) written->routeIs({key, key});
    EXPECT_THROW(written->routeIs({capacity, 1}), TableError);
    EXPECT_THAT(damage, testing::IsEmpty());
    EXPECT_EQ(contents(*read).size(), capacity);
    written.reset(), writing.reset();
    writing = service();
    written = writer(*writing);
    writing->checkInvariants();
    EXPECT_EQ(contents(*written).size(), capacity);
    EXPECT_EQ(contents(*read), contents(*written));
    written.reset(), writing.reset();
    EXPECT_THROW(writer(*service(), 2 * capacity), TableError) << "no room for the larger one";
    EXPECT_EQ(contents(*writer(*service())), contents(*read)) << "and the other stays what it was";
    EXPECT_THAT(damage, testing::IsEmpty());
  }));
  if (WIFEXITED(status) && WEXITSTATUS(status) == noDisk) GTEST_SKIP() << "no disk may be mounted here";
  EXPECT_EQ(status, 0);
}

}  // namespace
