#include <string>
#include <vector>

#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/guest/cluster_line.h"
#include "webapi/guest/guest.h"
#include "webapi/guest/guest_set.h"
#include "webapi/guest/incompatible.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"
#include "webapi/platform/ccc_log.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization::edit {
namespace {

struct FailureRow {
  int host_code;
  int error;
  Line line;
};

// Not formatted: every message stays on one line, so that it can be searched for.
// clang-format off

constexpr FailureRow kFailures[] = {
    {host_error::kNoImage, user_error::kImagesNotChanged,
     {"Failed to edit the virtual machine [%s] due to iso images update failure.", Placeholders::kGuest}},
    {host_error::kBadNic, user_error::kBadNetworkSettings,
     {"Failed to edit the virtual machine [%s] due to network configuration error.", Placeholders::kGuest}},
    {host_error::kTooManyDisks, user_error::kNewDisksExceedLunLimit,
     {"Failed to add disks in the virtual machine [%s] due to the number of iSCSI LUN has reached the system limit.", Placeholders::kGuest}},
    {host_error::kUnknownApi, user_error::kIncompatibleHost, {kIncompatibleLine, Placeholders::kOperation}},
    {host_error::kBadDisk, user_error::kDiskNotEditable,
     {"Failed to edit the virtual machine [%s] because the virtual disk cannot be edited.", Placeholders::kGuest}},
    {host_error::kTooOldToRemoveDisk, user_error::kTooOldToRemoveDisk,
     {"Failed to online delete virtual disk in the virtual machine [%s] because the virtual machine's version is too old.", Placeholders::kGuest}},
    {host_error::kSuspended, user_error::kSuspended,
     {"Failed to edit the virtual machine [%s] because the virtual disk cannot be edited while the virtual machine is suspended.", Placeholders::kGuest}},
    {host_error::kBadUsb, user_error::kUsbNotPassedThrough,
     {"Failed to do usb passthrough in the virtual machine [%s].", Placeholders::kGuest}},
    {host_error::kNoUsbPort, user_error::kNoUsbPort,
     {"Failed to do usb passthrough in the virtual machine [%s].", Placeholders::kGuest}},
};
constexpr FailureRow kDefaultFailure = {0, user_error::kEditFailed,
     {"Failed to edit the virtual machine [%s] due to internal read/write error.", Placeholders::kGuest}};

constexpr Line kNotReservedLine =
     {"The virtual machine [%s] has been successfully edited but failed to perform memory or CPU reservation on the host [%s].", Placeholders::kGuestAndHost};
constexpr Line kThreadsNotReservedLine =
     {"Failed to edit the virtual machine [%s] due to failure when reserving cpu threads.", Placeholders::kGuest};

// clang-format on

constexpr bool AllPlaceholdersMatch() {
  for (const FailureRow& row : kFailures) {
    if (!HasMatchingPlaceholders(row.line)) return false;
  }
  return HasMatchingPlaceholders(kDefaultFailure.line) && HasMatchingPlaceholders(kNotReservedLine) &&
         HasMatchingPlaceholders(kThreadsNotReservedLine);
}
static_assert(AllPlaceholdersMatch(), "each line has one %s for each of its values, and no other placeholder");

const FailureRow& FailureOf(int host_code) {
  for (const FailureRow& row : kFailures) {
    if (row.host_code == host_code) return row;
  }
  return kDefaultFailure;
}

void LogFailureToCluster(const Subject& subject, const Line& line, const std::string& hosts = "") {
  AddToClusterLog(subject.user, VexaCCC::CLOG_PRIORITY_FAILURE, line,
                  {subject.previous_name, hosts, "edit virtual machine"});
}

// `hosts` is an object keyed by the ids of the hosts that could not reserve resources.
void ReportNotReserved(const Subject& subject, const Json::Value& hosts, VEXA::APIResponse* response) {
  Json::Value names;
  GetHostNamesByIds(json::MemberNames(hosts), names);
  const std::string joined = VexaCCC::Utils::join(names, ", ");
  LogFailureToCluster(subject, kNotReservedLine, joined);
  response->SetError(user_error::kEditedWithoutReservation, VexaCCC::Utils::makeJsonObject({{"host_names", joined}}));
}

// `parts` maps each part to whether it was reserved. The last failed part determines the error code. Intentional: if
// all could be reserved, no error is set.
void ReportPartsNotReserved(const Subject& subject, const Json::Value& parts, VEXA::APIResponse* response) {
  for (const std::string& part : json::MemberNames(parts)) {
    if (json::Bool(json::Member(parts, part))) continue;
    if (part == "pin_reserved") {
      LogFailureToCluster(subject, kThreadsNotReservedLine);
      response->SetError(user_error::kCpuThreadsNotReserved, Json::Value());
    } else {
      response->SetError(user_error::kUnknownDiskTypeOrNotReserved, Json::Value());
    }
  }
}

}  // namespace

void ReportFailure(const Subject& subject, const VexaDRCore::Response& reply, VEXA::APIResponse* response) {
  const int code = reply.getErrCode();
  if (code == host_error::kEditedWithoutReservation) return ReportNotReserved(subject, reply.getErrMsg(), response);
  if (code == host_error::kPartsNotReserved) return ReportPartsNotReserved(subject, reply.getErrMsg(), response);
  const FailureRow& failure = FailureOf(code);
  LogFailureToCluster(subject, failure.line);
  response->SetError(failure.error, Json::Value());
}

void ReportSuccess(const Subject& subject, const Json::Value& privileges, VEXA::APIResponse* response) {
  std::vector<std::string> failed_users;
  // Called even without rules.
  if (VexaCCC::gaGuestSet(subject.guest_id, Guest::jsObject2vcGaRuleList(privileges), failed_users) < 0) {
    const std::string users = JoinVecString(failed_users, ",");
    VexaCCC::ClusterLogAdd(subject.user, VexaCCC::CLOG_PRIORITY_FAILURE,
                           "Failed to configure permission settings for the user [%s] on the virtual machine [%s].",
                           users.c_str(), subject.previous_name.c_str());
    return response->SetError(user_error::kRightsNotSet, Json::Value());
  }
  if (subject.new_name.empty()) {
    VexaCCC::ClusterLogAdd(subject.user, VexaCCC::CLOG_PRIORITY_SUCCESS,
                           "The virtual machine [%s] has been successfully edited.", subject.previous_name.c_str());
  } else {
    VexaCCC::ClusterLogAdd(subject.user, VexaCCC::CLOG_PRIORITY_SUCCESS,
                           "The virtual machine [%s] has been successfully edited and renamed to [%s].",
                           subject.previous_name.c_str(), subject.new_name.c_str());
  }
  response->SetSuccess(Json::Value());
}

}  // namespace VexaVirtualization::edit
