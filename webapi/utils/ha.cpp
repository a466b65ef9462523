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

// Log monitors match this position; it must not change.
constexpr int kBadParametersPosition = 869;

// Each is used as a reason and as a detail; some are also member names in the input.
constexpr const char* kInaccessible = "ha_warn_host_inaccessible";
constexpr const char* kDegraded = "ha_warn_host_rocky";
constexpr const char* kNotCompatible = "ha_warn_host_not_compatible";
constexpr const char* kShortages[] = {"ha_warn_host_short_ram", "ha_warn_host_short_cpu", "ha_warn_host_short_cpu_pin"};

// The problems of a host are bits 0 to 4. Bit 3 is ignored here. For a host with only the storage role, only the
// first three bits count.
constexpr int kProblemCount = 5;
constexpr unsigned int kIgnoredProblem = 1u << 3;
constexpr unsigned int kStorageProblems = 7u;

// Builds the user-interface records of a group's hosts. The first rule that matches sets the reason; the others only
// add details.
class HaHostEvaluator {
 public:
  HaHostEvaluator(const Json::Value& items, std::string& reason) : items_(json::Elements(items)), reason_(reason) {
    for (const Json::Value& item : items_) records_.append(NewRecord(item));
  }

  // An array with one record per item, in the same order.
  const Json::Value& records() const { return records_; }

  void CheckInaccessible();
  void CheckShortages(const Json::Value& warn);
  void CheckIncompatible();
  void CheckDegraded();

 private:
  static Json::Value NewRecord(const Json::Value& item);
  static bool HasOnlyStorageRole(const Json::Value& record);

  void SetReasonIfUnset(const char* reason) {
    if (reason_.empty()) reason_ = reason;
  }
  // An inaccessible host gets no other detail.
  void AddDetail(Json::ArrayIndex item, const std::string& detail) {
    Json::Value& details = records_[item]["ha_host_status_detail"];
    if (!IsFindInSTLContainer(details, kInaccessible)) details.append(detail);
  }

  const Json::Value& items_;
  std::string& reason_;
  Json::Value records_{Json::arrayValue};
};

Json::Value HaHostEvaluator::NewRecord(const Json::Value& item) {
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

bool HaHostEvaluator::HasOnlyStorageRole(const Json::Value& record) {
  const Json::Value& roles = json::Member(record, "ha_host_role");
  return IsFindInSTLContainer(roles, "repo_host") && !IsFindInSTLContainer(roles, "recovery_host") &&
         !IsFindInSTLContainer(roles, "running_host");
}

void HaHostEvaluator::CheckInaccessible() {
  for (Json::ArrayIndex i = 0; i < items_.size(); ++i) {
    if (json::Int(json::Member(items_[i], kDegraded)) >= 0) continue;
    SetReasonIfUnset(kInaccessible);
    AddDetail(i, kInaccessible);
  }
}

void HaHostEvaluator::CheckShortages(const Json::Value& warn) {
  for (const char* shortage : kShortages) {
    const Json::Value& hosts = json::Member(warn, shortage);
    if (hosts.isObject() && !hosts.empty()) SetReasonIfUnset(shortage);
  }
  for (Json::ArrayIndex i = 0; i < items_.size(); ++i) {
    const std::string host_id = json::String(json::Member(items_[i], "host_id"));
    for (const char* shortage : kShortages) {
      if (json::FindMember(json::Member(warn, shortage), host_id)) AddDetail(i, shortage);
    }
  }
}

void HaHostEvaluator::CheckIncompatible() {
  for (Json::ArrayIndex i = 0; i < items_.size(); ++i) {
    for (const Json::Value& code : json::Elements(json::Member(items_[i], kNotCompatible))) {
      const auto check = static_cast<VMCHECK>(json::Int(code));
      if (check != VMCHECK_HARDWARE_INCOMPATIBLE && check != VMCHECK_SRIOV_ENABLED) continue;
      SetReasonIfUnset(kNotCompatible);
      AddDetail(i, GetVMCheckText(check));
    }
  }
}

void HaHostEvaluator::CheckDegraded() {
  for (Json::ArrayIndex i = 0; i < items_.size(); ++i) {
    const auto problems = static_cast<unsigned int>(json::Int(json::Member(items_[i], kDegraded)));
    const unsigned int mask = problems & (HasOnlyStorageRole(records_[i]) ? kStorageProblems : ~kIgnoredProblem);
    // Negative means inaccessible. Bits without a name set the reason but add no detail.
    if (static_cast<int>(mask) <= 0) continue;
    SetReasonIfUnset(kDegraded);
    for (int bit = 0; bit < kProblemCount; ++bit) {
      if (mask & 1u << bit) AddDetail(i, std::string(kDegraded) + "_" + VexaCCC::DB::HostState::toString(bit));
    }
  }
}

void SetSeverity(Json::Value& record) {
  UIState displayed;
  GetStateType(STATE_CATE_HOST, json::String(json::Member(record, "ha_host_status")), displayed);
  const bool has_details = !json::Member(record, "ha_host_status_detail").empty();
  json::EnsureObject(record)["ha_host_status_type"] =
      displayed.type == "healthy" && has_details ? "warning" : displayed.type;
}

}  // namespace

void GetHAWarnReason(const Json::Value& ha, const Json::Value& warn, std::string& reason, Json::Value& hosts) {
  if (!hosts.isArray()) {
    VEXA_LOG_AT(LOG_ERR, "utils", kBadParametersPosition, "Bad parameters");
    return;
  }
  reason.clear();
  HaHostEvaluator evaluator(json::Member(ha, "hosts"), reason);
  evaluator.CheckInaccessible();
  evaluator.CheckShortages(warn);
  evaluator.CheckIncompatible();
  evaluator.CheckDegraded();
  // Last, because `hosts` may alias the input, and appending while iterating would never end.
  for (const Json::Value& record : evaluator.records()) hosts.append(record);
  for (Json::Value& record : hosts) SetSeverity(record);
}

}  // namespace VexaVirtualization
