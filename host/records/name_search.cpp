#include "host/records/name_search.h"

#include <algorithm>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;

bool IsEscapedInJson(char c) { return c == '"' || c == '\\' || (c >= 0 && c < ' '); }

bool IsString(const Json::Value& value, const std::string& text) {
  return value.isString() && json::String(value) == text;
}

}  // namespace

NameSearch::NameSearch(const std::string& name)
    : name_(name), quoted_('"' + name + '"'), is_escaped_(std::ranges::any_of(name, IsEscapedInJson)) {}

bool NameSearch::Matches(std::string_view rest, std::string_view text) {
  const std::size_t slash = rest.find('/');
  if (slash == std::string_view::npos) return false;
  const std::string_view id = rest.substr(0, slash);
  const std::string_view key = rest.substr(slash + 1);
  if (key == keys::name) {
    named_apart_ = id;
    return MayBeIn(text) && Holds(text, Place::kValue);
  }
  if (key != keys::object || id == named_apart_ || !MayBeIn(text)) return false;
  return Holds(text, Place::kMember);
}

// Rules out most JSON texts cheaply: those in which no string can be the name.
bool NameSearch::MayBeIn(std::string_view text) const {
  return (!is_escaped_ && text.find(quoted_) != std::string_view::npos) || HasUsableEscape(text);
}

// If the name itself must be escaped, it can be behind any backslash. Otherwise only characters that need no escape can
// have been escaped, as "\u0041" or "\/": the line breaks of a description do not count.
bool NameSearch::HasUsableEscape(std::string_view text) const {
  for (std::size_t at = text.find('\\'); at != std::string_view::npos; at = text.find('\\', at + 2)) {
    if (is_escaped_ || at + 1 >= text.size() || text[at + 1] == 'u' || text[at + 1] == '/') return true;
  }
  return false;
}

bool NameSearch::Holds(std::string_view text, Place place) const {
  const Result<Json::Value> value = ParseJson(text);
  if (!value) return false;
  return IsString(place == Place::kValue ? *value : json::Member(*value, keys::name), name_);
}

}  // namespace vexa::cluster
