// The steps of editing a guest: checking the request and reporting the outcome. Internal to this library.
#pragma once

#include <json/value.h>

#include <string>

#include "webapi/guest/guest_set_parameters.h"
#include "webapi/platform/dr.h"
#include "webapi/platform/webapi.h"

namespace VexaVirtualization::edit {

// Why the request is refused; already logged.
struct Refusal {
  int code = 0;  // 0: not refused
  Json::Value details;

  explicit operator bool() const { return code != 0; }
};

// All parameters of the request as JSON text, for log lines.
std::string RequestText(const VEXA::APIRequest& request);

// Checks the arrays of devices, the images and the USB settings, and adds each to the host request once it is checked,
// with "desc", "boot_from" and "use_ovmf" in between. Stops at the first refusal.
Refusal AddDevices(const VEXA::APIRequest& request, const Parameters& parameters, VexaDRCore::Request& host_request);

// The guest and user that the lines of the cluster log mention.
struct Subject {
  std::string user;
  std::string guest_id;
  std::string previous_name;
  std::string new_name;  // empty: not renamed
};

// Called when the host failed: writes to the cluster log and sets the error.
void ReportFailure(const Subject& subject, const VexaDRCore::Response& reply, VEXA::APIResponse* response);

// Called when the host made the change: sets the permissions in `privileges`, writes to the cluster log and sets the
// result.
void ReportSuccess(const Subject& subject, const Json::Value& privileges, VEXA::APIResponse* response);

}  // namespace VexaVirtualization::edit
