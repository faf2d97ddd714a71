// The library for other people's processes, by its C interface: what it reads and writes are the typed tables' bytes.
#include <gmock/gmock.h>
#include <poll.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "RouteCache/RouteCache.h"
#include "host/TableTypes.h"
#include "linux/tables/SharedTableService.h"
#include "platform/tables/Rib.h"
#include "routecache_tables.h"
#include "test/support/Command.h"
#include "test/support/TemporaryDirectory.h"

namespace {

using Pondra::CollectionInfo;
using Pondra::MountKind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Bytes = std::basic_string<unsigned char>;

constexpr const char* hwRoutes = "routecache/route/hw/ipv4";
constexpr const char* ribRoutes = "routing/rib/routeConfig/ipv4/staticRouteCacheConfig";
constexpr const char* ribVias = "routing/rib/viaConfig/evpn/staticRouteCacheConfig";

class TablesLibraryTest : public testing::Test {
 protected:
  ~TablesLibraryTest() override { rct_close(session); }

  void open() { ASSERT_EQ(rct_open(runDir.c_str(), &session), RCT_OK); }
  std::unique_ptr<LinuxPlatform::SharedTableService> process() const {
    return std::make_unique<LinuxPlatform::SharedTableService>(runDir, types);
  }
  static std::shared_ptr<RouteCache::Ipv4RouteStatus> routesOf(Pondra::TableService& service, std::uint32_t capacity) {
    service.mount(hwRoutes, RouteCache::Ipv4RouteStatus::typeName, MountKind::writer,
                  CollectionInfo{"route", capacity});
    return service.get<RouteCache::Ipv4RouteStatus>(hwRoutes);
  }
  static RouteCache::Ipv4Route route(const char* prefix, std::uint32_t adjId, bool inHw) {
    return {{Platform::fromText<Prefix>(prefix), 101}, RouteCache::AdjId(adjId), inHw};
  }
  // Waits for what the descriptor announces, and takes it in portions: keys, and "state" for news of the table.
  std::vector<Bytes> nextChanges(std::size_t portion) const {
    pollfd ready{rct_fd(session), POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, 300000), 1);
    std::vector<rct_change> changes(portion);
    const int count = rct_changes(session, changes.data(), portion);
    EXPECT_GE(count, 0) << rct_error_text();
    std::vector<Bytes> keys;
    for (int i = 0; i < count; ++i) {
      const rct_change& change = changes[static_cast<std::size_t>(i)];
      keys.push_back(change.kind == RCT_STATE ? stateNews : Bytes(change.key, change.key_size));
    }
    return keys;
  }
  // The keys told until there is news of the table, and that news.
  std::vector<Bytes> changesUntilState(std::size_t portion) const {
    std::vector<Bytes> all;
    while (std::ranges::find(all, stateNews) == all.end())
      std::ranges::copy(nextChanges(portion), std::back_inserter(all));
    return all;
  }
  static rct_state stateOf(rct_table* table) {
    rct_state state{};
    EXPECT_EQ(rct_table_state(table, &state, sizeof state), RCT_OK);
    return state;
  }
  static Bytes valueOf(rct_table* table, const Bytes& key) {
    rct_entry entry{};
    return rct_get(table, key.data(), key.size(), &entry) == RCT_OK ? Bytes(entry.value, entry.value_size) : Bytes();
  }
  static int set(rct_table* table, const Bytes& key, const Bytes& value) {
    return rct_set(table, key.data(), key.size(), value.data(), value.size());
  }
  static std::vector<Bytes> walk(rct_table* table, const Bytes& from = {}) {
    rct_cursor* cursor = nullptr;
    EXPECT_EQ(rct_walk(table, from.empty() ? nullptr : from.data(), from.size(), &cursor), RCT_OK);
    std::vector<Bytes> keys;
    rct_entry entry{};
    while (rct_next(cursor, &entry) == RCT_OK) keys.emplace_back(entry.key, entry.key_size);
    rct_cursor_close(cursor);
    return keys;
  }

  const Bytes stateNews{'s', 't', 'a', 't', 'e'};
  // 10.1.0.0/16, 10.2.0.0/16 and 10.2.3.4/32 of VRF 101.
  const Bytes wide{10, 1, 255, 255, 16, 0, 0, 0, 101};
  const Bytes next{10, 2, 255, 255, 16, 0, 0, 0, 101};
  const Bytes host{10, 2, 3, 4, 0, 0, 0, 0, 101};

  const Platform::TableTypes types = Tools::allTableTypes();
  const TemporaryDirectory directory;
  const std::string runDir = directory.path() + "/run";
  rct_session* session = nullptr;
};

TEST_F(TablesLibraryTest, AReaderWaitsForATableReadsItAndHearsOfItsChangesAndWriters) {
  open();
  EXPECT_FALSE(std::filesystem::exists(runDir)) << "it would be the reader's";
  rct_table* table = nullptr;
  ASSERT_EQ(rct_table_open(session, hwRoutes, &table), RCT_OK);
  ASSERT_EQ(rct_follow(table), RCT_OK);
  rct_info info{};
  EXPECT_EQ(rct_table_info(table, &info, sizeof info), RCT_ABSENT);
  EXPECT_EQ(valueOf(table, wide), Bytes());
  EXPECT_THAT(walk(table), IsEmpty());
  EXPECT_EQ(stateOf(table).present, 0U);
  rct_cursor* none = nullptr;
  EXPECT_EQ(rct_walk(table, Bytes(RCT_MAX_KEY + 1, 1).data(), RCT_MAX_KEY + 1, &none), RCT_BAD_ARGUMENT);

  auto writing = process();
  auto routes = routesOf(*writing, 100);
  for (const auto& value :
       {route("10.1.0.0/16", 7, true), route("10.2.0.0/16", 0x80000008, false), route("10.2.3.4/32", 9, true)}) {
    routes->routeIs(value);
  }
  writing->flush();
  std::vector<Bytes> told;  // one at a time: none is lost for want of room
  while (std::ranges::count_if(told, [this](const Bytes& change) { return change != stateNews; }) < 3) {
    std::ranges::copy(nextChanges(1), std::back_inserter(told));
  }
  std::erase(told, stateNews);
  EXPECT_THAT(told, UnorderedElementsAre(wide, next, host));
  ASSERT_EQ(rct_table_info(table, &info, sizeof info), RCT_OK);
  EXPECT_STREQ(info.type, "RouteCache::Ipv4RouteStatus");
  EXPECT_STREQ(info.collection, "route");
  EXPECT_EQ(std::tuple(info.layout_version, info.key_size, info.max_value_size, info.variable_size),
            std::tuple(1U, 9U, 5U, 0U));
  EXPECT_EQ(valueOf(table, next), (Bytes{0x80, 0, 0, 8, 0}));
  EXPECT_THAT(walk(table), ElementsAre(wide, host, next));
  EXPECT_THAT(walk(table, {10, 2, 0, 0, 0, 0, 0, 0, 0}), ElementsAre(host, next));

  const rct_state first = stateOf(table);
  EXPECT_EQ(std::tuple(first.entries, first.capacity, first.present, first.reconciled, first.writer),
            std::tuple(3U, 100U, 1U, 0U, static_cast<unsigned>(RCT_WRITER_ALIVE)));
  routes->routeDel(route("10.1.0.0/16", 7, true).key());
  routes->reconciledIs();
  EXPECT_THAT(changesUntilState(64), ElementsAre(wide, stateNews)) << "the keys come before";
  EXPECT_EQ(stateOf(table).reconciled, 1U);
  rct_state old{};
  old.reserved = 77;
  EXPECT_EQ(rct_table_state(table, &old, offsetof(rct_state, generation)), RCT_OK);
  EXPECT_EQ(std::tuple(old.entries, old.capacity, old.generation, old.reserved), std::tuple(2U, 100U, 0U, 77U))
      << "no more than the caller knows of";

  routes.reset();
  writing.reset();
  EXPECT_THAT(changesUntilState(64), ElementsAre(stateNews));
  EXPECT_EQ(stateOf(table).writer, RCT_WRITER_GONE);
  EXPECT_EQ(stateOf(table).generation, first.generation);
  writing = process();
  routes = routesOf(*writing, 50);  // moves the entries to another file
  EXPECT_THAT(changesUntilState(64), ElementsAre(stateNews)) << "nothing else is new";
  const rct_state adopted = stateOf(table);
  EXPECT_EQ(std::tuple(adopted.entries, adopted.capacity, adopted.reconciled), std::tuple(2U, 50U, 0U));
  EXPECT_EQ(adopted.generation, first.generation + 1);
  EXPECT_THAT(walk(table), ElementsAre(host, next));

  rct_table_close(table);
  EXPECT_EQ(rct_table_open(session, hwRoutes, &table), RCT_OK);
  EXPECT_EQ(valueOf(table, host), (Bytes{0, 0, 0, 9, 1}));
}

TEST_F(TablesLibraryTest, AWriterWritesWhatTypedReadersReadAndFindsItsTableAgain) {
  open();
  rct_table* routes = nullptr;
  rct_table* vias = nullptr;
  ASSERT_EQ(rct_table_write(session, ribRoutes, 2, &routes), RCT_OK) << rct_error_text();
  ASSERT_EQ(rct_table_write(session, ribVias, 10, &vias), RCT_OK) << rct_error_text();
  const Bytes viaKey{0, 0, 0, 0, 0, 0, 0, 5};
  const Bytes via{0,   1,                                                                  // one next hop
                  1,   0,   0,   0,   0,   0,   0, 0, 0, 0,  0, 0, 0,    10,   255, 0, 1,  // 10.255.0.1
                  'V', 'x', 'l', 'a', 'n', '1', 0, 0, 0, 10, 0, 0, 0x27, 0x1a, 2,   0, 0, 0, 0, 1};
  Bytes routeKey{0, 0, 0, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10, 1, 0, 0, 16};
  const Bytes value{0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0, 20, 0, 0, 0, 30, 1};
  EXPECT_EQ(set(vias, viaKey, via), RCT_OK) << rct_error_text();
  EXPECT_EQ(set(routes, routeKey, value), RCT_OK) << rct_error_text();
  EXPECT_EQ(rct_reconcile(routes), RCT_OK);

  const auto reading = process();
  reading->mount(ribRoutes, Routing::Rib::RouteConfig::typeName, MountKind::reader);
  reading->mount(ribVias, Routing::Rib::RouteCache::Evpn::ViaConfig::typeName, MountKind::reader);
  const auto table = reading->get<Routing::Rib::RouteConfig>(ribRoutes);
  EXPECT_EQ(*table->begin(), Routing::Rib::Route({2, Platform::fromText<IpGenPrefix>("10.1.0.0/16")}, 5, 1, 20, 30));
  EXPECT_TRUE(table->reconciled());
  const auto read = reading->get<Routing::Rib::RouteCache::Evpn::ViaConfig>(ribVias)->via(5);
  ASSERT_TRUE(read && read->nexthops().size() == 1);
  EXPECT_EQ(read->nexthops()[0], (Routing::Rib::RouteCache::Evpn::ViaNexthop{
                                     Platform::fromText<IpGenAddr>("10.255.0.1"), IntfId("Vxlan1"), 10,
                                     Vxlan::Vni(10010), Platform::fromText<EthAddr>("02:00:00:00:00:01")}));

  // What cannot be is a code and a line, and changes nothing.
  rct_table* other = nullptr;
  rct_session* otherSession = nullptr;
  rct_cursor* cursor = nullptr;
  rct_change change{};
  rct_entry entry{};
  ASSERT_EQ(rct_open(runDir.c_str(), &otherSession), RCT_OK);
  ASSERT_EQ(rct_table_open(otherSession, ribRoutes, &other), RCT_OK);
  Bytes hostBits = routeKey;
  hostBits[20] = 1;
  routeKey[18] = 2;
  rct_table* never = nullptr;
  const auto refused = [](int result, int expected, const char* text) {
    EXPECT_EQ(result, expected) << text;
    EXPECT_THAT(rct_error_text(), HasSubstr(text));
  };
  refused(rct_table_write(otherSession, ribVias, 10, &never), RCT_BUSY, "another process is the table's writer");
  refused(rct_table_write(otherSession, ribRoutes, 10, &never), RCT_BAD_ARGUMENT, "is open in this session already");
  refused(rct_table_write(otherSession, hwRoutes, 10, &never), RCT_NOT_WRITER, "not for other processes to write");
  refused(rct_table_write(otherSession, "routing/status", 0, &never), RCT_BAD_ARGUMENT, "capacity of 0 entries");
  refused(rct_table_open(otherSession, "", &never), RCT_UNUSABLE, "the path is empty or too long");
  refused(set(other, routeKey, value), RCT_NOT_WRITER, "is open for reading");
  refused(set(routes, wide, value), RCT_BAD_ARGUMENT, "keys have 22 bytes, not 9");
  refused(set(routes, hostBits, value), RCT_BAD_ARGUMENT, "no key of a Routing::Rib::RouteConfig");
  refused(set(routes, routeKey, viaKey), RCT_BAD_ARGUMENT, "no value of a Routing::Rib::RouteConfig");
  refused(set(vias, viaKey, via + via), RCT_BAD_ARGUMENT, "no value of a");
  refused(rct_get(routes, viaKey.data(), 0, &entry), RCT_BAD_ARGUMENT, "keys have 22 bytes, not 0");
  refused(rct_get(routes, nullptr, 22, &entry), RCT_BAD_ARGUMENT, "null pointer");
  refused(rct_walk(routes, viaKey.data(), viaKey.size(), &cursor), RCT_BAD_ARGUMENT, "keys have 22 bytes, not 8");
  refused(rct_changes(session, &change, 0), RCT_BAD_ARGUMENT, "no room for a change");
  for (const int result : {rct_open(nullptr, &otherSession), rct_table_open(nullptr, ribVias, &never),
                           rct_table_info(nullptr, nullptr, 0), rct_table_state(routes, nullptr, 0),
                           rct_follow(nullptr), rct_fd(nullptr), rct_next(nullptr, &entry), rct_flush(nullptr),
                           rct_delete_all(nullptr), rct_reconcile(nullptr), rct_on_damage(nullptr, nullptr, nullptr)}) {
    refused(result, RCT_BAD_ARGUMENT, "null pointer");
  }
  EXPECT_EQ(set(routes, routeKey, value), RCT_OK);
  routeKey[18] = 3;
  refused(set(routes, routeKey, value), RCT_FULL, "the table is full (2 entries)");
  EXPECT_EQ(rct_delete(routes, routeKey.data(), routeKey.size()), RCT_ABSENT);
  EXPECT_EQ(table->size(), 2U);
  rct_close(otherSession);

  rct_table_close(routes);
  ASSERT_EQ(rct_table_write(session, ribRoutes, 2, &routes), RCT_OK);
  EXPECT_EQ(walk(routes).size(), 2U) << "what was written stays";
  EXPECT_EQ(stateOf(routes).reconciled, 0U);
  routeKey[18] = 2;
  EXPECT_EQ(rct_delete(routes, routeKey.data(), routeKey.size()), RCT_OK);
  EXPECT_EQ(table->size(), 1U);
  EXPECT_EQ(rct_delete_all(routes), RCT_OK);
  EXPECT_EQ(table->size(), 0U);
}

TEST_F(TablesLibraryTest, WhatIsNoTableIsRefusedOrToldOfAndNeverRead) {
  const auto damage = [this] { std::ofstream(runDir + "/tables/bad") << std::string(8192, 'x'); };
  const std::string file = runDir + "/tables/routecache.route.hw.ipv4.table";
  const auto writing = process();
  routesOf(*writing, 10)->routeIs(route("10.1.0.0/16", 7, true));
  open();
  std::vector<std::string> told;
  rct_on_damage(
      session,
      [](void* context, const char* path, const char* what) {
        static_cast<std::vector<std::string>*>(context)->push_back(std::string(path) + ": " + what);
      },
      &told);
  rct_table* table = nullptr;
  ASSERT_EQ(rct_table_open(session, hwRoutes, &table), RCT_OK);
  ASSERT_EQ(rct_follow(table), RCT_OK);
  damage();
  std::filesystem::rename(runDir + "/tables/bad", file);
  while (told.empty()) nextChanges(8);
  EXPECT_THAT(told, ElementsAre(HasSubstr(std::string(hwRoutes) + ": " + hwRoutes + " mount: the file is no table")));
  EXPECT_EQ(valueOf(table, wide), (Bytes{0, 0, 0, 7, 1})) << "what was open stays readable";
  rct_table_close(table);
  EXPECT_EQ(rct_table_open(session, hwRoutes, &table), RCT_UNUSABLE);
  EXPECT_THAT(rct_error_text(), HasSubstr("the file is no table"));
}

TEST(TablesLibrarySymbolsTest, NothingIsSeenButTheInterface) {
  const auto told = [](const char* arguments) { return Command(arguments, "", nullptr, "/usr/bin/env").wait().out; };
  EXPECT_THAT(told("objdump -p " ROUTECACHE_TABLES), HasSubstr("SONAME               libroutecache-tables.so.1\n"));
  std::istringstream lines(told("nm -D --defined-only " ROUTECACHE_TABLES));
  std::string address, kind, name;
  std::size_t functions = 0;
  while (lines >> address >> kind >> name) {
    if (kind == "A") continue;  // the name of the version
    EXPECT_TRUE(kind == "T" && name.starts_with("rct_") && name.ends_with("@@RCT_1")) << name;
    ++functions;
  }
  EXPECT_EQ(functions, 22U) << "a function that came is to be counted, and one that went breaks programs";
  EXPECT_EQ(rct_version(), static_cast<std::uint32_t>(RCT_VERSION));
}

}  // namespace
