#include "host/http/http_ranking.h"

namespace vexa::http {

Ranking::Rank Ranking::RankOf(const Group& group) { return {group.size(), ~group.begin()->first, &group}; }

void Ranking::Add(const std::string& group, std::uint64_t number, ConnectionPlace* place) {
  Group& members = groups_[group];
  if (!members.empty()) ranks_.erase(RankOf(members));
  members.emplace(number, place);
  ranks_.insert(RankOf(members));
}

void Ranking::Remove(const std::string& group, std::uint64_t number) {
  const auto found = groups_.find(group);
  Group& members = found->second;
  ranks_.erase(RankOf(members));
  members.erase(number);
  if (members.empty()) {
    groups_.erase(found);
  } else {
    ranks_.insert(RankOf(members));
  }
}

ConnectionPlace* Ranking::OldestOfLargest() const {
  return ranks_.empty() ? nullptr : std::get<const Group*>(*ranks_.rbegin())->begin()->second;
}

ConnectionPlace* Ranking::OldestOf(const std::string& group) const {
  const auto found = groups_.find(group);
  return found == groups_.end() || found->second.empty() ? nullptr : found->second.begin()->second;
}

std::size_t Ranking::SizeOfLargest() const { return ranks_.empty() ? 0 : std::get<0>(*ranks_.rbegin()); }

std::size_t Ranking::SizeOf(const std::string& group) const {
  const auto found = groups_.find(group);
  return found == groups_.end() ? 0 : found->second.size();
}

}  // namespace vexa::http
