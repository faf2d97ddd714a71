// A run directory beside other users of the machine, and beside what is no file.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "linux/files/OwnFiles.h"
#include "linux/files/RunDirectory.h"
#include "linux/tables/SharedTableService.h"
#include "test/support/Content.h"
#include "test/support/OtherUser.h"
#include "test/support/TemporaryDirectory.h"
#include "test/support/TestTables.h"

using LinuxPlatform::FileDescriptor;
using LinuxPlatform::RunDirectory;
using LinuxPlatform::SharedTableService;
using Pondra::CollectionInfo;
using Pondra::MountKind;
using testing::HasSubstr;
using TestTables::FixedTable;

namespace fs = std::filesystem;

namespace {

class OwnFilesTest : public testing::Test {
 protected:
  static std::shared_ptr<FixedTable> mount(SharedTableService& service, MountKind kind) {
    const bool writes = kind == MountKind::writer;
    service.mount("fixed", FixedTable::typeName, kind,
                  writes ? std::optional(CollectionInfo{"route", 100}) : std::nullopt);
    return service.get<FixedTable>("fixed");
  }
  // Why somebody who wants this is refused; empty when he is not.
  static std::string refusal(const std::function<void()>& attempt) {
    try {
      attempt();
      return "";
    } catch (const std::exception& error) {
      return error.what();
    }
  }
  std::string refusalOfMount(MountKind kind) const {
    return refusal([&] {
      SharedTableService service(runDir, types);
      mount(service, kind);
    });
  }
  std::string refusalOfAgent() const {
    return refusal([&] { const RunDirectory agent(runDir); });
  }
  static mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }

  const Platform::TableTypes types = TestTables::types();
  const TemporaryDirectory directory;
  const std::string runDir = directory.path() + "/run";
  const std::string tables = runDir + "/tables";
  const std::string table = tables + "/fixed.table";
  const std::string lock = tables + "/fixed.lock";
};

TEST_F(OwnFilesTest, OthersOfTheGroupReadAndNobodyElseDoesAnything) {
  SKIP_UNLESS_ROOT();
  const mode_t before = umask(022);
  ASSERT_EQ(chmod(directory.path().c_str(), 0755), 0);
  {  // of a predecessor that let everybody in
    SharedTableService old(runDir, types);
    mount(old, MountKind::writer)->routeIs({1, 7});
    ASSERT_EQ(chmod(table.c_str(), 0666), 0);
    ASSERT_EQ(chmod(lock.c_str(), 0644), 0);
  }
  const RunDirectory agent(runDir);
  SharedTableService writing(runDir, types);
  const auto written = mount(writing, MountKind::writer);
  EXPECT_EQ(modeOf(runDir), 0750U);
  EXPECT_EQ(modeOf(tables), 0750U);
  EXPECT_EQ(modeOf(table), 0640U);
  EXPECT_EQ(modeOf(lock), 0600U);
  EXPECT_EQ(modeOf(runDir + "/agent.lock"), 0600U);

  {
    const OtherUser member(getegid());
    SharedTableService reading(runDir, types);
    const auto read = mount(reading, MountKind::reader);
    ASSERT_TRUE(read->route(1));
    EXPECT_EQ(read->route(1)->word, 7U);
    const auto listed = LinuxPlatform::tableFiles(runDir).at(0);
    EXPECT_EQ(listed.size, 1U);
    EXPECT_EQ(listed.writerAlive, std::nullopt) << "it has no business with the lock";
    EXPECT_LT(open(lock.c_str(), O_RDONLY), 0);
    EXPECT_LT(open((runDir + "/agent.lock").c_str(), O_RDONLY), 0);
    EXPECT_LT(open(table.c_str(), O_RDWR), 0);
    EXPECT_THAT(refusalOfMount(MountKind::writer), HasSubstr("it belongs to user 0, not to this one (65534)"));
  }
  {
    const OtherUser stranger(OtherUser::id);
    EXPECT_LT(open(runDir.c_str(), O_RDONLY), 0);
    EXPECT_THAT(refusal([&] { LinuxPlatform::tableFiles(runDir); }), HasSubstr("Permission denied"))
        << "no tables is another answer";
  }
  EXPECT_EQ(LinuxPlatform::tableFiles(runDir).at(0).writerAlive, true);
  umask(before);
}

TEST_F(OwnFilesTest, ADirectoryThatOthersControlIsRefused) {
  const auto bothRefuse = [&](const std::string& reason) {
    EXPECT_THAT(refusalOfAgent(), HasSubstr(runDir + reason));
    EXPECT_THAT(refusalOfMount(MountKind::writer), HasSubstr(runDir + reason));
    fs::remove_all(runDir);
  };
  fs::create_directory(directory.path() + "/victim");
  fs::create_directory_symlink(directory.path() + "/victim", runDir);
  EXPECT_THAT(refusal([&] { const RunDirectory agent(runDir + "/"); }), HasSubstr("a symbolic link"));
  bothRefuse(": it is a symbolic link, not a directory");
  EXPECT_TRUE(fs::is_empty(directory.path() + "/victim"));
  const auto file = std::ofstream(runDir);
  bothRefuse(": it is a file, not a directory");
  for (const mode_t mode : {01777u, 0770u}) {
    fs::create_directory(runDir);
    chmod(runDir.c_str(), mode);
    bothRefuse(": others may write into it");
  }
  fs::create_directory(runDir);
  fs::create_directory_symlink(directory.path() + "/victim", tables);
  EXPECT_THAT(refusalOfMount(MountKind::reader), HasSubstr("tables: it is a symbolic link"));
  fs::remove_all(runDir);
  SKIP_UNLESS_ROOT();
  fs::create_directory(runDir);
  ASSERT_EQ(chown(runDir.c_str(), OtherUser::id, OtherUser::id), 0);
  bothRefuse(": it belongs to user 65534, not to this one (0)");
}

// Whatever stands where a file should be: nobody waits for it, follows it or writes into it.
TEST_F(OwnFilesTest, WhatIsNoFileIsRefusedInALine) {
  const std::string victim = directory.path() + "/victim";
  std::ofstream(victim) << "precious";
  const struct {
    const char* what;
    std::function<void(const std::string&)> make;
  } kinds[] = {
      {"a symbolic link", [&](const std::string& at) { fs::create_symlink(victim, at); }},
      {"a directory", [](const std::string& at) { fs::create_directory(at); }},
      {"a FIFO", [&](const std::string& at) { ASSERT_EQ(mkfifo(at.c_str(), 0600), 0); }},
  };
  for (const auto& kind : kinds) {
    SCOPED_TRACE(kind.what);
    const auto expected = HasSubstr(std::string(": it is ") + kind.what + ", not a file");
    const auto fresh = [&](const std::string& at) {
      fs::remove_all(runDir);
      fs::create_directories(tables);
      kind.make(at);
      // With somebody at a FIFO's other end whoever waits for one is not stuck: the test fails instead.
      const bool fifo = kind.what == std::string("a FIFO");
      return FileDescriptor(fifo ? open(at.c_str(), O_RDWR | O_NONBLOCK) : -1);
    };
    {
      const auto end = fresh(table);
      EXPECT_THAT(refusalOfMount(MountKind::reader), expected);
      EXPECT_THAT(refusalOfMount(MountKind::writer), expected);
      EXPECT_THAT(LinuxPlatform::tableFiles(runDir).at(0).fault, expected);
    }
    {
      const auto end = fresh(lock);
      EXPECT_THAT(refusalOfMount(MountKind::writer), expected);
    }
    {
      const auto end = fresh(runDir + "/agent.lock");
      EXPECT_THAT(refusalOfAgent(), expected);
    }
    {
      const auto end = fresh(tables + "/fixed.new");
      if (kind.what == std::string("a directory")) {
        EXPECT_THAT(refusalOfMount(MountKind::writer), expected);
      } else {
        EXPECT_EQ(refusalOfMount(MountKind::writer), "") << "it has to go: the name is the writer's own";
      }
    }
  }
  EXPECT_EQ(contentOf(victim), "precious");
}

TEST_F(OwnFilesTest, ALockNamesOnlyWhoLives) {
  const RunDirectory agent(runDir);
  EXPECT_THAT(refusalOfAgent(), HasSubstr("another agent runs in this directory (process " + std::to_string(getpid())));
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  for (const std::string& content : {std::to_string(dead) + "\n", std::string("nonsense"), std::string()}) {
    std::ofstream(runDir + "/agent.lock") << content;
    EXPECT_THAT(refusalOfAgent(), testing::EndsWith("another agent runs in this directory"));
  }
}

// The default directory is under /tmp where there is no better place, and under a name that anybody can take first.
TEST_F(OwnFilesTest, ADefaultDirectoryThatSomebodyTookIsRefusedToReadersToo) {
  SKIP_UNLESS_ROOT();
  if (fs::exists("/run/routecache")) GTEST_SKIP() << "the default is there";
  const auto user = static_cast<uid_t>(100'000 + getpid());  // nobody else's name
  const std::string taken = "/tmp/routecache-" + std::to_string(user);
  fs::create_directory_symlink(directory.path(), taken);
  const std::string said = directory.path() + "/said";
  const pid_t child = fork();
  if (child == 0) {
    const int out = open(said.c_str(), O_WRONLY | O_CREAT, 0644);
    dup2(out, STDERR_FILENO);
    unsetenv("ROUTECACHE_RUN_DIR");
    unsetenv("XDG_RUNTIME_DIR");
    if (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0) _exit(77);
    execl(ROUTECACHE_COMMAND, ROUTECACHE_COMMAND, "table", "list", nullptr);
    _exit(77);
  }
  int status = 0;
  waitpid(child, &status, 0);
  fs::remove(taken);
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no other user can start the command here";
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(contentOf(said), "routecache: " + taken + ": it is a symbolic link, not a directory\n");
}

}  // namespace
