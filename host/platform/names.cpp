// Names of objects by their ids, and small helpers for JSON and strings.
#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "host/records/keys.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace VexaCCC::Utils {
namespace {

// As GetNameById, but does not fill the cache of parsed records, for passes over many objects.
bool ReadNameUncached(const vexa::records::Reader& reader, const DB::DashCate& category, const std::string& id,
                      std::string& name) {
  const auto key = [&](const char* member) { return vexa::records::MemberKey(category.name(), id, member); };
  auto value = reader.ReadUncached(key(DB::_k::name));
  const bool has_own_key = value && *value;
  if (value && !*value) value = reader.ReadUncached(key(DB::_k::object));
  if (!value || !*value) return false;
  const Json::Value& found = has_own_key ? **value : VexaVirtualization::json::Member(**value, DB::_k::name);
  if (!found.isString()) return false;
  name = VexaVirtualization::json::String(found);
  return true;
}

}  // namespace

int GetNameById(const DB::DashCate& category, const std::string& id, std::string& name) {
  return DB::Dashboard(category, id).Get(name, DB::_k::name);
}

bool GetHostNameById(const std::string& id, std::string& name) {
  return GetNameById(DB::DashCate::Host, id, name) == 0;
}

int GetNameList(const DB::DashCate& category, const std::vector<std::string>& ids, std::vector<std::string>& names) {
  const auto reader = vexa::records::ReaderOfRequest();
  if (!reader) return -1;
  std::vector<std::string> found(ids.size());
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (!ReadNameUncached(**reader, category, ids[i], found[i])) return -1;
  }
  names = std::move(found);
  return 0;
}

bool jsChkMemberInDepth(const Json::Value& value, std::initializer_list<const char*> path) {
  const Json::Value* current = &value;
  for (const char* member : path) {
    current = member ? VexaVirtualization::json::FindMember(*current, member) : nullptr;
    if (!current) return false;
  }
  return true;
}

std::string join(const Json::Value& array, const std::string& separator) {
  namespace json = VexaVirtualization::json;
  std::string joined;
  for (Json::ArrayIndex i = 0; i < json::Elements(array).size(); ++i) {
    if (i > 0) joined += separator;
    joined += json::String(json::Element(array, i));
  }
  return joined;
}

Json::Value makeJsonObject(const std::map<std::string, std::string>& members) {
  Json::Value object(Json::objectValue);
  for (const auto& [name, text] : members) object[name] = text;
  return object;
}

std::string TrimOVSPrefix(const std::string& name) {
  constexpr std::string_view kPrefix = "ovs_";
  return name.starts_with(kPrefix) ? name.substr(kPrefix.size()) : name;
}

}  // namespace VexaCCC::Utils
