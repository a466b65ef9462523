// VEXA.Virtualization.Guest.Action: power, and the host that a guest runs on.
#pragma once

#include <string>

#include "webapi/platform/webapi.h"
#include "webapi/utils/export.h"

namespace VexaVirtualization {

// Nothing is kept between calls. Threads: any number of concurrent requests.
class VEXA_EXPORT GuestAction {
 public:
  // Powers the guest "guest_id" as "action" says.
  //
  // "poweron", "shutdown", "poweroff", "reboot": asks the guest's host, which may take an hour. A guest without a host
  // is given one first when the cluster allows that. The data of a success is null; success and failure of the host are
  // written to the cluster log.
  // "poweroff_by_ha": asks all hosts in "host_ids" concurrently, for 30 seconds. The data is an array of {"host_id",
  // "success", "errcode" (when it failed)}, null when no host was asked; a success whatever the hosts answered.
  //
  // Errors, with null details: 401 "guest_id" or "action" missing, empty or unknown, or "poweroff_by_ha" without
  // "host_ids"; 409 the caller may not act on the guest; 932 no host could be chosen; 403 the guest has no host; 415
  // the cluster is in an incompatible upgrade; else what stands for the host's code in guest_action_lines.cpp.
  static void PwrCtl(VEXA::APIRequest* request, VEXA::APIResponse* response);

  // Has the local host rate the hosts for the guest, and makes one of them the guest's host: the first available one
  // with the best storage access, else the last available one. 0, or -1 and the guest keeps the host it had; one line
  // in the system log either way.
  static int AutoSelectHost(const std::string& guest_id);
};

}  // namespace VexaVirtualization
