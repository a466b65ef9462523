// Counts the memory that peers occupy with bodies that have not arrived and replies that they have not read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>

namespace vexa::http {

class ConnectionPlace;

// Threads: one at a time.
class HeldBytes {
 public:
  struct Holding {
    ConnectionPlace* place = nullptr;
    std::size_t bytes = 0;
  };

  // Replaces what the connection holds; 0 forgets it. `number` is the connection's from the time when it began to hold
  // something, and orders the connections by age.
  void Set(const std::string& group, std::uint64_t number, Holding holding);

  std::size_t total() const { return total_; }
  std::size_t BytesOf(const std::string& group) const;
  // The group's connection that has held something for the longest time. Null when only one connection or none does: a
  // single request or reply may be as long as its own limit allows.
  ConnectionPlace* OldestOfSeveral(const std::string& group) const;
  // Of the group that holds the most, the connection that has held something for the longest time. Null when only one
  // connection of all groups or none does.
  ConnectionPlace* OldestOfLargest() const;

 private:
  struct Group {
    std::size_t bytes = 0;
    std::map<std::uint64_t, Holding> members;
  };
  std::unordered_map<std::string, Group> groups_;
  std::size_t total_ = 0;
};

}  // namespace vexa::http
