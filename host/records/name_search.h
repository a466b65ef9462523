// Recognises the records of a category that have a certain name, in a scan over all its keys.
#pragma once

#include <string>
#include <string_view>

#include "host/base/result.h"
#include "host/store/store.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {

// Searches the values of "<category>/<id>/name" and the member "name" of "<category>/<id>/object"; the first overrides
// the second. Parses only values that may contain the name. Must be fed the values in the order of their keys. Threads:
// one.
class NameSearch {
 public:
  explicit NameSearch(const std::string& name);

  // Whether the value `text` gives a record this name. `rest` is its key without "<category>/". A damaged record has no
  // name: one damaged record must not make every search fail.
  bool Matches(std::string_view rest, std::string_view text);

 private:
  enum class NameSource { kNameKey, kObjectMember };

  bool MayContainName(std::string_view text) const;
  bool MayContainNameInEscapes(std::string_view text) const;
  bool HasName(std::string_view text, NameSource source) const;

  const std::string name_;
  const std::string quoted_;
  const bool is_escaped_;         // whether JSON must escape a character of the name
  std::string id_with_name_key_;  // the last id with a separate name key; "name" sorts before "object"
};

// Whether a record of the category has the name. Errors: those of the store.
Result<bool> IsNameTaken(const store::Snapshot& snapshot, const std::string& name,
                         const VexaCCC::DB::DashCate& category);

}  // namespace vexa::records
