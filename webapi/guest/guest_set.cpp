#include "webapi/guest/guest_set.h"

#include <algorithm>
#include <string>

#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/guest/guest.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/log.h"
#include "webapi/utils/transport.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace edit {
namespace {

// Stands for the name of a guest whose name cannot be read.
constexpr char kUnknownName[] = "-";

// Changes to disks are made by the host that owns the guest's repository.
constexpr Name kDiskParameters[] = {kVdisksAdd, kVdisksDel, kVdisksEdit, kVdisksOrder};

// Sent unchanged, before the devices.
constexpr Name kScalars[] = {kVcpuNum, kVramSize, kVideoCard, kCpuPassthru, kHypervEnlighten,
                             kAutorun, kKbLayout, kCpuPinNum, kCpuWeight};

Refusal CheckCaller(VEXA::APIRequest* request, const Parameters& parameters) {
  const std::string guest_id = json::String(parameters.Get(kGuestId));
  if (IsAdminOrAdvancedUser(request)) return {};
  if (IsGuestPermitted(request, guest_id) && parameters.AreAllowedForGrantee()) return {};
  const std::string user = request->GetLoginUserName();
  VEXA_LOG("guest", "Action on guest[%s] is not allowed from user[%s]", guest_id.c_str(), user.c_str());
  return {user_error::kNotPermitted, Json::Value()};
}

// The host that makes the change. Intentional: if the repository's host is unknown, the id is empty and the error set
// here is overwritten by the result of sending.
std::string FindTargetHost(const Parameters& parameters, VEXA::APIResponse* response) {
  const bool changes_disks =
      std::ranges::any_of(kDiskParameters, [&](Name n) { return parameters.IsSetAndNotEmpty(n); });
  if (!changes_disks) return VexaCCC::DB::DBLocalhostID();
  const std::string guest_id = json::String(parameters.Get(kGuestId));
  std::string host_id;
  if (vgConfRepoHostIdGet(guest_id, host_id) == 0) return host_id;
  VEXA_LOG("guest", "Failed to get host of guest[%s]'s repo", guest_id.c_str());
  response->SetError(user_error::kNotFoundOrUnreadable, Json::Value());
  return {};
}

Refusal CheckBootDevice(const VEXA::APIRequest& request, const Parameters& parameters) {
  if (!request.HasParam(ParameterName(kBootFrom))) return {};
  const std::string device = json::String(parameters.Get(kBootFrom));
  if (device == "iso" || device == "disk") return {};
  const std::string request_text = RequestText(request);
  VEXA_LOG("guest", "Bad parameters (boot_from is invalid), request: %s", request_text.c_str());
  return {user_error::kBadParameter, Json::Value()};
}

Refusal CheckHyperV(const VEXA::APIRequest& request, const Parameters& parameters) {
  if (!request.HasParam(ParameterName(kHypervEnlighten)) || !request.HasParam(ParameterName(kCpuPassthru))) return {};
  if (!json::Bool(parameters.Get(kHypervEnlighten)) || json::Bool(parameters.Get(kCpuPassthru))) return {};
  VEXA_LOG("guest", "Cpu compatible mode and hyper-V are mutual exclusive.");
  return {user_error::kBadParameter, Json::Value()};
}

std::string FindPreviousName(const std::string& guest_id) {
  std::string name;
  if (GetGuestNameById(guest_id, name)) return name;
  VEXA_LOG("guest", "Failed to get guest [%s] original name.", guest_id.c_str());
  return kUnknownName;
}

// Adds the name to the host request if it differs from the current one.
Refusal AddName(const Parameters& parameters, Subject& subject, VexaDRCore::Request& host_request) {
  const std::string name = json::String(parameters.Get(kName));
  if (!parameters.IsSet(kName) || name == subject.previous_name) return {};
  if (const int conflict = CheckNameConflict(name, VexaCCC::DB::DashCate::Guest)) {
    VEXA_LOG("guest", "Guest name[%s] conflict.", name.c_str());
    return {conflict, Json::Value()};
  }
  host_request.addParam(ParameterName(kName), name);
  subject.new_name = name;
  return {};
}

// Runs the checks that need stored data, and completes the host request.
Refusal CompleteHostRequest(const VEXA::APIRequest& request, const Parameters& parameters, Subject& subject,
                            VexaDRCore::Request& host_request) {
  host_request.addParam(ParameterName(kGuestId), subject.guest_id);
  subject.previous_name = FindPreviousName(subject.guest_id);
  if (Refusal refusal = AddName(parameters, subject, host_request)) return refusal;
  for (const Name name : kScalars) {
    if (parameters.IsSet(name)) host_request.addParam(ParameterName(name), parameters.Get(name));
  }
  return AddDevices(request, parameters, host_request);
}

Refusal CheckRequest(VEXA::APIRequest* request, const Parameters& parameters) {
  if (!parameters.IsAnyInvalid()) return CheckCaller(request, parameters);
  const std::string request_text = RequestText(*request);
  VEXA_LOG("guest", "Bad parameters, request: %s", request_text.c_str());
  return {user_error::kBadParameter, Json::Value()};
}

// Runs all checks and builds the host request. `target_host` is the host to send it to.
Refusal Prepare(VEXA::APIRequest* request, const Parameters& parameters, VEXA::APIResponse* response, Subject& subject,
                VexaDRCore::Request& host_request, std::string& target_host) {
  if (Refusal refusal = CheckRequest(request, parameters)) return refusal;
  subject.guest_id = json::String(parameters.Get(kGuestId));
  target_host = FindTargetHost(parameters, response);
  if (Refusal refusal = CheckBootDevice(*request, parameters)) return refusal;
  if (Refusal refusal = CheckHyperV(*request, parameters)) return refusal;
  return CompleteHostRequest(*request, parameters, subject, host_request);
}

}  // namespace

std::string RequestText(const VEXA::APIRequest& request) { return json::ToText(request.GetParam("", Json::Value())); }

}  // namespace edit

void Guest::Set(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  const edit::Parameters parameters(*request);
  edit::Subject subject;
  subject.user = request->GetLoginUserName();
  VexaDRCore::Request host_request = transport::NewRequest("VEXA.CCC.Guest", "set");
  std::string target_host;
  if (const edit::Refusal refusal = edit::Prepare(request, parameters, response, subject, host_request, target_host)) {
    return response->SetError(refusal.code, refusal.details);
  }

  VexaCCC::Sender sender;
  sender.setHost(target_host);
  const VexaDRCore::Response reply = sender.process(host_request);
  if (reply.isSuccess()) return edit::ReportSuccess(subject, parameters.Get(edit::kGuestPrivilege), response);
  transport::LogBadResponse(LOG_ERR, __LINE__, reply, host_request, "guest");
  edit::ReportFailure(subject, reply, response);
}

}  // namespace VexaVirtualization
