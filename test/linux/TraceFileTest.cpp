#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "lib/trace/TextTraceFacility.h"
#include "linux/files/TraceFile.h"
#include "test/support/Content.h"
#include "test/support/TemporaryDirectory.h"

using LinuxPlatform::FileTraceFacility;
using LinuxPlatform::readTrace;
using Platform::FastTraceSettings;
using Platform::TraceHandle;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class TraceFileTest : public testing::Test {
 protected:
  TraceFileTest() {
    facility.levels().defaultIs(9);
    settings.fileName = "agent-%d.zph";
    settings.bufferSize.fill(64);
  }

  std::vector<std::string> texts(unsigned maxLevel = 9) const {
    std::vector<std::string> all;
    for (const auto& line : readTrace(facility.fileName(), vocabulary, maxLevel)) {
      all.push_back(std::to_string(line.level) + " " + line.handle + ": " + line.text);
    }
    return all;
  }

  const TemporaryDirectory temporary;
  const std::string& directory = temporary.path();
  FileTraceFacility facility{directory};
  FastTraceSettings settings;
  Platform::TraceVocabulary vocabulary;
};

TEST_F(TraceFileTest, LevelsAreMergedInTheOrderOfTheirRecords) {
  ASSERT_TRUE(facility.fastTraceInit(settings));
  EXPECT_EQ(facility.fileName(), directory + "/agent-" + std::to_string(getpid()) + ".zph");
  TraceHandle sw(facility, "RouteCacheSwRouteSm");
  TraceHandle vrf(facility, "RouteCacheVrfSm");
  sw(9, "void handleRoute(const RouteKey&)");
  vrf(1, "vrf ", std::string("red"), " id ", 7U, " up ", true);
  sw(5, "prefix ", Prefix(IpAddr(0x0A000000), 8), " in ", 2.5, " for ", -3);
  EXPECT_THAT(texts(), ElementsAre("9 RouteCacheSwRouteSm: void handleRoute(const RouteKey&)",
                                   "1 RouteCacheVrfSm: vrf red id 7 up true",
                                   "5 RouteCacheSwRouteSm: prefix 10.0.0.0/8 in 2.5 for -3"));
  EXPECT_THAT(texts(1), ElementsAre("1 RouteCacheVrfSm: vrf red id 7 up true"));
}

TEST_F(TraceFileTest, FullRingKeepsTheNewestAndAQuietLevelKeepsItsOwn) {
  settings.bufferSize[5] = 4;
  ASSERT_TRUE(facility.fastTraceInit(settings));
  TraceHandle trace(facility, "Sm");
  trace(0, "once");
  std::minstd_rand random(1);
  for (unsigned i = 0; i < 5000; ++i) {
    trace(5, "run ", i, std::string(random() % 100, 'x'));
    if (i % 97 != 0) continue;
    const auto lines = readTrace(facility.fileName(), vocabulary);
    ASSERT_EQ(lines.front().text, "once");
    // No gap, no damage, and most of the ring is there.
    for (std::size_t line = 1; line < lines.size(); ++line) {
      ASSERT_THAT(lines[line].text, HasSubstr("run " + std::to_string(i + 1 + line - lines.size())));
    }
    ASSERT_TRUE(i < 100 || lines.size() > 20) << lines.size();
  }
}

TEST_F(TraceFileTest, RingThatDoesNotOverwriteKeepsTheOldest) {
  settings.bufferSize[5] = 1;
  settings.overwrite = false;
  ASSERT_TRUE(facility.fastTraceInit(settings));
  TraceHandle trace(facility, "Sm");
  for (unsigned i = 0; i < 1000; ++i) trace(5, i);
  EXPECT_EQ(readTrace(facility.fileName(), vocabulary).front().sequence, 0U);
}

TEST_F(TraceFileTest, LimitsCutARecordAtAWholeItem) {
  settings.maxArguments = 2;
  settings.maxRecordSize = 64;
  ASSERT_TRUE(facility.fastTraceInit(settings));
  TraceHandle trace(facility, "Sm");
  trace(1, "a", "b", "c");
  trace(1, "a", std::string(200, 'x'));
  EXPECT_THAT(texts(), ElementsAre("1 Sm: ab", "1 Sm: a"));
}

TEST_F(TraceFileTest, TraceOutlivesAKilledWriter) {
  settings.fileName = directory + "/killed.zph";
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!facility.fastTraceInit(settings)) _exit(1);
    TraceHandle trace(facility, "Sm");
    for (unsigned i = 0;; ++i) {
      trace(i % 10, "step ", i);
      if (i == 100'000) {
        const auto ready = std::ofstream(directory + "/ready");
      }
    }
  }
  while (!std::filesystem::exists(directory + "/ready")) {
    ASSERT_EQ(waitpid(child, nullptr, WNOHANG), 0) << "the writer has ended";
    usleep(1000);
  }
  for (int i = 0; i < 20; ++i) {  // of a file that is being written, too
    const auto live = readTrace(settings.fileName, vocabulary);
    for (const auto& line : live) ASSERT_EQ(line.text, "step " + std::to_string(line.sequence));
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  const auto lines = readTrace(settings.fileName, vocabulary);
  ASSERT_GT(lines.size(), 5000U);
  for (const auto& line : lines) {
    ASSERT_EQ(line.text, "step " + std::to_string(line.sequence));
    ASSERT_EQ(line.level, line.sequence % 10);
  }
  // The newest of all levels are there, to the last.
  for (std::size_t i = lines.size() - 100; i + 1 < lines.size(); ++i) {
    ASSERT_EQ(lines[i].sequence + 1, lines[i + 1].sequence);
  }
}

TEST_F(TraceFileTest, FileOfTheSameNameIsKeptOnce) {
  settings.fileName = "agent.zph";
  for (const int life : {1, 2}) {
    FileTraceFacility another{directory};
    another.levels().defaultIs(9);
    ASSERT_TRUE(another.fastTraceInit(settings));
    TraceHandle(another, "Sm")(0, "life ", life);
  }
  EXPECT_EQ(readTrace(directory + "/agent.zph.old", vocabulary).at(0).text, "life 1");
  EXPECT_EQ(readTrace(directory + "/agent.zph", vocabulary).at(0).text, "life 2");
}

TEST_F(TraceFileTest, WithoutAFileTheAgentLivesOnAndTheFileGetsWhatCameBefore) {
  TraceHandle trace(facility, "Sm");
  trace(9, "void doInit()");
  settings.fileName = "/no/such/directory/x.zph";
  EXPECT_FALSE(facility.fastTraceInit(settings));
  for (unsigned i = 1; i < FileTraceFacility::maxEarly + 3; ++i) trace(1, "early ", i);
  settings.fileName = "agent.zph";
  ASSERT_TRUE(facility.fastTraceInit(settings));
  trace(2, "late");
  const auto lines = texts();
  ASSERT_EQ(lines.size(), FileTraceFacility::maxEarly + 1);
  EXPECT_EQ(lines.front(), "9 Sm: void doInit()");
  EXPECT_EQ(lines[FileTraceFacility::maxEarly - 1], "1 Sm: early " + std::to_string(FileTraceFacility::maxEarly - 1));
  EXPECT_EQ(lines.back(), "2 Sm: late");
}

TEST_F(TraceFileTest, AStepOfTheSystemsClockMovesAllRecordsTogether) {
  constexpr std::uint64_t second = 1'000'000'000;
  static std::uint64_t monotonic, wall;
  monotonic = 50 * second;
  wall = 1000 * second;  // the machine has just started and believes that it is 1970
  FileTraceFacility stepped(directory, {[] { return monotonic; }, [] { return wall; }});
  ASSERT_TRUE(stepped.fastTraceInit(settings));
  TraceHandle trace(stepped, "Sm");
  const auto times = [&] {
    std::vector<std::uint64_t> all;
    for (const auto& line : readTrace(stepped.fileName(), vocabulary)) all.push_back(line.time / second);
    return all;
  };
  trace(0, "before");
  EXPECT_THAT(times(), ElementsAre(1000));
  monotonic += 2 * second;
  wall = 1'700'000'000 * second;
  trace(0, "after");
  EXPECT_THAT(times(), ElementsAre(1'699'999'998, 1'700'000'000));
  monotonic += 5 * second;
  wall -= 3600 * second;  // back
  trace(0, "back");
  EXPECT_THAT(times(), ElementsAre(1'699'996'393, 1'699'996'395, 1'699'996'400));
}

TEST_F(TraceFileTest, DamagedFilesAreRefusedOrReadAsFarAsTheyGo) {
  settings.bufferSize[5] = 4;  // full of records of one length: each leads to the one before it, round and round
  ASSERT_TRUE(facility.fastTraceInit(settings));
  TraceHandle trace(facility, "Sm");
  for (unsigned i = 0; i < 3000; ++i) trace(i % 10, "step ", i, std::string("text"));
  const std::string good = contentOf(facility.fileName());
  const std::string name = directory + "/damaged.zph";
  const auto read = [&](const std::string& bytes) {
    std::ofstream(name, std::ios::binary) << bytes;
    try {
      readTrace(name, vocabulary);
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr(name));
    }
  };
  read("");
  read(good.substr(0, 100));
  read(good.substr(0, good.size() / 2));
  for (unsigned seed = 0; seed < 200; ++seed) {
    std::mt19937 random(seed);
    std::string bytes = good;
    const std::size_t end = seed % 2 == 0 ? 400 : bytes.size();  // the header, or anywhere
    for (int i = 0; i < 50; ++i) bytes[8 + random() % (end - 8)] = static_cast<char>(random());
    read(bytes);
  }
  // A ring that claims to have been written for ever, and never overwritten: read once round.
  std::string endless = good;
  LinuxPlatform::TraceFileHeader header{};
  std::memcpy(&header, endless.data(), sizeof header);
  header.overwrites = 0;
  header.rings[5].written += header.rings[5].size << 30;
  std::memcpy(endless.data(), &header, sizeof header);
  read(endless);
  EXPECT_THROW(readTrace(directory, vocabulary), std::runtime_error);
  EXPECT_THROW(readTrace(directory + "/none", vocabulary), std::runtime_error);
}

TEST(TraceLevelsTest, OptionsAreForAllOrOneHandle) {
  LinuxPlatform::TextTraceFacility facility(0);
  facility.levels().optionIs("2");
  facility.levels().optionIs("Vrf=9");
  facility.levels().optionIs("Cli=-1");
  EXPECT_EQ(TraceHandle(facility, "Sw").level(), 2);
  EXPECT_EQ(TraceHandle(facility, "Vrf").level(), 9);
  EXPECT_EQ(TraceHandle(facility, "Cli").level(), -1);
  for (const char* bad : {"", "ten", "10", "-2", "Vrf=", "=3", "Vrf=x"}) {
    EXPECT_THROW(facility.levels().optionIs(bad), Platform::BadText) << bad;
  }
}

}  // namespace
