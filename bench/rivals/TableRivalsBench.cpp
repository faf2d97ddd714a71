// One shared table against what else could hold a million routes: LMDB and Abseil's maps, in the same run. This process
// writes, others read and follow. bench/README.md says what the figures mean.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bench/harness/BenchProgram.h"
#include "bench/harness/ChildProcess.h"
#include "bench/harness/Pings.h"
#include "bench/harness/Tables.h"
#include "bench/harness/WorkFigures.h"
#include "bench/rivals/RivalReader.h"
#include "bench/rivals/RivalWorks.h"
#include "linux/loop/EventLoop.h"

namespace Bench {

namespace {

using nlohmann::json;

struct Options : BenchOptions {
  std::uint32_t routes = 1'200'000;
};

constexpr double million = 1e6;

// Bytes that the file takes on its filesystem.
double bytesOf(const std::string& file) {
  struct stat status {};
  require(::stat(file.c_str(), &status) == 0, "the table's file is there");
  constexpr double block = 512;
  return block * static_cast<double>(status.st_blocks);
}
std::string tableFile(const std::string& directory, const char* path) {
  return directory + "/tables/" + LinuxPlatform::tableFileName(path) + ".table";
}

class Measurement {
 public:
  explicit Measurement(const Options& options)
      : options_(options),
        routes_(options.routes),
        rawShuffled_(rawRoutes<5>(routes_.shuffled)),
        rawOrdered_(rawRoutes<5>(routes_.ordered)),
        rawChanged_(rawRoutes<5>(routes_.changed)),
        rawKeys_(rawKeys(routes_.keys)) {}

  const Figures& figures() const { return figures_; }
  void run() {
    loadedAtRandom();
    loadedInOrder();
    watched();
  }

 private:
  ChildProcess child(const char* mode, const BenchDirectory& directory) const {
    return ChildProcess({mode, "--dir", directory.path(), "--routes", std::to_string(options_.routes)});
  }
  void add(const std::string& phase, const json& figures) {
    for (const auto& [name, value] : figures.items()) figures_.add(phase, name, value);
  }
  void raced(const char* phase, const std::vector<Contender>& contenders) {
    add(phase, race(phase, routes_.keys.size(), Goes::once, contenders));
  }
  void read(const char* phase, ChildProcess& reader) { add(phase, reader.ask(std::string("read ") + phase)); }

  void loadedAtRandom();
  void loadedInOrder();
  void weigh(const BenchDirectory& directory);
  template <class Store>
  void readWhileWritten(const char* phase, const char* spun, ChildProcess& reader, Store& store);
  void watched();
  void follow(const BenchDirectory& directory, TypedStore& followed, TypedStore& other, Tables& tables);
  void notify(const BenchDirectory& directory, TypedStore& store, Tables& tables);
  void takeOver(const char* phase, const BenchDirectory& directory);

  const Options& options_;
  RivalRoutes routes_;
  std::vector<RawRoute<5>> rawShuffled_, rawOrdered_, rawChanged_;
  std::vector<RawStore<5>::Key> rawKeys_;
  Figures figures_;
};

// --- Loaded at random, read, replaced, erased ------------------------------------------------------------------------

void Measurement::loadedAtRandom() {
  const BenchDirectory directory(options_.directory);
  Tables tables(directory.path());
  TypedStore typed(tables.writer<TypedStore::Table>(TypedStore::path, options_.routes));
  RawStore<5> raw(directory.path(), rawPath, options_.routes);
  LmdbRoutes lmdb(directory.path());
  BtreeRoutes btree;
  HashRoutes hash;
  raced("insert at random", {{"table", [&] { return putAll(typed, routes_.shuffled); }},
                             {"raw", [&] { return putAll(raw, rawShuffled_); }},
                             {"B-tree", [&] { return putAll(btree, routes_.shuffled); }},
                             {"hash map", [&] { return putAll(hash, routes_.shuffled); }},
                             {"LMDB", [&] { return putAll(lmdb, routes_.shuffled); }}});
  weigh(directory);
  {
    ChildProcess reader = child("reader", directory);
    reader.ask("load shuffled");
    for (const char* phase : {"hit", "dependent hit", "miss", "hit, groups of 16", "lower bound, there",
                              "lower bound, absent", "walk, loaded at random"}) {
      read(phase, reader);
    }
    const double followed = reader.ask("follow")["seconds"];
    figures_.add("begin to follow", "table", followed * million / options_.routes);
    readWhileWritten("beside a reader", "table", reader, typed);
    readWhileWritten("beside a reader, LMDB", "LMDB", reader, lmdb);
    reader.wait();
  }
  raced("replace at random", {{"table", [&] { return putAll(typed, routes_.changed); }},
                              {"raw", [&] { return putAll(raw, rawChanged_); }},
                              {"B-tree", [&] { return putAll(btree, routes_.changed); }},
                              {"hash map", [&] { return putAll(hash, routes_.changed); }},
                              {"LMDB", [&] { return putAll(lmdb, routes_.changed); }}});
  raced("erase at random", {{"table", [&] { return eraseAll(typed, routes_.keys); }},
                            {"raw", [&] { return eraseAll(raw, rawKeys_); }},
                            {"B-tree", [&] { return eraseAll(btree, routes_.keys); }},
                            {"hash map", [&] { return eraseAll(hash, routes_.keys); }},
                            {"LMDB", [&] { return eraseAll(lmdb, routes_.keys); }}});
}

void Measurement::weigh(const BenchDirectory& directory) {
  constexpr const char* widePath = "bench/wide";
  RawStore<20> wide(directory.path(), widePath, options_.routes);
  putAll(wide, rawRoutes<20>(routes_.shuffled));
  const auto perEntry = [&](const std::string& file) { return bytesOf(file) / options_.routes; };
  add("bytes an entry", {{"5", perEntry(tableFile(directory.path(), TypedStore::path))},
                         {"20", perEntry(tableFile(directory.path(), widePath))},
                         {"LMDB, 5", perEntry(directory.path() + "/data.mdb")}});
}

// What a write costs while another process looks up at full speed, and while none does.
template <class Store>
void Measurement::readWhileWritten(const char* phase, const char* spun, ChildProcess& reader, Store& store) {
  const auto write = [&] { return putAll(store, routes_.shuffled); };
  for (unsigned turn = 0; turn < 3; ++turn) {
    add(phase, race(phase, options_.routes, Goes::once, {{"alone", write}}));
    reader.tell(std::string("spin ") + spun);
    add(phase, race(phase, options_.routes, Goes::once, {{"beside", write}}));
    require(reader.ask("enough")["found"] > 0, "the reader has read");
  }
}

void Measurement::loadedInOrder() {
  const BenchDirectory directory(options_.directory);
  Tables tables(directory.path());
  TypedStore typed(tables.writer<TypedStore::Table>(TypedStore::path, options_.routes));
  RawStore<5> raw(directory.path(), rawPath, options_.routes);
  LmdbRoutes lmdb(directory.path());
  BtreeRoutes btree;
  raced("insert in order", {{"table", [&] { return putAll(typed, routes_.ordered); }},
                            {"raw", [&] { return putAll(raw, rawOrdered_); }},
                            {"B-tree", [&] { return putAll(btree, routes_.ordered); }},
                            {"LMDB", [&] { return putAll(lmdb, routes_.ordered); }}});
  ChildProcess reader = child("reader", directory);
  reader.ask("load ordered");
  read("walk, loaded in order", reader);
  reader.wait();
}

// --- Followed, taken over --------------------------------------------------------------------------------------------

void Measurement::watched() {
  const BenchDirectory directory(options_.directory);
  {
    Tables tables(directory.path());
    TypedStore followed(tables.writer<TypedStore::Table>(TypedStore::path, options_.routes));
    TypedStore other(tables.writer<TypedStore::Table>("bench/other", options_.routes));
    putAll(followed, routes_.shuffled);
    putAll(other, routes_.shuffled);
    tables.service().flush();
    follow(directory, followed, other, tables);
    notify(directory, followed, tables);
  }
  takeOver("take-over, agreeing", directory);
  // As if the writer had died while it rebuilt the index.
  LinuxPlatform::TableState state{};
  const int fd = ::open(tableFile(directory.path(), TypedStore::path).c_str(), O_RDWR | O_CLOEXEC);
  const auto at = static_cast<off_t>(LinuxPlatform::tableStateOffset);
  require(::pread(fd, &state, sizeof state, at) == sizeof state, "the table's state is read");
  state.epoch = LinuxPlatform::checkedWord(LinuxPlatform::numberIn(state.epoch) | 1);
  require(::pwrite(fd, &state, sizeof state, at) == sizeof state, "the table's state is written");
  ::close(fd);
  takeOver("take-over, rebuilt", directory);
}

// What a write costs in a table that another process follows at full speed, and in one that nobody follows.
void Measurement::follow(const BenchDirectory& directory, TypedStore& followed, TypedStore& other, Tables& tables) {
  constexpr const char* phase = "beside a follower";
  ChildProcess follower = child("follower", directory);
  std::uint64_t heard = follower.ask("report")["heard"];
  const auto write = [&](TypedStore& store) {
    putAll(store, routes_.changed);
    tables.service().flush();
    return 0;
  };
  for (unsigned turn = 0; turn < 3; ++turn) {
    add(phase, race(phase, options_.routes, Goes::once, {{"alone", [&] { return write(other); }}}));
    follower.tell("serve");
    add(phase, race(phase, options_.routes, Goes::once, {{"beside", [&] { return write(followed); }}}));
    const std::uint64_t now = follower.ask("enough")["heard"];
    require(now - heard >= options_.routes, "the follower hears of every route that changed");
    heard = now;
  }
  follower.wait();
}

// From a write to the reactor's call in another process that had nothing to do, and the same for an eventfd.
void Measurement::notify(const BenchDirectory& directory, TypedStore& store, Tables& tables) {
  const unsigned samples = std::clamp(options_.routes / 1000, 20U, 1000U);
  ChildProcess follower = child("follower", directory);
  const Processors processors;
  Pings pings(directory.path(), 1, processors);
  processors.runOnLast(follower.pid());
  processors.runOnFirst();
  Stamp stamp(directory.path());
  std::vector<double> notified, woken;
  follower.ask("report");
  follower.tell("serve");
  for (unsigned i = 0; i < samples; ++i) {
    woken.push_back(1e6 * stamp.secondsUntilHeard([&] { pings.ping(); }));
    notified.push_back(1e6 * stamp.secondsUntilHeard([&] {
      store.put(routes_.changed[i]);
      tables.service().flush();
    }));
  }
  require(follower.ask("enough")["heard"] >= samples, "the follower hears of every change");
  follower.wait();
  std::ranges::sort(notified);
  std::ranges::sort(woken);
  add("write to notified reader", {{"table", medianOf(notified)}, {"eventfd ping", medianOf(woken)}});
}

// In the slices of an event loop. The figures are milliseconds of processor time; of the whole, for a million entries.
void Measurement::takeOver(const char* phase, const BenchDirectory& directory) {
  Tables tables(directory.path());
  tables.service().corruptionHandlerIs([](const std::string&, const std::string&) {});
  const Stopwatch whole;
  double longest = 0;
  const auto slice = [&longest](const auto& work) {
    const Stopwatch stopwatch;
    const bool done = work([&] { return stopwatch.seconds() > LinuxPlatform::EventLoop::defaultTimeSlice; });
    longest = std::max(longest, stopwatch.cpuSeconds());
    return done;
  };
  std::shared_ptr<TypedStore::Table> table;
  slice([&](const auto&) {
    table = tables.writer<TypedStore::Table>(TypedStore::path, options_.routes);
    return true;
  });
  while (!slice([&](const auto& shouldYield) { return tables.service().deliverChanges(shouldYield); })) {
  }
  require(table->size() == options_.routes, "the table is taken over with all routes");
  add(phase, {{"whole", whole.cpuSeconds() * 1e3 * million / options_.routes}, {"longest slice", 1e3 * longest}});
}

// --- What is printed -------------------------------------------------------------------------------------------------

constexpr double typedLayer = 1.3;
constexpr double beside = 1.1;
constexpr Bar bars[] = {
    {"hit", "table", "B-tree", 0.35},
    {"hit", "table", "hash map", 4},
    {"dependent hit", "table", "hash map", 2.2},
    {"miss", "table", "hash map", 3},
    {"hit, groups of 16", "table", "hash map", 4},
    {"insert at random", "table", "B-tree", 1},
    {"insert at random", "table", "LMDB", 0.4},
    {"insert in order", "table", "LMDB", 1.2},
    {"replace at random", "table", "B-tree", 0.35},
    {"erase at random", "table", "B-tree", 1},
    {"walk, loaded at random", "table", "LMDB", 5},
    {"walk, loaded in order", "table", "LMDB", 3},
    {"lower bound, there", "table", "B-tree", 0.5},
    {"lower bound, absent", "table", "B-tree", 1.6},
    {"write to notified reader", "table", "eventfd ping", 1.5, "us"},
    {"beside a reader", "beside", "alone", beside},
    {"beside a follower", "beside", "alone", beside},
    {"bytes an entry", "5", nullptr, 65, "bytes"},
    {"bytes an entry", "20", nullptr, 100, "bytes"},
    {"take-over, agreeing", "whole", nullptr, 100, "ms"},
    {"take-over, agreeing", "longest slice", nullptr, 5, "ms"},
    {"take-over, rebuilt", "whole", nullptr, 300, "ms"},
    {"take-over, rebuilt", "longest slice", nullptr, 5, "ms"},
    {"hit", "table", "raw", typedLayer},
    {"dependent hit", "table", "raw", typedLayer},
    {"miss", "table", "raw", typedLayer},
    {"hit, groups of 16", "table", "raw", typedLayer},
    {"insert at random", "table", "raw", typedLayer},
    {"insert in order", "table", "raw", typedLayer},
    {"replace at random", "table", "raw", typedLayer},
    {"erase at random", "table", "raw", typedLayer},
    {"walk, loaded at random", "table", "raw", typedLayer},
    {"walk, loaded in order", "table", "raw", typedLayer},
    {"lower bound, there", "table", "raw", typedLayer},
    {"lower bound, absent", "table", "raw", typedLayer},
};

void print(const Options& options, const Figures& figures) {
  std::printf("%u IPv4 routes; medians of %u runs\n", options.routes, options.runs);
  std::printf(
      "begin to follow a million entries: %.0f ms; a writer of LMDB beside a reader: x %.2f; LMDB takes %.0f bytes "
      "an entry\n",
      1e3 * figures.median("begin to follow", "table"), figures.medianRatio("beside a reader, LMDB", "beside", "alone"),
      figures.median("bytes an entry", "LMDB, 5"));
}

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  using namespace Bench;
  Options options;
  PingedOptions pinged;
  BenchProgram program("TableRivalsBench", "Measures one shared table beside LMDB and Abseil's maps.", options);
  program.routesAre(options.routes, "IPv4 routes", 1000, RivalRoutes::most);
  program.modeIs("reader", "The process that looks up and walks",
                 [&] { runRivalReader(options.directory, options.routes); });
  program.modeIs("follower", "The process that follows the table", [&] { runRivalFollower(options.directory); });
  program.pingedIs(pinged);
  return program.run<Measurement>(argc, argv, options, print, bars);
}
