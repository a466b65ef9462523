#include <string>
#include <vector>

#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_ha.h"
#include "webapi/utils/log.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

namespace key = VexaCCC::DB::_k;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;
using VexaCCC::Utils::IsFindInSTLContainer;

// What log watchers know the line by.
constexpr int kBadParametersPosition = 869;

// Each is a reason, a detail, and in part a member of what is read.
constexpr const char* kInaccessible = "ha_warn_host_inaccessible";
constexpr const char* kDoubtful = "ha_warn_host_rocky";
constexpr const char* kNotCompatible = "ha_warn_host_not_compatible";
constexpr const char* kShortages[] = {"ha_warn_host_short_ram", "ha_warn_host_short_cpu", "ha_warn_host_short_cpu_pin"};

// The problems of a host are bits 0 to 4. Bit 3 is never looked at here, and of a host that has nothing but the storage
// only the first three are.
constexpr int kProblems = 5;
constexpr unsigned int kIgnoredProblem = 1u << 3;
constexpr unsigned int kStorageProblems = 7u;

// A group's hosts on their way to the user interface. The first rule that fires gives the reason; the others only add
// details.
class HostJudge {
 public:
  HostJudge(const Json::Value& items, std::string& reason) : items_(json::Elements(items)), reason_(reason) {
    for (const Json::Value& item : items_) records_.append(NewRecord(item));
  }

  // One record per item, in their order; an array.
  const Json::Value& records() const { return records_; }

  void FindInaccessible();
  void FindShort(const Json::Value& warn);
  void FindNotCompatible();
  void FindDoubtful();

 private:
  static Json::Value NewRecord(const Json::Value& item);
  static bool HoldsOnlyStorage(const Json::Value& record);

  void GiveReason(const char* reason) {
    if (reason_.empty()) reason_ = reason;
  }
  // An inaccessible host shows no other detail.
  void AddDetail(Json::ArrayIndex item, const std::string& detail) {
    Json::Value& details = records_[item]["ha_host_status_detail"];
    if (!IsFindInSTLContainer(details, kInaccessible)) details.append(detail);
  }

  const Json::Value& items_;
  std::string& reason_;
  Json::Value records_{Json::arrayValue};
};

Json::Value HostJudge::NewRecord(const Json::Value& item) {
  const std::string host_id = json::String(json::Member(item, "host_id"));
  std::string state;
  if (Dashboard(DashCate::Host, host_id).Get(state, key::state) != 0) state = VexaCCC::State::Host::inaccessible;
  std::string name;
  if (!VexaCCC::Utils::GetHostNameById(host_id, name)) name = "unknown";
  Json::Value record(Json::objectValue);
  record["ha_host_status"] = state;
  record["ha_host_role"] = json::Member(item, "ha_host_role");
  record["host_id"] = host_id;
  record["host_name"] = name;
  record["ha_host_status_detail"] = Json::Value(Json::arrayValue);
  record["ha_host_status_type"] = "healthy";
  return record;
}

bool HostJudge::HoldsOnlyStorage(const Json::Value& record) {
  const Json::Value& roles = json::Member(record, "ha_host_role");
  return IsFindInSTLContainer(roles, "repo_host") && !IsFindInSTLContainer(roles, "recovery_host") &&
         !IsFindInSTLContainer(roles, "running_host");
}

void HostJudge::FindInaccessible() {
  for (Json::ArrayIndex i = 0; i < items_.size(); ++i) {
    if (json::Int(json::Member(items_[i], kDoubtful)) >= 0) continue;
    GiveReason(kInaccessible);
    AddDetail(i, kInaccessible);
  }
}

void HostJudge::FindShort(const Json::Value& warn) {
  for (const char* shortage : kShortages) {
    const Json::Value& hosts = json::Member(warn, shortage);
    if (hosts.isObject() && !hosts.empty()) GiveReason(shortage);
  }
  for (Json::ArrayIndex i = 0; i < items_.size(); ++i) {
    const std::string host_id = json::String(json::Member(items_[i], "host_id"));
    for (const char* shortage : kShortages) {
      if (json::FindMember(json::Member(warn, shortage), host_id)) AddDetail(i, shortage);
    }
  }
}

void HostJudge::FindNotCompatible() {
  for (Json::ArrayIndex i = 0; i < items_.size(); ++i) {
    for (const Json::Value& code : json::Elements(json::Member(items_[i], kNotCompatible))) {
      const auto check = static_cast<VMCHECK>(json::Int(code));
      if (check != VMCHECK_HARDWARE_INCOMPATIBLE && check != VMCHECK_SRIOV_ENABLED) continue;
      GiveReason(kNotCompatible);
      AddDetail(i, GetVMCheckText(check));
    }
  }
}

void HostJudge::FindDoubtful() {
  for (Json::ArrayIndex i = 0; i < items_.size(); ++i) {
    const auto problems = static_cast<unsigned int>(json::Int(json::Member(items_[i], kDoubtful)));
    const unsigned int mask = problems & (HoldsOnlyStorage(records_[i]) ? kStorageProblems : ~kIgnoredProblem);
    // As a signed number: the sign says that the host is inaccessible. Bits without a name give the reason alone.
    if (static_cast<int>(mask) <= 0) continue;
    GiveReason(kDoubtful);
    for (int bit = 0; bit < kProblems; ++bit) {
      if (mask & 1u << bit) AddDetail(i, std::string(kDoubtful) + "_" + VexaCCC::DB::HostState::toString(bit));
    }
  }
}

void SetSeverity(Json::Value& record) {
  UIState shown;
  GetStateType(STATE_CATE_HOST, json::String(json::Member(record, "ha_host_status")), shown);
  const bool has_details = !json::Member(record, "ha_host_status_detail").empty();
  json::MakeObject(record)["ha_host_status_type"] = shown.type == "healthy" && has_details ? "warning" : shown.type;
}

}  // namespace

void GetHAWarnReason(const Json::Value& ha, const Json::Value& warn, std::string& reason, Json::Value& hosts) {
  if (!hosts.isArray()) {
    VEXA_LOG_AT(LOG_ERR, "utils", kBadParametersPosition, "Bad parameters");
    return;
  }
  reason.clear();
  HostJudge judge(json::Member(ha, "hosts"), reason);
  judge.FindInaccessible();
  judge.FindShort(warn);
  judge.FindNotCompatible();
  judge.FindDoubtful();
  // Last, since `hosts` may be a part of what is read: a list that grew while it was walked would never end.
  for (const Json::Value& record : judge.records()) hosts.append(record);
  for (Json::Value& record : hosts) SetSeverity(record);
}

}  // namespace VexaVirtualization
