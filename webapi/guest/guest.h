// VEXA.Virtualization.Guest: one guest's configuration.
#pragma once

#include <json/value.h>

#include <string>

#include "webapi/platform/webapi.h"
#include "webapi/utils/export.h"

namespace VexaVirtualization {

// The handlers set exactly one result on the response and return; they keep nothing between calls.
// Threads: any number of requests at once.
class VEXA_EXPORT Guest {
 public:
  // "get": the stored configuration of the guest "guest_id" (a UUID) as the edit dialog needs it: general settings,
  // "vdisks" and "vnics". "vram_size" is in KiB, each disk's "size" is the text of the stored size in MiB.
  // Errors: 401 "guest_id" missing or no UUID; 409 the caller may not act on the guest; 403 the record of the guest, of
  // a disk or of a network interface cannot be read; 413 a disk's type is unknown. Nothing partial is sent.
  static void Get(VEXA::APIRequest* request, VEXA::APIResponse* response);

  // "delete": removes the guest "guest_id" (a UUID) from the cluster, by the host that holds its repository, else by
  // the local host. The outcome is written to the cluster log. The data of a success is null.
  // Errors: 409 the caller is neither administrator nor advanced user, or may not act on the guest; 401 "guest_id" is
  // missing or no UUID; 403 the record of the guest or of its repository cannot be read; 407 the host runs a version
  // that cannot delete guests; 901 the guest could not be deleted.
  // Grants on the guest are taken back after a success only; a failure to do so is told in the system log only.
  static void Delete(VEXA::APIRequest* request, VEXA::APIResponse* response);

  // Adds to `info` what only the host that runs the guest knows: "ip" (array), "uptime" (text) and "has_agent".
  // `record` is the guest's stored record. False, with "ip" [], "uptime" "0" and "has_agent" false: the guest does not
  // run, or its host did not answer. Logs nothing.
  static bool GetInformation(const std::string& guest_id, const Json::Value& record, Json::Value& info);
};

}  // namespace VexaVirtualization
