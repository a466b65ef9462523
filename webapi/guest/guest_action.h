// VEXA.Virtualization.Guest.Action: power actions, and the choice of the host that a guest runs on.
#pragma once

#include <string>

#include "webapi/platform/webapi.h"
#include "webapi/utils/export.h"

namespace VexaVirtualization {

// No state is kept between calls. Threads: any number of concurrent requests.
class VEXA_EXPORT GuestAction {
 public:
  // Performs the power action "action" on the guest "guest_id".
  //
  // "poweron", "shutdown", "poweroff", "reboot": sent to the guest's host, with a timeout of one hour. If the guest has
  // no host and the cluster's settings allow it, a host is selected first. The host's success or failure is written to
  // the cluster log. The data of a success is null.
  // "poweroff_by_ha": sent to all hosts in "host_ids" concurrently, with a timeout of 30 seconds. A success even if
  // hosts fail; the data is an array of {"host_id", "success", and "errcode" on failure}, or null when "host_ids" is
  // empty.
  //
  // Errors, with null details: 401 "guest_id" or "action" is missing, empty or unknown, or "host_ids" is missing for
  // "poweroff_by_ha"; 409 the caller may not access the guest; 932 no host could be selected; 403 the guest has no
  // host; 415 the action is refused during an incompatible upgrade of the cluster; otherwise the code to which
  // guest_action_lines.cpp maps the host's code.
  static void PwrCtl(VEXA::APIRequest* request, VEXA::APIResponse* response);

  // Asks the local host which hosts could run the guest, and makes one of them the guest's host: the first available
  // one with the best storage access, otherwise the last available one. Returns 0, or -1 with the guest's host
  // unchanged. Logs one line in both cases.
  static int AutoSelectHost(const std::string& guest_id);
};

}  // namespace VexaVirtualization
