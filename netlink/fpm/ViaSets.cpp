#include "netlink/fpm/ViaSets.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <vector>

namespace Netlink {

namespace {

std::string bytesOf(const ViaSets::Via& via) {
  std::array<std::byte, Pondra::TableTraits<ViaSets::Via>::maxValueSize> bytes;  // NOLINT: filled by encode
  const std::size_t size = Pondra::TableTraits<ViaSets::Via>::encode(via, bytes.data());
  return {reinterpret_cast<const char*>(bytes.data()), size};
}

}  // namespace

ViaSets::ViaSets(ViaConfig& table) : table_(table) {
  for (const Via& via : table_) {
    users_.emplace(via.key(), 0);
    keys_.emplace(bytesOf(via), via.key());
    lastKey_ = std::max(lastKey_, via.key());
  }
}

ViaSets::ViaKey ViaSets::use(const std::vector<ViaNexthop>& nexthops) {
  std::string content = bytesOf(Via(0, nexthops));
  if (const auto found = keys_.find(content); found != keys_.end()) {
    ++users_[found->second];
    return found->second;
  }
  ViaKey key = lastKey_ + 1;
  while (key == 0 || users_.contains(key)) ++key;  // after the highest comes 1
  try {
    table_.viaIs(Via(key, nexthops));
  } catch (const Pondra::TableError&) {
    ++refused_;
    return 0;
  }
  lastKey_ = key;
  users_.emplace(key, 1);
  keys_.emplace(std::move(content), key);
  return key;
}

bool ViaSets::useAgain(ViaKey key) {
  const auto found = users_.find(key);
  if (found == users_.end()) return false;
  ++found->second;
  return true;
}

void ViaSets::release(ViaKey key) {
  const auto found = users_.find(key);
  if (found == users_.end()) return;
  if (found->second > 0) --found->second;
  if (found->second == 0) remove(key);
}

void ViaSets::remove(ViaKey key) {
  if (const auto via = table_.via(key)) {
    const auto found = keys_.find(bytesOf(*via));
    if (found != keys_.end() && found->second == key) keys_.erase(found);
  }
  table_.viaDel(key);
  users_.erase(key);
}

void ViaSets::removeUnused() {
  std::vector<ViaKey> unused;
  for (const auto& [key, users] : users_) {
    if (users == 0) unused.push_back(key);
  }
  for (const ViaKey key : unused) remove(key);
}

void ViaSets::checkInvariants() const {
  const auto check = [](bool holds, const char* what) {
    if (!holds) throw std::logic_error(what);
  };
  check(users_.size() == table_.size(), "every via of the table is known");
  for (const auto& [content, key] : keys_) {
    const auto via = table_.via(key);
    check(via && bytesOf(*via) == content, "a via holds what it is found by");
  }
}

}  // namespace Netlink
