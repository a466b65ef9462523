#include "host/cluster/ha_group.h"

#include <array>

#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/ccc_ha.h"

namespace vexa::cluster {
namespace {

constexpr char kRole[] = "ha_host_role";
constexpr char kRocky[] = "ha_warn_host_rocky";
constexpr char kNotCompatible[] = "ha_warn_host_not_compatible";
constexpr std::array kShortages{"ha_warn_host_short_ram", "ha_warn_host_short_cpu", "ha_warn_host_short_cpu_pin"};

template <class Accept>
Json::Value Filtered(const Json::Value& array, Accept accept) {
  Json::Value result(Json::arrayValue);
  for (const Json::Value& element : json::Elements(array)) {
    if (accept(element)) result.append(element);
  }
  return result;
}

Json::Value HostItem(const Json::Value& host) {
  Json::Value item(Json::objectValue);
  const Json::Value& id = json::Member(host, VexaCCC::DB::_k::host_id);
  item[VexaCCC::DB::_k::host_id] = id.isString() ? id : Json::Value("");
  item[kRole] = Filtered(json::Member(host, kRole), [](const Json::Value& role) { return role.isString(); });
  if (const Json::Value& rocky = json::Member(host, kRocky); rocky.isInt()) item[kRocky] = rocky;
  if (const Json::Value& checks = json::Member(host, kNotCompatible); checks.isArray()) {
    item[kNotCompatible] = Filtered(checks, [](const Json::Value& check) { return check.isInt(); });
  }
  return item;
}

// The shortages of resources that at least one host has.
Json::Value WarningsOf(const Json::Value& group) {
  Json::Value result(Json::objectValue);
  const Json::Value& warn = json::Member(group, "warn");
  for (const char* shortage : kShortages) {
    const Json::Value& hosts = json::Member(warn, shortage);
    if (hosts.isObject() && !hosts.empty()) result[shortage] = hosts;
  }
  return result;
}

Result<records::Record> ReadGroup(const std::string& id) {
  const auto reader = records::ReaderOfRequest();
  if (!reader) return reader.error();
  return (*reader)->ReadObject(kHaGroup.name(), id);
}

}  // namespace

Json::Value HaInfoOf(const Json::Value& group) {
  Json::Value info(Json::objectValue);
  Json::Value& hosts = info["hosts"] = Json::Value(Json::arrayValue);
  for (const Json::Value& host : json::Elements(json::Member(group, "hosts"))) {
    if (host.isObject()) hosts.append(HostItem(host));
  }
  return info;
}

}  // namespace vexa::cluster

namespace VexaCCC {

int haStateGet(const std::string& group_id, std::string& state) {
  return DB::Dashboard(vexa::cluster::kHaGroup, group_id).Get(state, DB::_k::state) == 0 ? 0 : -1;
}

int haWarnGet(const std::string& group_id, Json::Value& warn) {
  const auto group = vexa::cluster::ReadGroup(group_id);
  if (!group) return -1;
  warn = vexa::cluster::WarningsOf(**group);
  return 0;
}

int haErrorGet(const std::string& group_id, HA_FAIL_REASON& code) {
  const auto group = vexa::cluster::ReadGroup(group_id);
  if (!group) return -1;
  const Json::Value& reason = VexaVirtualization::json::Member(**group, "fail_reason");
  code = reason.isInt() ? static_cast<HA_FAIL_REASON>(VexaVirtualization::json::Int(reason)) : HA_FAIL_NONE;
  return 0;
}

namespace DB::HostState {

std::string toString(int bit) {
  // Bits 0 to 2 also concern a host that only provides the repository.
  constexpr std::array kNames{"offline_storage", "degraded_storage", "unstable_network", "upgrading",
                              "stopped_service"};
  if (bit < 0 || bit >= static_cast<int>(kNames.size())) return {};
  return kNames.at(static_cast<std::size_t>(bit));
}

}  // namespace DB::HostState

}  // namespace VexaCCC
