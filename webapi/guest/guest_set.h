// The halves of editing a guest. For this library only.
#pragma once

#include <json/value.h>

#include <string>

#include "webapi/guest/guest_set_parameters.h"
#include "webapi/platform/dr.h"
#include "webapi/platform/webapi.h"

namespace VexaVirtualization::edit {

inline constexpr int kBadParameter = 401;

// Why the request ends here; what had to be logged is logged.
struct Refusal {
  int code = 0;  // 0: it goes on
  Json::Value details;

  explicit operator bool() const { return code != 0; }
};

// The whole request's parameters as text, for log lines.
std::string TextOf(const VEXA::APIRequest& request);

// Checks the arrays of devices, the images and the USB settings, and adds each to the order for the host once it is
// checked; "desc", "boot_from" and "use_ovmf" are added in their place among them. Ends at the first refusal.
Refusal AddDevices(const VEXA::APIRequest& request, const Parameters& parameters, VexaDRCore::Request& order);

// What the lines of the cluster log are about.
struct Subject {
  std::string user;
  std::string guest_id;
  std::string previous_name;
  std::string new_name;  // empty: it is not renamed
};

// The host has failed: writes to the cluster log and sets the answer.
void ReportFailure(const Subject& subject, const VexaDRCore::Response& reply, VEXA::APIResponse* response);

// The host has made the change: sets the rights in `privileges`, writes to the cluster log and sets the answer.
void ReportSuccess(const Subject& subject, const Json::Value& privileges, VEXA::APIResponse* response);

}  // namespace VexaVirtualization::edit
