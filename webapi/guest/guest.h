// VEXA.Virtualization.Guest: one guest's configuration.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "webapi/platform/ccc_guest_admin.h"
#include "webapi/platform/webapi.h"
#include "webapi/utils/export.h"

namespace VexaVirtualization {

// Get, Set and Delete are request handlers: each sets the result on the response and returns. No state is kept between
// calls.
// Threads: any number of concurrent requests.
class VEXA_EXPORT Guest {
 public:
  // "get": the stored configuration of the guest "guest_id" (a UUID), as the edit dialog needs it: general settings,
  // "vdisks" and "vnics". "vram_size" is in KiB; each disk's "size" is the stored size in MiB, as a string.
  // Errors: 401 "guest_id" is missing or not a UUID; 409 the caller may not access the guest; 403 the record of the
  // guest, of a disk or of a network interface cannot be read; 413 a disk has an unknown type. No partial result is
  // sent.
  static void Get(VEXA::APIRequest* request, VEXA::APIResponse* response);

  // "set": edits the guest "guest_id" (a UUID). The other parameters are all optional; guest_set_parameters.cpp lists
  // them. Users who were granted the guest may change "iso_images" and "use_ovmf"; everything else requires an
  // administrator or advanced user. The host that owns the guest's repository makes the change if disks change,
  // otherwise the local host. The permissions in "guest_privilege" are set only after the host has succeeded. The
  // outcome is written to the cluster log. The data of a success is null.
  // Errors, with null details unless noted: 401 a parameter is missing or invalid; 409 the caller may not make this
  // change; 403 or 406 the new name cannot be checked or is in use; 910 a MAC address is in use, with {"mac_addr", and
  // "guest_name" if it is known}; 934 an image's path cannot be used; 1001 the guest was edited, but not all
  // permissions were set; 1600 it was edited, but some hosts could not reserve resources for it, with {"host_names"};
  // otherwise the code to which guest_set_report.cpp maps the host's code. No result is set when the host reports
  // failed reservations but lists none.
  static void Set(VEXA::APIRequest* request, VEXA::APIResponse* response);

  // Converts the elements of a "guest_privilege" array to rules, without validating them; returns none when
  // `privileges` is not an array. An id that does not fit an unsigned 32-bit number becomes UINT32_MAX, "no id".
  static std::vector<VexaCCC::tagGuestAdminRule> jsObject2vcGaRuleList(const Json::Value& privileges);

  // "delete": removes the guest "guest_id" (a UUID) from the cluster. The host that owns the guest's repository deletes
  // it; if that fails and the host is not too old for it, the local host tries. The outcome is written to the cluster
  // log. The data of a success is null.
  // Errors: 409 the caller is neither an administrator nor an advanced user, or may not access the guest; 401
  // "guest_id" is missing or not a UUID; 403 the record of the guest or of its repository cannot be read; 407 the host
  // runs a version that cannot delete guests; 901 the guest could not be deleted.
  // Grants on the guest are revoked only after a success; a failure to revoke them is only logged.
  static void Delete(VEXA::APIRequest* request, VEXA::APIResponse* response);

  // Adds to `info` what only the host that runs the guest knows: "ip" (array), "uptime" (string) and "has_agent".
  // `record` is the guest's stored record. Returns false, with "ip" [], "uptime" "0" and "has_agent" false, when the
  // guest is not running or its host did not answer. Logs nothing.
  static bool GetInformation(const std::string& guest_id, const Json::Value& record, Json::Value& info);
};

}  // namespace VexaVirtualization
