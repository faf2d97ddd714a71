#include "netlink/discover/Survey.h"

#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <optional>

#include "netlink/messages/Dump.h"
#include "netlink/messages/RouteMessages.h"

namespace Netlink {

namespace {

constexpr std::uint32_t loopback = 1;  // its index, in every network namespace

template <class Take>
void survey(MachineDump dump, Take take) {
  MessageBuffer question;
  askForMachineDump(question, dump);
  dumped(question, take);
}

using NamesByIndex = std::map<std::uint32_t, std::string>;

NamesByIndex surveyLinks(Survey& survey) {
  NamesByIndex tunnels;
  Netlink::survey(MachineDump::links, [&](const nlmsghdr& message) {
    const auto link = machineLinkIn(message);
    if (!link) return;
    if (link->vrfTable) survey.vrfTables[link->name] = *link->vrfTable;
    if (!link->vxlan) return;
    survey.tunnels[link->name] = {link->isRunning, *link->vxlan, 0, {}};
    tunnels[link->index] = link->name;
  });
  return tunnels;
}

void surveyBridgePorts(Survey& survey, const NamesByIndex& tunnels) {
  Netlink::survey(MachineDump::bridgePorts, [&](const nlmsghdr& message) {
    auto port = bridgePortIn(message);
    const auto name = port ? tunnels.find(port->index) : tunnels.end();
    if (name == tunnels.end()) return;
    TunnelDevice& tunnel = survey.tunnels[name->second];
    tunnel.untaggedVlan = port->untaggedVlan;
    tunnel.tunnels = std::move(port->tunnels);
  });
}

void surveyAddresses(Survey& survey) {
  for (const auto dump : {MachineDump::addresses4, MachineDump::addresses6}) {
    Netlink::survey(dump, [&](const nlmsghdr& message) {
      const auto address = machineAddressIn(message);
      if (!address || address->index != loopback || !address->isGlobal) return;
      if (address->addr.isV4() && survey.loopback4.isZero()) survey.loopback4 = address->addr.v4();
      if (address->addr.isV6() && survey.loopback6.isZero()) survey.loopback6 = address->addr.v6();
    });
  }
}

// Of several routes of one prefix the one with the lowest metric counts, as in the kernel.
void surveyUnderlay(Survey& survey) {
  std::map<IpGenPrefix, std::uint32_t> metrics;
  for (const auto dump : {MachineDump::routes4, MachineDump::routes6}) {
    Netlink::survey(dump, [&](const nlmsghdr& message) {
      const auto route = underlayRouteIn(message);
      if (!route || route->nexthopsHash == 0) return;
      const auto [metric, isNew] = metrics.emplace(route->prefix, route->metric);
      if (!isNew && metric->second <= route->metric) return;
      metric->second = route->metric;
      survey.underlay[route->prefix] = route->nexthopsHash;
    });
  }
}

}  // namespace

Survey surveyMachine() {
  Survey survey;
  const auto tunnels = surveyLinks(survey);
  surveyBridgePorts(survey, tunnels);
  surveyAddresses(survey);
  surveyUnderlay(survey);
  return survey;
}

bool lacksOf(const Survey& now, const Survey& before) {
  const auto lacks = [](const auto& all, const auto& wanted) {
    return std::ranges::any_of(wanted, [&](const auto& each) { return !all.contains(each.first); });
  };
  return lacks(now.tunnels, before.tunnels) || lacks(now.vrfTables, before.vrfTables) ||
         lacks(now.underlay, before.underlay);
}

void addMissing(Survey& now, const Survey& other) {
  now.tunnels.insert(other.tunnels.begin(), other.tunnels.end());
  now.vrfTables.insert(other.vrfTables.begin(), other.vrfTables.end());
  now.underlay.insert(other.underlay.begin(), other.underlay.end());
  if (now.loopback4.isZero()) now.loopback4 = other.loopback4;
  if (now.loopback6.isZero()) now.loopback6 = other.loopback6;
}

bool concernsSurvey(const nlmsghdr& message) {
  if (message.nlmsg_type != RTM_NEWROUTE && message.nlmsg_type != RTM_DELROUTE) return true;
  const auto* header = headerOf<rtmsg>(message);
  if (header == nullptr || header->rtm_protocol == ownProtocol) return false;
  return attributesOf<rtmsg>(message).number<std::uint32_t>(RTA_TABLE).value_or(header->rtm_table) == RT_TABLE_MAIN;
}

}  // namespace Netlink
