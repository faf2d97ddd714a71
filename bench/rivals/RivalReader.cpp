#include "bench/rivals/RivalReader.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <new>
#include <sstream>

#include "bench/harness/BenchDirectory.h"
#include "bench/harness/MeasuredLoop.h"
#include "bench/harness/Pings.h"
#include "bench/harness/Tables.h"
#include "bench/rivals/RivalWorks.h"

namespace Bench {

namespace {

using nlohmann::json;

// --- Reading ---------------------------------------------------------------------------------------------------------

class RivalReader {
 public:
  RivalReader(const std::string& directory, std::uint32_t routes)
      : directory_(directory),
        routes_(routes),
        rawKeys_(rawKeys(routes_.keys)),
        rawAbsent_(rawKeys(routes_.absent)),
        tables_(directory),
        typed_(tables_.reader<TypedStore::Table>(TypedStore::path)),
        raw_(directory, rawPath, std::nullopt),
        lmdb_(directory) {}

  json obeyed(std::istream& command);

 private:
  json load(const std::vector<RivalRoute>& routes);
  json read(const std::string& phase);
  json follow();
  template <class Store>
  json spin(Store& store);

  const std::string& directory_;
  RivalRoutes routes_;
  std::vector<RawStore<5>::Key> rawKeys_, rawAbsent_;
  Tables tables_;
  TypedStore typed_;
  RawStore<5> raw_;
  LmdbRoutes lmdb_;
  BtreeRoutes btree_;
  HashRoutes hash_;
};

json RivalReader::obeyed(std::istream& command) {
  std::string verb, object;
  command >> verb >> std::ws;
  std::getline(command, object);
  if (verb == "load") return load(object == "shuffled" ? routes_.shuffled : routes_.ordered);
  if (verb == "read") {
    json report = read(object);
    lmdb_.finish();
    return report;
  }
  if (verb == "follow") return follow();
  if (verb == "spin") return object == "LMDB" ? spin(lmdb_) : spin(typed_);
  throw std::runtime_error("what is '" + verb + "'?");
}

json RivalReader::load(const std::vector<RivalRoute>& routes) {
  putAll(btree_, routes);
  putAll(hash_, routes);
  return json::object();
}

json RivalReader::read(const std::string& phase) {
  const auto goes = Goes::andOnceBefore;
  const auto keyed = [&](auto work, const std::vector<RivalKey>& keys, const std::vector<RawStore<5>::Key>& raw) {
    return race(phase, keys.size(), goes,
                {{"table", [&] { return work(typed_, keys); }},
                 {"raw", [&] { return work(raw_, raw); }},
                 {"B-tree", [&] { return work(btree_, keys); }},
                 {"hash map", [&] { return work(hash_, keys); }},
                 {"LMDB", [&] { return work(lmdb_, keys); }}});
  };
  const auto lookUp = [](auto& store, const auto& keys) { return lookUpAll(store, keys); };
  const auto inTurn = [](auto& store, const auto& keys) { return lookUpInTurn(store, keys); };
  if (phase == "hit") return keyed(lookUp, routes_.keys, rawKeys_);
  if (phase == "dependent hit") return keyed(inTurn, routes_.keys, rawKeys_);
  if (phase == "miss") return keyed(lookUp, routes_.absent, rawAbsent_);
  if (phase == "hit, groups of 16") {
    return race(phase, routes_.keys.size(), goes,
                {{"table", [&] { return lookUpInGroups(typed_, routes_.keys); }},
                 {"raw", [&] { return lookUpInGroups(raw_, rawKeys_); }},
                 {"B-tree", [&] { return lookUpAll(btree_, routes_.keys); }},
                 {"hash map", [&] { return lookUpAll(hash_, routes_.keys); }}});
  }
  if (phase.starts_with("walk")) {
    return race(phase, routes_.keys.size(), goes,
                {{"table", [&] { return walkAll(typed_); }},
                 {"raw", [&] { return walkAll(raw_); }},
                 {"B-tree", [&] { return walkAll(btree_); }},
                 {"LMDB", [&] { return walkAll(lmdb_); }}});
  }
  const bool there = phase == "lower bound, there";
  const auto& keys = there ? routes_.keys : routes_.absent;
  const auto& raw = there ? rawKeys_ : rawAbsent_;
  return race(phase, keys.size(), goes,
              {{"table", [&] { return seekAll(typed_, keys); }},
               {"raw", [&] { return seekAll(raw_, raw); }},
               {"B-tree", [&] { return seekAll(btree_, keys); }}});
}

class Follower final : public TypedStore::Table::Reactor {
 public:
  Follower(std::shared_ptr<const TypedStore::Table> table, Stamp* stamp)
      : Reactor(table), routes_(std::move(table)), stamp_(stamp) {}
  void handleEntry(const RivalKey& key) override {
    stamp_->hear();
    ++heard_;
    if (routes_->route(key)) ++found_;
  }
  json report() const { return {{"heard", heard_}, {"found", found_}}; }

 private:
  std::shared_ptr<const TypedStore::Table> routes_;
  Stamp* stamp_;
  std::uint64_t heard_ = 0;
  std::uint64_t found_ = 0;
};

// How long it takes to begin to follow the table.
json RivalReader::follow() {
  Tables tables(directory_);
  const auto routes = tables.follower<TypedStore::Table>(TypedStore::path);
  const Stopwatch stopwatch;
  const Follower follower(routes, nullptr);
  return {{"seconds", stopwatch.cpuSeconds()}};
}

bool isTold() {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  return ::poll(&input, 1, 0) > 0;
}

template <class Store>
json RivalReader::spin(Store& store) {
  constexpr std::size_t share = 1024;
  std::uint64_t found = 0;
  for (std::size_t at = 0; !isTold(); at = at + share < routes_.keys.size() ? at + share : 0) {
    for (const RivalKey& key : std::span(routes_.keys).subspan(at, std::min(share, routes_.keys.size() - at))) {
      if (store.entry(key)) ++found;
    }
  }
  store.finish();
  std::string line;
  std::getline(std::cin, line);
  return {{"found", found}};
}

}  // namespace

void runRivalReader(const std::string& directory, std::uint32_t routes) {
  RivalReader reader(directory, routes);
  obey([&reader](std::istream& command) { return reader.obeyed(command); });
}

// --- Following -------------------------------------------------------------------------------------------------------

void runRivalFollower(const std::string& directory) {
  MeasuredLoop loop(directory);
  Stamp stamp(directory);
  Follower follower(loop.tables().follower<TypedStore::Table>(TypedStore::path), &stamp);
  obey([&](std::istream& command) {
    if (std::string verb; command >> verb && verb != "serve") return follower.report();
    bool told = false;
    loop.loop().fdIs(STDIN_FILENO, EPOLLIN, [&told](std::uint32_t) { told = true; });
    loop.work([&told] { return told; });
    loop.loop().fdDel(STDIN_FILENO);
    std::string line;
    std::getline(std::cin, line);
    loop.settle();
    return follower.report();
  });
}

}  // namespace Bench
