#include "bench/pipeline/Journey.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <thread>
#include <utility>

#include "bench/harness/WorkFigures.h"
#include "platform/values/Paths.h"

namespace Bench {

using nlohmann::json;

namespace {

constexpr const char* firstLoad = "first load";

std::string vrfStatus(std::uint32_t piVrfId) {
  return "vrfStatus[" + Workload::vrfName(piVrfId) + "]";
}

double sharedAndPrivate(const json& answer) {
  return answer["memory"]["RssAnon"].get<double>() + answer["memory"]["RssShmem"].get<double>();
}

void addHeld(Figures& figures, const std::string& phase, const json& answer) {
  double seconds = 0, cpuSeconds = 0;
  for (const auto& [task, held] : answer["held"].items()) {
    figures.add(phase, "held:" + task, held[1]);
    seconds = std::max(seconds, held[0].get<double>());
    cpuSeconds = std::max(cpuSeconds, held[1].get<double>());
  }
  figures.add(phase, "heldSeconds", seconds);
  figures.add(phase, "heldCpuSeconds", cpuSeconds);
}

}  // namespace

std::string phaseName(const std::string& phase, bool caching) {
  return caching ? phase + ", caching" : phase;
}

// --- The switch ------------------------------------------------------------------------------------------------------

JourneySwitch::JourneySwitch(const std::string& parentDirectory, const Workload& workload, const Tools::RibChange& rib)
    : workload_(workload), directory_(parentDirectory), routing_(directory_.path(), rib) {}

void JourneySwitch::startAgent() {
  std::vector<std::string> arguments{"agent", "--dir", directory()};
  std::ranges::move(workload_.options(), std::back_inserter(arguments));
  agent_ = std::make_unique<ChildProcess>(arguments);
}

json JourneySwitch::settle(std::size_t routes, std::size_t waiting) {
  json answer = agent_->ask("settle " + std::to_string(routes) + " " + std::to_string(waiting));
  if (!published_) published_.emplace(directory(), workload_);
  return answer;
}

double JourneySwitch::set(const std::string& path, const std::string& field, const std::string& value) {
  const double start = monotonicSeconds();
  agent_->ask("set " + path + " " + field + " " + value);
  return start;
}

double JourneySwitch::del(const std::string& path, const std::string& field) {
  const double start = monotonicSeconds();
  agent_->ask("del " + path + " " + field);
  return start;
}

// --- The journey -----------------------------------------------------------------------------------------------------

Journey::Journey(const std::string& parentDirectory, const Workload& workload, const Tools::RibChange& rib,
                 Figures& figures)
    : parentDirectory_(parentDirectory),
      figures_(figures),
      routes_(rib.routes.size()),
      switch_(parentDirectory, workload, rib) {}

void Journey::run() {
  load();
  oneRoute("one route");
  move();
  vrfGoesAndReturns();
  tunnelGoesAndReturns();
  restart();
  othersWait();
  withdrawWhileDown();
  withdrawAndLoad();
}

void Journey::add(const std::string& phase, double start, const json& answer, std::size_t routes) {
  const std::string whole = name(phase);
  const double seconds = answer["at"].get<double>() - start;
  const double cpuSeconds = answer["cpuSeconds"];
  const auto count = static_cast<double>(routes);
  figures_.add(whole, "seconds", seconds);
  figures_.add(whole, "cpuSeconds", cpuSeconds);
  figures_.add(whole, "routesPerCpuSecond", count / cpuSeconds);
  figures_.add(whole, "nsPerRoute", 1e9 * cpuSeconds / count);
  if (phase != "load") figures_.add(whole, firstLoad, figures_.latest(name("load"), "nsPerRoute"));
  addHeld(figures_, whole, answer);
  addMemory(phase, answer, routes_);
}

void Journey::addMemory(const std::string& phase, const json& answer, std::size_t routes) {
  const auto count = static_cast<double>(routes);
  figures_.add(name(phase), "privatePerRoute", answer["memory"]["RssAnon"].get<double>() / count);
  figures_.add(name(phase), "sharedPerRoute", answer["memory"]["RssShmem"].get<double>() / count);
  figures_.add(name(phase), "bytesPerRoute", sharedAndPrivate(answer) / count);
}

void Journey::addLatency(const std::string& phase, const ProbeTimes& times) {
  const auto add = [&](const char* figure, double value) { figures_.add(name(phase), figure, value); };
  const double median = medianOf(times.seen);
  add("median", median);
  add("p99", times.seen[times.seen.size() * 99 / 100]);
  add("longest", times.seen.back());
  add("samples", static_cast<double>(times.seen.size()));
  if (times.pings.empty()) return;
  add("two pings", medianOf(times.pings));
  add("its median", median);
}

// The tables stand full when the agent starts.
void Journey::load() {
  switch_.routing().load();
  const double start = monotonicSeconds();
  switch_.startAgent();
  const json answer = switch_.settle(routes_);
  add("load", start, answer, routes_);
  figures_.add(name("load"), "startSeconds", answer["startSeconds"]);
  switch_.published().check(routes_);
}

void Journey::oneRoute(const std::string& phase) {
  const auto samples = static_cast<unsigned>(std::clamp<std::size_t>(routes_ / 1000, 100, 1000));
  addLatency(phase,
             probeIdle(switch_.directory(), switch_.workload(), switch_.routing(), switch_.agent().pid(), samples));
}

void Journey::move() {
  switch_.settle(routes_);
  const double start = switch_.routing().moveAll();
  add("moved", start, switch_.settle(routes_), routes_);
}

void Journey::vrfGoesAndReturns() {
  constexpr std::uint32_t vrf = 1;
  const std::size_t its = switch_.workload().routesOfFirstVrf();
  const double gone = switch_.del(Paths::hwRouteStatus, vrfStatus(vrf));
  add("VRF goes", gone, switch_.settle(routes_ - its, its), its);
  const double back =
      switch_.set(Paths::hwRouteStatus, vrfStatus(vrf) + ".hwVrfId", std::to_string(Workload::hwVrfId(vrf)));
  add("VRF returns", back, switch_.settle(routes_), its);
}

void Journey::tunnelGoesAndReturns() {
  const std::string status = "vtiStatus[" + std::string(Workload::tunnelInterface) + "].operStatus";
  const double gone = switch_.set(Paths::vtiStatusDir, status, "down");
  add("tunnel goes", gone, switch_.settle(0), routes_);
  const double back = switch_.set(Paths::vtiStatusDir, status, "up");
  add("tunnel returns", back, switch_.settle(routes_), routes_);
}

void Journey::restart() {
  switch_.published().takeChanges();
  switch_.killAgent();
  const double start = monotonicSeconds();
  switch_.startAgent();
  add("restart", start, switch_.reconcile(), routes_);
  switch_.settle(routes_);
  figures_.add(name("restart"), "changedEntries", static_cast<double>(switch_.published().takeChanges()));
}

// Routes of a via that is not there.
void Journey::othersWait() {
  const auto missing = static_cast<Routing::Rib::ViaKey>(switch_.routing().rib().vias.size() + 1);
  constexpr std::uint32_t vrf = 2;
  const std::size_t waiting = routes_ / 10;
  const auto routeOf = [](std::size_t i) {  // in 240.0.0.0/4, where nobody's are
    return Routing::Rib::RouteKey(vrf, Prefix(IpAddr(static_cast<std::uint32_t>(0xf0000000 + i)), 32));
  };
  for (std::size_t i = 0; i < waiting; ++i) switch_.routing().write(RoutingProcess::Route(routeOf(i), missing));
  switch_.routing().flush();
  switch_.settle(routes_, waiting);
  oneRoute("one route, others wait");
  for (std::size_t i = 0; i < waiting; ++i) switch_.routing().remove(routeOf(i));
  switch_.routing().flush();
  switch_.settle(routes_);
}

void Journey::withdrawWhileDown() {
  switch_.killAgent();
  switch_.routing().withdraw([](std::size_t number) { return number % 10 == 0; });
  const std::size_t left = routes_ - (routes_ + 9) / 10;
  const double start = monotonicSeconds();
  switch_.startAgent();
  add("withdrawn while down", start, switch_.settle(left), routes_);
  switch_.published().check(left);
}

// All go; all come while the agent runs; and once more, while one of them is changed over and over.
void Journey::withdrawAndLoad() {
  const std::size_t left = routes_ - (routes_ + 9) / 10;
  const double gone = switch_.routing().withdraw([](std::size_t) { return true; });
  add("withdrawn", gone, switch_.settle(0), left);
  const double loaded = switch_.routing().load();
  add("load while running", loaded, switch_.settle(routes_), routes_);
  switch_.routing().withdraw([](std::size_t) { return true; });
  switch_.settle(0);
  switch_.routing().loadVias();
  const auto times = probeLoading(switch_.directory(), switch_.workload(), switch_.routing(), switch_.agent());
  addHeld(figures_, name("one route, others loaded"), switch_.agent().report());
  addLatency("one route, others loaded", times);
}

// --- Runs of their own -----------------------------------------------------------------------------------------------

void measureSmallLoad(const std::string& parentDirectory, const Workload& workload, Figures& figures) {
  const Workload small = workload.scaledTo(std::max(1000U, workload.routes / 100));
  const auto rib = small.rib();
  JourneySwitch tested(parentDirectory, small, rib);
  tested.startAgent();
  tested.settle(0);
  tested.routing().load();
  const double cpuSeconds = tested.settle(small.routes)["cpuSeconds"];
  const std::string phase = phaseName("load while running", workload.caching);
  figures.add(phase, "a hundredth", 1e9 * cpuSeconds / small.routes);
}

namespace {

// A tenth of the routes, with tables that have room for all.
double bytesOfTenth(const std::string& parentDirectory, const Workload& workload, const Tools::RibChange& rib) {
  Tools::RibChange tenth = rib;
  std::erase_if(tenth.routes, [i = 0U](const auto&) mutable { return i++ % 10 != 0; });
  JourneySwitch tested(parentDirectory, workload, tenth);
  tested.routing().roomIs(rib.routes.size());
  tested.routing().load();
  tested.startAgent();
  return sharedAndPrivate(tested.settle(tenth.routes.size()));
}

}  // namespace

void measurePeak(const std::string& parentDirectory, const Workload& workload, const Tools::RibChange& rib,
                 Figures& figures) {
  constexpr double limit = 20;  // seconds for memory to be given back
  const std::string phase = phaseName("after a peak", workload.caching);
  const double without = bytesOfTenth(parentDirectory, workload, rib);
  JourneySwitch tested(parentDirectory, workload, rib);
  tested.routing().load();
  tested.startAgent();
  tested.settle(rib.routes.size());
  tested.routing().withdraw([](std::size_t number) { return number % 10 != 0; });
  const std::size_t left = (rib.routes.size() + 9) / 10;
  const Stopwatch waiting;
  double bytes = sharedAndPrivate(tested.settle(left));
  while (bytes > 1.1 * without && waiting.seconds() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    tested.routing().rest();
    bytes = sharedAndPrivate(tested.settle(left));
  }
  figures.add(phase, "bytes", bytes);
  figures.add(phase, "without one", without);
}

void measureManyVrfs(const std::string& parentDirectory, Figures& figures) {
  constexpr std::uint32_t many = 10'000;
  for (const std::uint32_t vrfs : {many / 10, many}) {
    Workload workload;
    workload.routes = many;
    workload.vrfs = vrfs;
    workload.vteps = workload.nexthopSets = 100;
    auto rib = workload.rib();
    const std::uint32_t next = vrfs + 1;
    rib.routes.push_back(workload.ribOf(next, 1, 2).routes.front());
    JourneySwitch tested(parentDirectory, workload, rib);
    tested.routing().load();
    const double start = monotonicSeconds();
    tested.startAgent();
    const json started = tested.settle(many, 1);
    const std::string phase = std::to_string(vrfs) + " VRFs";
    figures.add(phase, "startSeconds", started["at"].get<double>() - start);
    addHeld(figures, phase, started);
    tested.set(Paths::vrfNames, "nameToId[" + Workload::vrfName(next) + "]", std::to_string(next));
    tested.set(Paths::hwRouteStatus, vrfStatus(next) + ".hwVrfId", std::to_string(Workload::hwVrfId(next)));
    figures.add(phase, "oneMoreSeconds", tested.settle(many + 1)["cpuSeconds"]);
  }
  const auto latest = [&](const std::string& phase) { return figures.latest(phase, "startSeconds"); };
  figures.add("10000 VRFs", "a tenth of them", latest("1000 VRFs"));
}

}  // namespace Bench
