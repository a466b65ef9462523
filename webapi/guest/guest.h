// VEXA.Virtualization.Guest: one guest's configuration.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "webapi/platform/ccc_guest_admin.h"
#include "webapi/platform/webapi.h"
#include "webapi/utils/export.h"

namespace VexaVirtualization {

// The handlers set exactly one result on the response and return; they keep nothing between calls.
// Threads: any number of concurrent requests.
class VEXA_EXPORT Guest {
 public:
  // "get": the stored configuration of the guest "guest_id" (a UUID) as the edit dialog needs it: general settings,
  // "vdisks" and "vnics". "vram_size" is in KiB, each disk's "size" is the text of the stored size in MiB.
  // Errors: 401 "guest_id" missing or no UUID; 409 the caller may not act on the guest; 403 the record of the guest, of
  // a disk or of a network interface cannot be read; 413 a disk's type is unknown. Nothing partial is sent.
  static void Get(VEXA::APIRequest* request, VEXA::APIResponse* response);

  // "set": edits the guest "guest_id" (a UUID): the other parameters, all optional, are rows of
  // guest_set_parameters.cpp. Who was granted the guest may change "iso_images" and "use_ovmf"; everything else is for
  // administrators and advanced users. The host of the guest's repository makes the change when disks change, else the
  // local host; rights are set after a success of the host only. The outcome is written to the cluster log. The data of
  // a success is null. Errors, with null details unless it says otherwise: 401 a parameter is missing or bad; 409 the
  // caller may not do this; 403 or 406 the new name cannot be checked or is taken; 910 a MAC address is in use, with
  // {"mac_addr", "guest_name" when it is known}; 934 an image's path cannot be used; 1001 the guest was edited but
  // rights were not all set; 1600 it was edited but some hosts could not reserve for it, with {"host_names"}; else what
  // stands for the host's code in guest_set_report.cpp. Nothing is set when the host fails and reports no failed
  // reservation.
  static void Set(VEXA::APIRequest* request, VEXA::APIResponse* response);

  // The rules in a "guest_privilege", one for each element; none when it is not an array. Nothing is checked. An id
  // that is not an unsigned number of 32 bits leaves the rule without an id.
  static std::vector<VexaCCC::tagGuestAdminRule> jsObject2vcGaRuleList(const Json::Value& privileges);

  // "delete": removes the guest "guest_id" (a UUID) from the cluster, by the host that holds its repository, else by
  // the local host. The outcome is written to the cluster log. The data of a success is null.
  // Errors: 409 the caller is neither administrator nor advanced user, or may not act on the guest; 401 "guest_id" is
  // missing or no UUID; 403 the record of the guest or of its repository cannot be read; 407 the host runs a version
  // that cannot delete guests; 901 the guest could not be deleted.
  // Grants on the guest are revoked after a success only; a failure to do so is reported in the system log only.
  static void Delete(VEXA::APIRequest* request, VEXA::APIResponse* response);

  // Adds to `info` what only the host that runs the guest knows: "ip" (array), "uptime" (text) and "has_agent".
  // `record` is the guest's stored record. False, with "ip" [], "uptime" "0" and "has_agent" false: the guest does not
  // run, or its host did not answer. Logs nothing.
  static bool GetInformation(const std::string& guest_id, const Json::Value& record, Json::Value& info);
};

}  // namespace VexaVirtualization
