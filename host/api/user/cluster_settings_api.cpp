#include "host/api/user/cluster_settings_api.h"

#include <fmt/format.h>

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "host/api/rows.h"
#include "host/api/user/outcome_log.h"
#include "host/base/sanitize_for_log.h"
#include "host/cluster/host_name.h"
#include "host/cluster/settings.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

using VexaCCC::DB::DashCate;

constexpr char kAutoSelectHost[] = "auto_select_host";
constexpr char kUpgrading[] = "upgrading";
constexpr char kPlacement[] = "placement";
constexpr std::size_t kMaxQuoted = 128;

// A switch of the call, if it is given; false: it is not a switch, and the call has been answered.
bool ReadSwitch(const Call& call, const Json::Value& parameters, const char* name, std::optional<bool>& value) {
  const Json::Value* const given = json::FindMember(parameters, name);
  if (!given) return true;
  if (given->isBool()) {
    value = given->asBool();
    return true;
  }
  Fail(call, user_error::kBadParameter,
       fmt::format("The parameter '{}' is not true or false: it is {}", name,
                   SanitizeForLog(json::ToText(*given), kMaxQuoted)));
  return false;
}

// False: a parameter is unknown, and the call has been answered.
bool HasOnly(const Call& call, const Json::Value& parameters, std::initializer_list<std::string_view> known) {
  for (const std::string& name : json::MemberNames(parameters)) {
    if (std::ranges::find(known, name) != known.end()) continue;
    Fail(call, user_error::kBadParameter,
         fmt::format("The parameter '{}' is unknown", SanitizeForLog(name, kMaxQuoted)));
    return false;
  }
  return true;
}

void RespondWithError(const Call& call, const Error& error) { Fail(call, user_error::kUnavailable, error.ToString()); }

// Responds with the settings as they are now.
void Get(const store::Store& store, const Call& call) {
  const auto reader = records::Reader::Open(store);
  if (!reader) return RespondWithError(call, reader.error());
  const auto cluster = cluster::ReadClusterSettings(*reader);
  if (!cluster) return RespondWithError(call, cluster.error());
  const auto upgrade = cluster::ReadUpgradeSettings(*reader);
  if (!upgrade) return RespondWithError(call, upgrade.error());
  Json::Value settings(Json::objectValue);
  settings[kAutoSelectHost] = cluster->auto_select_host;
  settings[kUpgrading] = upgrade->incompatible;
  call.response->SetSuccess(settings);
}

// Writes one setting and logs the outcome. False: it could not be written, and the call has been answered.
bool Write(const Call& call, const Status& written, const std::string& done, const std::string& failed) {
  LogOutcome(call, written ? Outcome::kDone : Outcome::kFailed, done, failed);
  if (!written) RespondWithError(call, written.error());
  return written.ok();
}

const char* OnOrOff(bool value) { return value ? "on" : "off"; }

void Set(store::Store& store, const Call& call) {
  const Json::Value parameters = call.request->GetParam("", Json::Value());
  std::optional<bool> auto_select_host;
  std::optional<bool> upgrading;
  if (!HasOnly(call, parameters, {kAutoSelectHost, kUpgrading}) ||
      !ReadSwitch(call, parameters, kAutoSelectHost, auto_select_host) ||
      !ReadSwitch(call, parameters, kUpgrading, upgrading)) {
    return;
  }
  if (!auto_select_host && !upgrading) {
    return Fail(call, user_error::kBadParameter,
                fmt::format("Neither '{}' nor '{}' is given", kAutoSelectHost, kUpgrading));
  }
  const records::RequestPause without_reader;
  if (auto_select_host &&
      !Write(call, cluster::WriteClusterSettings(store, {*auto_select_host}),
             fmt::format("The automatic selection of hosts has been switched {}.", OnOrOff(*auto_select_host)),
             fmt::format("Failed to switch the automatic selection of hosts {}.", OnOrOff(*auto_select_host)))) {
    return;
  }
  if (upgrading && !Write(call, cluster::WriteUpgradeSettings(store, {*upgrading}),
                          fmt::format("The upgrade mode of the cluster has been switched {}.", OnOrOff(*upgrading)),
                          fmt::format("Failed to switch the upgrade mode of the cluster {}.", OnOrOff(*upgrading)))) {
    return;
  }
  Get(store, call);
}

// False: the host could not be renamed, and the call has been answered.
bool Rename(store::Store& store, const Call& call, const std::string& host_id, const Json::Value& given) {
  const std::string name = given.isString() ? given.asString() : "";
  std::string old_name;
  const auto renamed = cluster::RenameHost(store, host_id, name, old_name);
  const std::string hosts =
      fmt::format("the host [{}] to [{}]", SanitizeForLog(old_name, kMaxQuoted), SanitizeForLog(name, kMaxQuoted));
  if (renamed || renamed.error().code == user_error::kRecordFailed) {
    LogOutcome(call, renamed ? Outcome::kDone : Outcome::kFailed, fmt::format("Renamed {}.", hosts),
               fmt::format("Failed to rename {}.", hosts));
  }
  if (!renamed) Fail(call, renamed.error().code, renamed.error().reason);
  return renamed.ok();
}

void EditHost(store::Store& store, const Call& call) {
  const Json::Value parameters = call.request->GetParam("", Json::Value());
  const auto id = call.request->GetAndCheckString("host_id", kRequired, VexaCCC::Utils::isUUID);
  if (id.IsInvalid()) return Fail(call, user_error::kBadParameter, "The parameter 'host_id' is not a UUID");
  std::optional<bool> placement;
  if (!HasOnly(call, parameters, {"host_id", keys::name, kPlacement}) ||
      !ReadSwitch(call, parameters, kPlacement, placement)) {
    return;
  }
  const bool has_name = json::FindMember(parameters, keys::name) != nullptr;
  if (!placement && !has_name) {
    return Fail(call, user_error::kBadParameter, fmt::format("Neither '{}' nor '{}' is given", keys::name, kPlacement));
  }
  const records::RequestPause without_reader;
  if (has_name && !Rename(store, call, id.Get(), json::Member(parameters, keys::name))) return;
  if (!placement) return call.response->SetSuccess(Json::Value());
  std::string name;
  {
    const auto reader = records::Reader::Open(store);
    if (!reader) return RespondWithError(call, reader.error());
    const auto host = reader->ReadObject(DashCate::Host.name(), id.Get());
    if (!host) return Fail(call, user_error::kNotFoundOrUnreadable, fmt::format("There is no host '{}'", id.Get()));
    name = SanitizeForLog(json::StringMember(**host, keys::name), kMaxQuoted);
  }
  if (!Write(call, cluster::WritePlacement(store, id.Get(), *placement),
             fmt::format("The placement of virtual machines on the host [{}] has been switched {}.", name,
                         OnOrOff(*placement)),
             fmt::format("Failed to switch the placement of virtual machines on the host [{}] {}.", name,
                         OnOrOff(*placement)))) {
    return;
  }
  call.response->SetSuccess(Json::Value());
}

}  // namespace

std::vector<ApiRow> ClusterSettingsRows(const std::shared_ptr<store::Store>& store) {
  const std::vector<int> errors{user_error::kBadParameter, user_error::kUnavailable};
  return {AdministratorRow("VEXA.Virtualization.Cluster", "get", LaneKind::kQuick,
                           [store](const Call& call) { Get(*store, call); }, "The settings of the whole cluster.", {},
                           {user_error::kUnavailable}),
          AdministratorRow(
              "VEXA.Virtualization.Cluster", "set", LaneKind::kLong, [store](const Call& call) { Set(*store, call); },
              "Change settings of the whole cluster; other settings stay. The reply has all of them.",
              {OptionalFlag(kAutoSelectHost,
                            "Whether a guest without a host is assigned one when it is powered on (default: true)."),
               OptionalFlag(kUpgrading,
                            "Whether the hosts are between two versions that cannot read each other's records: guests "
                            "are shown as frozen, and guests of other hosts are not ended.")},
              errors),
          AdministratorRow(
              "VEXA.Virtualization.Host", "edit", LaneKind::kLong,
              [store](const Call& call) { EditHost(*store, call); }, "Change the settings of a host.",
              {Text("host_id", "The host's id, a UUID."),
               Optional(keys::name, ParameterType::kString,
                        "A new name, 1 to 128 bytes, which no other host has. It is shown in place of its machine's."),
               {kPlacement, ParameterType::kBoolean, Necessity::kOptional,
                "Whether the host may be chosen for guests without a host, and for new guests (at first true)."}},
              {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kRecordExists,
               user_error::kRecordFailed, user_error::kUnavailable})};
}

}  // namespace vexa::api
