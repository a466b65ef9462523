// Checks whether a name is taken, in one pass over the category's records.
//
// There is no index of names: every writer of a record, imports and repairs included, would have to maintain it, and a
// name missing from it would be assigned twice. A pass reads what the store has in memory anyway and parses almost none
// of it.
#include <algorithm>
#include <string_view>

#include "host/base/json_parse.h"
#include "host/records/keys.h"
#include "host/records/reading.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {
namespace {

// Rules out most JSON texts cheaply: those in which no string can be the name.
class NameFinder {
 public:
  explicit NameFinder(const std::string& name)
      : quoted_('"' + name + '"'),
        is_escaped_(std::ranges::any_of(name, [](char c) { return c == '"' || c == '\\' || (c >= 0 && c < ' '); })) {}

  bool MayBeIn(std::string_view text) const {
    return (!is_escaped_ && text.find(quoted_) != std::string_view::npos) || HasUsableEscape(text);
  }

 private:
  // If the name itself must be escaped, it can be behind any backslash. Otherwise only characters that need no escape
  // can have been escaped, as "\u0041" or "\/": the line breaks of a description do not count.
  bool HasUsableEscape(std::string_view text) const {
    for (std::size_t at = text.find('\\'); at != std::string_view::npos; at = text.find('\\', at + 2)) {
      if (is_escaped_ || at + 1 >= text.size() || text[at + 1] == 'u' || text[at + 1] == '/') return true;
    }
    return false;
  }

  const std::string quoted_;
  const bool is_escaped_;
};

bool IsString(const Json::Value& value, const std::string& text) {
  return value.isString() && json::String(value) == text;
}

// Searches "<category>/<id>/name" and "<category>/<id>/object"; the first overrides the member of the second.
class NameSearch {
 public:
  explicit NameSearch(const std::string& name) : name_(name), finder_(name) {}

  // `rest` is the key after the category and a slash. Returns whether this value is a name, and the requested one.
  bool Matches(std::string_view rest, std::string_view text) {
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos) return false;
    const std::string_view id = rest.substr(0, slash);
    const std::string_view key = rest.substr(slash + 1);
    if (key == keys::name) {
      named_apart_ = id;
      return finder_.MayBeIn(text) && Holds(text, Place::kValue);
    }
    if (key != keys::object || id == named_apart_ || !finder_.MayBeIn(text)) return false;
    return Holds(text, Place::kMember);
  }

 private:
  enum class Place { kValue, kMember };

  // A damaged record has no name: one damaged record must not make every check fail.
  bool Holds(std::string_view text, Place place) const {
    const Result<Json::Value> value = ParseJson(text);
    if (!value) return false;
    return IsString(place == Place::kValue ? *value : json::Member(*value, keys::name), name_);
  }

  const std::string& name_;
  const NameFinder finder_;
  std::string named_apart_;  // the last id with a separate name key; "name" sorts before "object"
};

Result<bool> IsNameTaken(const std::string& name, const VexaCCC::DB::DashCate& category) {
  const std::string prefix = CategoryKey(category.name());
  NameSearch search(name);
  bool taken = false;
  const Status scanned = ScanValues(prefix, [&](std::string_view key, const store::ValueView& value) {
    if (key.size() > prefix.size()) taken = search.Matches(key.substr(prefix.size() + 1), value.text);
    return !taken;
  });
  if (!scanned) return scanned.error();
  return taken;
}

}  // namespace
}  // namespace vexa::cluster

namespace VexaCCC::Utils {

int CheckNameConflict(const std::string& name, const DB::DashCate& category) {
  const vexa::Result<bool> taken = vexa::cluster::IsNameTaken(name, category);
  if (!taken) return -1;
  return *taken ? 1 : 0;
}

}  // namespace VexaCCC::Utils
