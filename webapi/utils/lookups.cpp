#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/log.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

using VexaCCC::DB::DashCate;

// List() returns this for a category that was never created.
constexpr int kNeverCreated = 2;

constexpr int kNotListed = -1;
constexpr int kNotFound = -2;

// No separator is added while the result is empty.
void AppendJoined(std::string& joined, const std::string& element, const std::string& sep) {
  if (!joined.empty()) joined += sep;
  joined += element;
}

}  // namespace

int CheckNameConflict(const std::string& name, const DashCate& cate) {
  const int result = VexaCCC::Utils::CheckNameConflict(name, cate);
  if (result < 0) {
    VEXA_LOG("utils", "Failed to check name conflict.");
    return user_error::kNotFoundOrUnreadable;
  }
  if (result == 0) return 0;
  VEXA_LOG("utils", "[%s] name conflict.", name.c_str());
  return user_error::kNameInUse;
}

void GetHostNamesByIds(const std::vector<std::string>& ids, Json::Value& names) {
  names = Json::Value(Json::arrayValue);
  for (const std::string& id : ids) {
    std::string name;
    names.append(VexaCCC::Utils::GetHostNameById(id, name) ? name : "unknown");
  }
}

bool GetRepoNameById(const std::string& id, std::string& name) {
  return VexaCCC::Utils::GetNameById(DashCate::Repository, id, name) == 0;
}

bool GetGuestNameById(const std::string& id, std::string& name) {
  return VexaCCC::Utils::GetNameById(DashCate::Guest, id, name) == 0;
}

bool IsContain(const Json::Value& array, const std::string& s) {
  const Json::Value& elements = json::Elements(array);
  return std::find(elements.begin(), elements.end(), Json::Value(s)) != elements.end();
}

bool IsContain(const std::vector<std::string>& v, const std::string& s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}

std::string JoinJsArray(const Json::Value& array, const std::string& sep) {
  std::string joined;
  for (const Json::Value& element : json::Elements(array)) {
    if (!element.isString()) return "";
    AppendJoined(joined, json::String(element), sep);
  }
  return joined;
}

std::string JoinVecString(const std::vector<std::string>& v, const std::string& sep) {
  std::string joined;
  for (const std::string& element : v) AppendJoined(joined, element, sep);
  return joined;
}

Json::Value ConcatJsonArray(const Json::Value& a, const Json::Value& b) {
  Json::Value all = a;
  for (const Json::Value& element : json::Elements(b)) json::EnsureArray(all).append(element);
  return all;
}

int GetAllHosts(Json::Value& hosts) {
  std::vector<std::string> ids;
  // Unlike elsewhere, a missing category is an error: every cluster has a host.
  if (DashCate::Host.List(ids) != 0) return user_error::kNotFoundOrUnreadable;
  for (const std::string& id : ids) {
    Json::Value host(Json::objectValue);
    host["host_id"] = id;
    json::EnsureArray(hosts).append(std::move(host));
  }
  return 0;
}

int GetCateNameToIdMap(const DashCate& cate, std::map<std::string, std::string>& name_to_id) {
  name_to_id.clear();
  std::vector<std::string> ids;
  const int result = cate.List(ids);
  if (result != 0 && result != kNeverCreated) {
    VEXA_LOG("utils", "Failed to list all ids.");
    return result;
  }
  std::vector<std::string> names;
  if (VexaCCC::Utils::GetNameList(cate, ids, names) < 0 || names.size() != ids.size()) {
    VEXA_LOG("utils", "Failed to get name.");
    return result;
  }
  for (std::size_t i = 0; i < ids.size(); ++i) name_to_id[std::move(names[i])] = std::move(ids[i]);
  return 0;
}

int GetIdByName(const DashCate& cate, const std::string& name, std::string& id) {
  std::map<std::string, std::string> name_to_id;
  if (GetCateNameToIdMap(cate, name_to_id) < 0) {
    VEXA_LOG("utils", "Failed to list category and get all name of it.");
    return kNotListed;
  }
  const auto found = name_to_id.find(name);
  if (found == name_to_id.end()) {
    VEXA_LOG("utils", "Cannot find id with name[%s] in category.", name.c_str());
    return kNotFound;
  }
  id = found->second;
  return 0;
}

}  // namespace VexaVirtualization
