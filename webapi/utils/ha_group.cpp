#include <string>

#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_ha.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

namespace HAGroup = VexaCCC::State::HAGroup;

// The platform reports a pending switchover as a failure; users see it as a separate state.
constexpr int kSwitchoverPending = 202;

struct FailureKeywordRow {
  int code;
  const char* keyword;
};

constexpr FailureKeywordRow kFailureKeywords[] = {
    {100, "ha_fail_no_avail_fo_host"},     {101, "ha_fail_poweron_guest"}, {102, "ha_fail_poweron_guest"},
    {103, "ha_fail_storage_inaccessible"}, {200, "ha_fail_move_guest"},    {201, "ha_fail_move_guest"},
};

const char* FailureKeyword(int code) {
  for (const FailureKeywordRow& row : kFailureKeywords) {
    if (row.code == code) return row.keyword;
  }
  return "unknown";
}

Json::Value ReadWarnings(const std::string& group_id) {
  Json::Value warn(Json::objectValue);
  return VexaCCC::haWarnGet(group_id, warn) == 0 ? warn : Json::Value(Json::objectValue);
}

int ReadFailure(const std::string& group_id) {
  VexaCCC::HA_FAIL_REASON code = VexaCCC::HA_FAIL_NONE;
  return VexaCCC::haErrorGet(group_id, code) == 0 ? code : VexaCCC::HA_FAIL_NONE;
}

// Sets the displayed state of the group; `reason` is set only if there is one.
void ApplyWarningOrFailure(const std::string& warn_reason, int failure, std::string& state, std::string& reason) {
  if (state == HAGroup::pause) return;
  if (state == HAGroup::normal && !warn_reason.empty()) {
    state = HAGroup::warning;
    reason = warn_reason;
  } else if (failure == kSwitchoverPending) {
    if (state == HAGroup::error) state = HAGroup::switchover_waiting;
  } else if (failure != VexaCCC::HA_FAIL_NONE) {
    state = HAGroup::error;
    reason = FailureKeyword(failure);
  }
}

}  // namespace

void GetGuestHAStateType(const Json::Value& guest, Json::Value& info, std::string& ui_state, std::string& type,
                         std::string& reason) {
  const std::string group_id = json::String(json::Member(guest, VexaCCC::DB::_k::ha_group_id));
  std::string state;
  if (!group_id.empty() && VexaCCC::haStateGet(group_id, state) == 0) {
    const Json::Value warn = ReadWarnings(group_id);
    const int failure = ReadFailure(group_id);
    std::string warn_reason;
    Json::Value hosts(Json::arrayValue);
    GetHAWarnReason(json::Member(info, "ha"), warn, warn_reason, hosts);
    ApplyWarningOrFailure(warn_reason, failure, state, reason);
    GetStateType(STATE_CATE_HA_GROUP, state, ui_state, type);
  }
  if (info.isObject()) info.removeMember("ha");
}

}  // namespace VexaVirtualization
