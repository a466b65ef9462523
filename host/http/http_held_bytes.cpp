#include "host/http/http_held_bytes.h"

#include <algorithm>

namespace vexa::http {

void HeldBytes::Set(const std::string& group, std::uint64_t number, Holding holding) {
  if (holding.bytes == 0 && groups_.find(group) == groups_.end()) return;
  Group& members = groups_[group];
  Holding& known = members.members[number];
  members.bytes += holding.bytes - known.bytes;
  total_ += holding.bytes - known.bytes;
  known = holding;
  if (holding.bytes != 0) return;
  members.members.erase(number);
  if (members.members.empty()) groups_.erase(group);
}

std::size_t HeldBytes::BytesOf(const std::string& group) const {
  const auto found = groups_.find(group);
  return found == groups_.end() ? 0 : found->second.bytes;
}

ConnectionPlace* HeldBytes::OldestOfSeveral(const std::string& group) const {
  const auto found = groups_.find(group);
  if (found == groups_.end() || found->second.members.size() < 2) return nullptr;
  return found->second.members.begin()->second.place;
}

ConnectionPlace* HeldBytes::OldestOfLargest() const {
  const auto largest = std::max_element(groups_.begin(), groups_.end(), [](const auto& left, const auto& right) {
    return left.second.bytes < right.second.bytes;
  });
  if (largest == groups_.end()) return nullptr;
  const auto& members = largest->second.members;
  return groups_.size() == 1 && members.size() < 2 ? nullptr : members.begin()->second.place;
}

}  // namespace vexa::http
