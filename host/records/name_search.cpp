#include "host/records/name_search.h"

#include <algorithm>

#include "host/base/json_parse.h"
#include "host/records/keys.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {
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
    id_with_name_key_ = id;
    return MayContainName(text) && HasName(text, NameSource::kNameKey);
  }
  if (key != keys::object || id == id_with_name_key_ || !MayContainName(text)) return false;
  return HasName(text, NameSource::kObjectMember);
}

// Rules out most values without parsing them: those in which no JSON string can be the name.
bool NameSearch::MayContainName(std::string_view text) const {
  return (!is_escaped_ && text.find(quoted_) != std::string_view::npos) || MayContainNameInEscapes(text);
}

// Whether `text` contains an escape that may be part of the name. If JSON must escape the name itself, any backslash
// may be. Otherwise only an escape that JSON does not require may be, such as "\u0041" or "\/", and not, for example, a
// line break in a description.
bool NameSearch::MayContainNameInEscapes(std::string_view text) const {
  for (std::size_t at = text.find('\\'); at != std::string_view::npos; at = text.find('\\', at + 2)) {
    if (is_escaped_ || at + 1 >= text.size() || text[at + 1] == 'u' || text[at + 1] == '/') return true;
  }
  return false;
}

bool NameSearch::HasName(std::string_view text, NameSource source) const {
  const Result<Json::Value> value = ParseJson(text);
  if (!value) return false;
  return IsString(source == NameSource::kNameKey ? *value : json::Member(*value, keys::name), name_);
}

Result<bool> IsNameTaken(const store::Snapshot& snapshot, const std::string& name,
                         const VexaCCC::DB::DashCate& category) {
  const std::string prefix = CategoryKey(category.name());
  NameSearch search(name);
  bool is_taken = false;
  const Status scanned = snapshot.Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
    if (key.size() > prefix.size()) is_taken = search.Matches(key.substr(prefix.size() + 1), value.text);
    return !is_taken;
  });
  if (!scanned) return scanned.error();
  return is_taken;
}

}  // namespace vexa::records
