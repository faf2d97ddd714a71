// The texts of the show commands, which operators' programs send and the agent looks for. A text holds one of the
// names, anywhere; of several the one that stands first here counts, and of several marks of a kind the last.
#pragma once

#include <string_view>

namespace RouteCache::CommandTexts {

// Under which the agent takes them.
inline constexpr const char* type = "RouteCacheWithFormat";

inline constexpr const char* threshold = "showRouteCacheThreshold";
// With vrfMark and a VRF's name, "all" (each VRF by itself) or nothing (all together); without it the VRF is "default".
inline constexpr const char* summary = "showRouteCacheSummary";
// With vrfMark and a VRF's name; then, if one prefix is asked for, prefixMark and the prefix.
inline constexpr const char* routes6 = "showRouteCacheVrfV6";
inline constexpr const char* routes = "showRouteCacheVrf";

inline constexpr std::string_view vrfMark = "#V";
inline constexpr std::string_view prefixMark = "#P";

}  // namespace RouteCache::CommandTexts
