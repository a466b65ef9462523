#include "webapi/guest/guest_set.h"

#include <algorithm>
#include <string>

#include "json/readers.h"
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

constexpr int kNoRepositoryHost = 403;
constexpr int kNotAllowed = 409;

// For a guest whose name is not known.
constexpr char kNoName[] = "-";

// What one of them changes is stored where the guest's repository is.
constexpr Name kDisks[] = {kVdisksAdd, kVdisksDel, kVdisksEdit, kVdisksOrder};

// Sent as they came, before the devices.
constexpr Name kScalars[] = {kVcpuNum, kVramSize, kVideoCard, kCpuPassthru, kHypervEnlighten,
                             kAutorun, kKbLayout, kCpuPinNum, kCpuWeight};

Refusal CheckCaller(VEXA::APIRequest* request, const Parameters& parameters) {
  const std::string guest_id = json::String(parameters.Get(kGuestId));
  if (IsAdminOrAdvancedUser(request)) return {};
  if (IsGuestPermitted(request, guest_id) && parameters.AreForGranted()) return {};
  const std::string user = request->GetLoginUserName();
  VEXA_LOG("guest", "Action on guest[%s] is not allowed from user[%s]", guest_id.c_str(), user.c_str());
  return {kNotAllowed, Json::Value()};
}

// The host that makes the change. Intentional: a repository's host that is not found gives an empty id and an error,
// which the outcome of the sending replaces.
std::string FindTarget(const Parameters& parameters, VEXA::APIResponse* response) {
  const bool changes_disks = std::ranges::any_of(kDisks, [&](Name n) { return parameters.IsSetAndNotEmpty(n); });
  if (!changes_disks) return VexaCCC::DB::DBLocalhostID();
  const std::string guest_id = json::String(parameters.Get(kGuestId));
  std::string host_id;
  if (vgConfRepoHostIdGet(guest_id, host_id) == 0) return host_id;
  VEXA_LOG("guest", "Failed to get host of guest[%s]'s repo", guest_id.c_str());
  response->SetError(kNoRepositoryHost, Json::Value());
  return {};
}

Refusal CheckBootDevice(const VEXA::APIRequest& request, const Parameters& parameters) {
  if (!request.HasParam(TextOf(kBootFrom))) return {};
  const std::string device = json::String(parameters.Get(kBootFrom));
  if (device == "iso" || device == "disk") return {};
  const std::string text = TextOf(request);
  VEXA_LOG("guest", "Bad parameters (boot_from is invalid), request: %s", text.c_str());
  return {kBadParameter, Json::Value()};
}

Refusal CheckHyperV(const VEXA::APIRequest& request, const Parameters& parameters) {
  if (!request.HasParam(TextOf(kHypervEnlighten)) || !request.HasParam(TextOf(kCpuPassthru))) return {};
  if (!json::Bool(parameters.Get(kHypervEnlighten)) || json::Bool(parameters.Get(kCpuPassthru))) return {};
  VEXA_LOG("guest", "Cpu compatible mode and hyper-V are mutual exclusive.");
  return {kBadParameter, Json::Value()};
}

std::string FindPreviousName(const std::string& guest_id) {
  std::string name;
  if (GetGuestNameById(guest_id, name)) return name;
  VEXA_LOG("guest", "Failed to get guest [%s] original name.", guest_id.c_str());
  return kNoName;
}

// Adds a name to the order that differs from the one the guest has.
Refusal AddName(const Parameters& parameters, Subject& subject, VexaDRCore::Request& order) {
  const std::string name = json::String(parameters.Get(kName));
  if (!parameters.IsSet(kName) || name == subject.previous_name) return {};
  if (const int conflict = CheckNameConflict(name, VexaCCC::DB::DashCate::Guest)) {
    VEXA_LOG("guest", "Guest name[%s] conflict.", name.c_str());
    return {conflict, Json::Value()};
  }
  order.addParam(TextOf(kName), name);
  subject.new_name = name;
  return {};
}

// Checks what needs more than the parameters alone, and completes the order.
Refusal Fill(const VEXA::APIRequest& request, const Parameters& parameters, Subject& subject,
             VexaDRCore::Request& order) {
  order.addParam(TextOf(kGuestId), subject.guest_id);
  subject.previous_name = FindPreviousName(subject.guest_id);
  if (Refusal refusal = AddName(parameters, subject, order)) return refusal;
  for (const Name name : kScalars) {
    if (parameters.IsSet(name)) order.addParam(TextOf(name), parameters.Get(name));
  }
  return AddDevices(request, parameters, order);
}

Refusal CheckRequest(VEXA::APIRequest* request, const Parameters& parameters) {
  if (!parameters.IsAnyInvalid()) return CheckCaller(request, parameters);
  const std::string text = TextOf(*request);
  VEXA_LOG("guest", "Bad parameters, request: %s", text.c_str());
  return {kBadParameter, Json::Value()};
}

// Everything up to the sending. `target` is the host to send to.
Refusal Prepare(VEXA::APIRequest* request, const Parameters& parameters, VEXA::APIResponse* response, Subject& subject,
                VexaDRCore::Request& order, std::string& target) {
  if (Refusal refusal = CheckRequest(request, parameters)) return refusal;
  subject.guest_id = json::String(parameters.Get(kGuestId));
  target = FindTarget(parameters, response);
  if (Refusal refusal = CheckBootDevice(*request, parameters)) return refusal;
  if (Refusal refusal = CheckHyperV(*request, parameters)) return refusal;
  return Fill(*request, parameters, subject, order);
}

}  // namespace

std::string TextOf(const VEXA::APIRequest& request) { return json::ToText(request.GetParam("", Json::Value())); }

}  // namespace edit

void Guest::Set(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  const edit::Parameters parameters(*request);
  edit::Subject subject;
  subject.user = request->GetLoginUserName();
  VexaDRCore::Request order = transport::NewRequest("VEXA.CCC.Guest", "set");
  std::string target;
  if (const edit::Refusal refusal = edit::Prepare(request, parameters, response, subject, order, target)) {
    return response->SetError(refusal.code, refusal.details);
  }

  VexaCCC::Sender sender;
  sender.setHost(target);
  const VexaDRCore::Response reply = sender.process(order);
  if (reply.isSuccess()) return edit::ReportSuccess(subject, parameters.Get(edit::kGuestPrivilege), response);
  transport::LogBadResponse(LOG_ERR, __LINE__, reply, order, "guest");
  edit::ReportFailure(subject, reply, response);
}

}  // namespace VexaVirtualization
