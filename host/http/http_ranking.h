// Decides which of many connections matters least.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>

namespace vexa::http {

class ConnectionPlace;

// Connections by group, such as the network or the user that they belong to. Threads: one at a time.
class Ranking {
 public:
  // `number` orders the connections by age and is unique; the lowest one is the oldest.
  void Add(const std::string& group, std::uint64_t number, ConnectionPlace* place);
  void Remove(const std::string& group, std::uint64_t number);

  // The oldest connection of the largest group, so that a peer with many connections loses one before a peer with few
  // does. Of groups of equal size, the one with the oldest connection. Null when all groups are empty.
  ConnectionPlace* OldestOfLargest() const;
  // The oldest connection of the group; null when the group is empty.
  ConnectionPlace* OldestOf(const std::string& group) const;
  std::size_t SizeOf(const std::string& group) const;
  std::size_t SizeOfLargest() const;

 private:
  using Group = std::map<std::uint64_t, ConnectionPlace*>;
  // Of the group, the size and how old its oldest connection is: the last one in the order is the one to take from.
  using Rank = std::tuple<std::size_t, std::uint64_t, const Group*>;
  static Rank RankOf(const Group& group);

  std::unordered_map<std::string, Group> groups_;  // none is empty
  std::set<Rank> ranks_;
};

}  // namespace vexa::http
