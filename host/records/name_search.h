// Recognises the records of a category that have a certain name, in a scan over all its keys.
#pragma once

#include <string>
#include <string_view>

namespace vexa::cluster {

// Searches "<category>/<id>/name" and "<category>/<id>/object"; the first overrides the member of the second. It parses
// only records that can hold the name. Values must come in the order of their keys.
// Threads: one.
class NameSearch {
 public:
  explicit NameSearch(const std::string& name);

  // `rest` is the key after the category and a slash. Returns whether this value gives a record the name. A damaged
  // record has no name: one damaged record must not make every search fail.
  bool Matches(std::string_view rest, std::string_view text);

 private:
  enum class Place { kValue, kMember };

  bool MayBeIn(std::string_view text) const;
  bool HasUsableEscape(std::string_view text) const;
  bool Holds(std::string_view text, Place place) const;

  const std::string name_;
  const std::string quoted_;
  const bool is_escaped_;    // in JSON
  std::string named_apart_;  // the last id with a separate name key; "name" sorts before "object"
};

}  // namespace vexa::cluster
