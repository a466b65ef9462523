#include "host/api/user/guest_api.h"

#include "host/api/edit_parameters.h"
#include "host/api/rows.h"
#include "host/api/user/edit_reason.h"
#include "host/api/user/guest_live_api.h"
#include "host/api/user/power_reason.h"
#include "host/api/user/simulated_guests.h"
#include "host/api/user/unreachable_host.h"
#include "webapi/error_codes.h"
#include "webapi/guest/guest.h"
#include "webapi/guest/guest_action.h"

namespace vexa::api {
namespace {

// Far more than a cluster has.
constexpr std::size_t kMaxHostIds = 1000;

}  // namespace

std::vector<ApiRow> GuestRows() {
  using namespace user_error;
  return {
      UserRow("VEXA.Virtualization.Guest", "get", LaneKind::kQuick,
              RequestResponseHandler(VexaVirtualization::Guest::Get),
              "The stored configuration of one guest: general settings, disks and network interfaces.",
              {Text("guest_id", "The guest's id, a UUID.")},
              {kBadParameter, kNotFoundOrUnreadable, kNotPermitted, kUnknownDiskTypeOrNotReserved}),
      UserRow("VEXA.Virtualization.Guest", "set", LaneKind::kLong,
              WithApply(WithEditReason(RequestResponseHandler(VexaVirtualization::Guest::Set))),
              "Edit a guest; settings that are not given stay unchanged. For administrators and advanced users. "
              "Users who were granted the guest may change \"iso_images\" and \"use_ovmf\".",
              EditParametersWithApply(Audience::kUsers),
              {kBadParameter,
               kNotFoundOrUnreadable,
               kNameInUse,
               kIncompatibleHost,
               kNotPermitted,
               kNewDisksExceedLunLimit,
               kUnknownDiskTypeOrNotReserved,
               kEditFailed,
               kAddressInUseOrGuestRuns,
               kBadNetworkSettings,
               kDiskNotEditable,
               kTooOldToRemoveDisk,
               kImagesNotChanged,
               kImageUnusable,
               kUsbNotPassedThrough,
               kNoUsbPort,
               kCpuThreadsNotReserved,
               kSuspended,
               kRightsNotSet,
               kEditedWithoutReservation}),
      UserRow("VEXA.Virtualization.Guest", "delete", LaneKind::kLong,
              WithGoneHostReason(RequestResponseHandler(VexaVirtualization::Guest::Delete), NeededHost::kHolder),
              "Delete a guest and its disks. It must be shut down. For administrators, and for advanced users who were "
              "granted the guest.",
              {Text("guest_id", "The guest's id, a UUID.")},
              {kBadParameter, kNotFoundOrUnreadable, kIncompatibleHost, kNotPermitted, kActionFailed}),
      UserRow("VEXA.Virtualization.Guest.Action", "pwr_ctl", LaneKind::kLong,
              WithSimulatedMark(WithPowerReason(WithGoneHostReason(
                  RequestResponseHandler(VexaVirtualization::GuestAction::PwrCtl), NeededHost::kHolderOrAssigned))),
              "Power a guest on or off, shut it down or reboot it. \"poweroff_by_ha\" powers it off on several hosts, "
              "and the reply has the result of each.",
              {Text("guest_id", "The guest's id."),
               Text("action", "\"poweron\", \"shutdown\", \"poweroff\", \"reboot\" or \"poweroff_by_ha\"."),
               {"host_ids", ParameterType::kArray, Necessity::kOptional,
                "The ids of the hosts to ask; required for \"poweroff_by_ha\".", kMaxHostIds}},
              {kBadParameter,
               kNotFoundOrUnreadable,
               kIncompatibleHost,
               kNotPermitted,
               kClusterIsUpgrading,
               kNotPermittedByHost,
               kPowerOnFailed,
               kShutdownFailed,
               kPowerOffFailed,
               kRebootFailed,
               kGuestBusy,
               kNoCpuOrMemory,
               kNoNetwork,
               kTooManyVcpus,
               kNoMemory,
               kNoHostChosen,
               kRemoteNotVirtio,
               kAlreadyRunning,
               kNoCpuThreads,
               kRemoteEfi,
               kStartExceedsLunLimit,
               kTemporarilyUnavailable,
               kIncompatibleCpu}),
  };
}

}  // namespace vexa::api
