#include <string>
#include <vector>

#include "json/readers.h"
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

constexpr int kNotReserved = 1503;       // the host's: edited, but some hosts could not reserve
constexpr int kPartsNotReserved = 2101;  // the host's: not edited, and which parts could not be reserved

constexpr int kRightsNotSet = 1001;
constexpr int kEditedWithoutReservation = 1600;
constexpr int kThreadsNotReserved = 943;
constexpr int kOtherPartNotReserved = 413;

struct FailureRow {
  int host_code;
  int answer;
  Line line;
};

// One line a row, and no text in two pieces, so that it can be searched for.
// clang-format off

constexpr FailureRow kFailures[] = {
    {932, 930,
     {"Failed to edit the virtual machine [%s] due to iso images update failure.", Fill::kGuest}},
    {903, 919,
     {"Failed to edit the virtual machine [%s] due to network configuration error.", Fill::kGuest}},
    {410, 411,
     {"Failed to add disks in the virtual machine [%s] due to the number of iSCSI LUN has reached the system limit.", Fill::kGuest}},
    {kHostTooOld, kIncompatibleHost, {kIncompatibleLine, Fill::kOperation}},
    {904, 920,
     {"Failed to edit the virtual machine [%s] because the virtual disk cannot be edited.", Fill::kGuest}},
    {924, 926,
     {"Failed to online delete virtual disk in the virtual machine [%s] because the virtual machine's version is too old.", Fill::kGuest}},
    {944, 946,
     {"Failed to edit the virtual machine [%s] because the virtual disk cannot be edited while the virtual machine is suspended.", Fill::kGuest}},
    {936, 935,
     {"Failed to do usb passthrough in the virtual machine [%s].", Fill::kGuest}},
    {938, 937,
     {"Failed to do usb passthrough in the virtual machine [%s].", Fill::kGuest}},
};
constexpr FailureRow kAnyOtherFailure = {0, 909,
     {"Failed to edit the virtual machine [%s] due to internal read/write error.", Fill::kGuest}};

constexpr Line kNotReservedLine =
     {"The virtual machine [%s] has been successfully edited but failed to perform memory or CPU reservation on the host [%s].", Fill::kGuestAndHost};
constexpr Line kThreadsNotReservedLine =
     {"Failed to edit the virtual machine [%s] due to failure when reserving cpu threads.", Fill::kGuest};

// clang-format on

constexpr bool AreSound() {
  for (const FailureRow& row : kFailures) {
    if (!IsSound(row.line)) return false;
  }
  return IsSound(kAnyOtherFailure.line) && IsSound(kNotReservedLine) && IsSound(kThreadsNotReservedLine);
}
static_assert(AreSound(), "each line has one %s for each of its values, and no other placeholder");

const FailureRow& FailureOf(int host_code) {
  for (const FailureRow& row : kFailures) {
    if (row.host_code == host_code) return row;
  }
  return kAnyOtherFailure;
}

void TellFailure(const Subject& subject, const Line& line, const std::string& hosts = "") {
  Tell(subject.user, VexaCCC::CLOG_PRIORITY_FAILURE, line, {subject.previous_name, hosts, "edit virtual machine"});
}

// The member names of `hosts` are host ids.
void ReportNotReserved(const Subject& subject, const Json::Value& hosts, VEXA::APIResponse* response) {
  Json::Value names;
  GetHostNamesByIds(json::MemberNames(hosts), names);
  const std::string joined = VexaCCC::Utils::join(names, ", ");
  TellFailure(subject, kNotReservedLine, joined);
  response->SetError(kEditedWithoutReservation, VexaCCC::Utils::makeJsonObject({{"host_names", joined}}));
}

// The last part that could not be reserved decides the answer. Intentional: when all could be, there is none.
void ReportPartsNotReserved(const Subject& subject, const Json::Value& parts, VEXA::APIResponse* response) {
  for (const std::string& part : json::MemberNames(parts)) {
    if (json::Bool(json::Member(parts, part))) continue;
    if (part == "pin_reserved") {
      TellFailure(subject, kThreadsNotReservedLine);
      response->SetError(kThreadsNotReserved, Json::Value());
    } else {
      response->SetError(kOtherPartNotReserved, Json::Value());
    }
  }
}

}  // namespace

void ReportFailure(const Subject& subject, const VexaDRCore::Response& reply, VEXA::APIResponse* response) {
  const int code = reply.getErrCode();
  if (code == kNotReserved) return ReportNotReserved(subject, reply.getErrMsg(), response);
  if (code == kPartsNotReserved) return ReportPartsNotReserved(subject, reply.getErrMsg(), response);
  const FailureRow& failure = FailureOf(code);
  TellFailure(subject, failure.line);
  response->SetError(failure.answer, Json::Value());
}

void ReportSuccess(const Subject& subject, const Json::Value& privileges, VEXA::APIResponse* response) {
  std::vector<std::string> failed_users;
  // Also without rules.
  if (VexaCCC::gaGuestSet(subject.guest_id, Guest::jsObject2vcGaRuleList(privileges), failed_users) < 0) {
    const std::string users = JoinVecString(failed_users, ",");
    VexaCCC::ClusterLogAdd(subject.user, VexaCCC::CLOG_PRIORITY_FAILURE,
                           "Failed to configure permission settings for the user [%s] on the virtual machine [%s].",
                           users.c_str(), subject.previous_name.c_str());
    return response->SetError(kRightsNotSet, Json::Value());
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
