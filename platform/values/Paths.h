// Where things are mounted that more than one process or part of the switch knows of. Each path stands here alone;
// tests spell them out.
#pragma once

namespace Paths {

// Entities of the state database.
inline constexpr const char* hwRouteStatus = "routing/hardware/route/status";
inline constexpr const char* hwStatus = "routing/hardware/status";
inline constexpr const char* vrfNames = "vrf/vrfNameStatus";
inline constexpr const char* vtiStatusDir = "interface/status/eth/vxlan";
inline constexpr const char* nexthopConfig = "l3/nexthop-resolver/config/routeCache";
inline constexpr const char* nexthopStatus = "l3/nexthop-resolver/status/routeCache";
inline constexpr const char* underlayRoutes = "routing/underlay/route";
inline constexpr const char* config = "routecache/config";
inline constexpr const char* cliConfig = "routecache/cliconfig";
inline constexpr const char* capability = "routecache/capability";

// Shared tables: what the routing process configures, and the FIB's tables; of a VRF but the default one its name
// follows.
inline constexpr const char* ribRoutes = "routing/rib/routeConfig/ipv4/staticRouteCacheConfig";
inline constexpr const char* rib6Routes = "routing/rib/routeConfig/ipv6/staticRouteCacheConfig";
inline constexpr const char* ribVias = "routing/rib/viaConfig/evpn/staticRouteCacheConfig";
inline constexpr const char* fib = "routing/status";
inline constexpr const char* fib6 = "routing6/status";
inline constexpr const char* fibOfVrf = "routing/vrf/status/";
inline constexpr const char* fib6OfVrf = "routing6/vrf/status/";

// ... what the agent publishes.
inline constexpr const char* sfeRoutes = "routecache/route/sfe/ipv4";
inline constexpr const char* hwRoutes = "routecache/route/hw/ipv4";
inline constexpr const char* hw6Routes = "routecache/route/hw/ipv6";
inline constexpr const char* kernelRoutes = "routecache/route/kernel";
inline constexpr const char* adjacencies = "routecache/adj/ipv4";
inline constexpr const char* adjacencies6 = "routecache/adj/ipv6";
inline constexpr const char* unprogrammed = "routing/rib/routeConfig/ipv4/unprogrammedStaticRouteCacheConfig";

// ... what the forwarding planes report.
inline constexpr const char* hwHitBits = "hardware/routecache/status/ipv4";
inline constexpr const char* sfeHitBits = "sfe/routecache/status/ipv4";
inline constexpr const char* sfeProgrammed = "sfe/routecache/programmed/ipv4";

// The agent's own entities, for operators.
inline constexpr const char* swRouteSm = "agent/routecache/swRouteSm";
inline constexpr const char* hwRouteSm = "agent/routecache/hwRouteSm";
inline constexpr const char* kernelRouteSm = "agent/routecache/kernelRouteSm";
inline constexpr const char* vrfIdMap = "agent/routecache/vrfIdMap";
inline constexpr const char* vrfCachedRoute = "agent/routecache/vrfCachedRoute";
inline constexpr const char* cliCallback = "agent/routecache/cliCallbackWithFormat";

}  // namespace Paths
