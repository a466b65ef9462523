#include "host/records/repository_host.h"

#include "host/base/json_parse.h"
#include "host/records/keys.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {
namespace {

using VexaCCC::DB::DashCate;

}  // namespace

Result<std::string> RepositoryHost(const store::Snapshot& snapshot, const Json::Value& guest) {
  const Json::Value& id = json::Member(guest, keys::repository_id);
  if (!id.isString()) return std::string();
  for (const char* name : {keys::host_id, keys::object}) {
    const auto value = snapshot.Get(MemberKey(DashCate::Repository.name(), json::String(id), name));
    if (!value) return value.error();
    if (!value->has_value()) continue;
    const Result<Json::Value> parsed = ParseJson((*value)->text);
    if (!parsed) continue;
    const Json::Value& host_id = name == keys::object ? json::Member(*parsed, keys::host_id) : *parsed;
    if (host_id.isString()) return json::String(host_id);
  }
  return std::string();
}

}  // namespace vexa::records
