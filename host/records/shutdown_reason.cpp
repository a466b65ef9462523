#include "host/records/shutdown_reason.h"

#include <array>
#include <utility>

#include "host/records/live_state.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {
namespace {

namespace keys = VexaCCC::DB::_k;
namespace states = VexaCCC::State::Guest;

constexpr char kValue[] = "value";
constexpr char kForced[] = "forced";

// Indexed by value.
constexpr std::array<std::string_view, 17> kNames{"not_known",
                                                  "ended_from_inside",
                                                  "shut_down",
                                                  "powered_off",
                                                  "crashed",
                                                  "repository_full",
                                                  "storage_unavailable",
                                                  "storage_crashed",
                                                  "storage_read_only",
                                                  "fenced",
                                                  "host_offline",
                                                  "storage_inaccessible",
                                                  "start_failed_no_resources",
                                                  "start_failed_refused",
                                                  "start_failed_no_storage",
                                                  "start_failed_no_network",
                                                  "start_failed"};

}  // namespace

std::string_view ShutdownCauseName(ShutdownCause cause) { return kNames[static_cast<std::size_t>(cause)]; }

Json::Value ShutdownToJson(const ShutdownReason& reason) {
  Json::Value value(Json::objectValue);
  value[kValue] = static_cast<int>(reason.cause);
  value[kForced] = reason.is_forced;
  return value;
}

std::optional<ShutdownReason> ShutdownFromJson(const Json::Value& value) {
  const Json::Value& cause = json::Member(value, kValue);
  if (!cause.isUInt() || json::UInt(cause) >= kNames.size()) return std::nullopt;
  return ShutdownReason{static_cast<ShutdownCause>(json::UInt(cause)), json::Bool(json::Member(value, kForced))};
}

Result<std::optional<ShutdownReason>> ReadShutdown(const Reader& reader, const std::string& guest_id) {
  const auto live = reader.ReadUncached(LiveRecordKey(guest_id));
  if (!live && live.error().code() != ErrorCode::kCorrupt) return live.error();
  if (!live || !*live) return std::optional<ShutdownReason>();
  return ShutdownFromJson(json::Member(**live, kShutdownMember));
}

Status PutShutdownReason(const Reader& reader, const std::string& guest_id, Json::Value& record) {
  const Json::Value& state = json::Member(record, keys::state);
  const std::string name = state.isString() ? json::String(state) : std::string();
  // Called for every guest of a list: running guests have no reason.
  if (!record.isObject() || (name != states::shutdown && name != states::crashed)) return {};
  const auto reason = ReadShutdown(reader, guest_id);
  if (!reason) return reason.error();
  if (!*reason) return {};
  record[Json::StaticString(keys::shutdownreasonvalue)] = static_cast<int>((*reason)->cause);
  record[Json::StaticString(keys::is_forced_shutdown)] = (*reason)->is_forced;
  return {};
}

}  // namespace vexa::records
