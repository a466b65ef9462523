// Small helpers of the cluster-control library that other code calls by name.
#include <string_view>

#include "webapi/platform/ccc.h"
#include "webapi/utils/json.h"

namespace VexaCCC::Utils {

int GetNameById(const DB::DashCate& category, const std::string& id, std::string& name) {
  return DB::Dashboard(category, id).Get(name, DB::_k::name);
}

bool jsChkMemberInDepth(const Json::Value& value, std::initializer_list<const char*> path) {
  const Json::Value* step = &value;
  for (const char* member : path) {
    step = member ? VexaVirtualization::json::FindMember(*step, member) : nullptr;
    if (!step) return false;
  }
  return true;
}

std::string TrimOVSPrefix(const std::string& name) {
  constexpr std::string_view kPrefix = "ovs_";
  return name.starts_with(kPrefix) ? name.substr(kPrefix.size()) : name;
}

}  // namespace VexaCCC::Utils
