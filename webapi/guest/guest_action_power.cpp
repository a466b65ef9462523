#include <string>
#include <vector>

#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/guest/guest_action.h"
#include "webapi/guest/guest_action_lines.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_log.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/log.h"
#include "webapi/utils/transport.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

using power::Action;

constexpr int kGuestHasNoHost = -2;  // result of vgConfHostGet

constexpr int kTimeoutS = 3600;
constexpr int kTimeoutByHaS = 30;
constexpr int kReasonHa = 20;

// Returns 0 or the error code for the reply. Logs nothing.
int FindHost(const std::string& guest_id, std::string& host_id) {
  // Intentional: a host is selected for every action, not only for a power-on.
  if (vgConfHostGet(guest_id, host_id) == kGuestHasNoHost && VexaCCC::ClConfAutoSelHostGet() &&
      GuestAction::AutoSelectHost(guest_id) < 0) {
    return user_error::kNoHostChosen;
  }
  // The host may just have been set, so it is read again.
  return vgConfHostGet(guest_id, host_id) == 0 ? 0 : user_error::kNotFoundOrUnreadable;
}

// Intentional: during an incompatible upgrade, guests of other hosts can be started but not stopped.
bool IsRefusedInUpgrade(const Action& action, const std::string& host_id) {
  return CCCIsIncompatibleUpgrading() != 0 && host_id != VexaCCC::DB::DBLocalhostID() &&
         action.in_upgrade == Action::InUpgrade::kRefused;
}

// Sends the request to the guest's host and writes the outcome to the cluster log. Returns 0 or the error code for the
// reply.
int SendToGuestHost(const std::string& user, const Action& action, const std::string& guest_id,
                    const VexaDRCore::Request& request) {
  std::string host_id;
  if (const int failure = FindHost(guest_id, host_id)) return failure;
  LineValues values;
  values.operation = std::string(action.name) + " virtual machine";
  if (IsRefusedInUpgrade(action, host_id)) {
    AddToClusterLog(user, VexaCCC::CLOG_PRIORITY_FAILURE, power::IncompatibleLine(), values);
    return user_error::kClusterIsUpgrading;
  }
  // Unknown names stay empty.
  GetGuestNameById(guest_id, values.guest);
  VexaCCC::Utils::GetHostNameById(host_id, values.host);
  VexaCCC::Sender sender;
  sender.setHost(host_id);
  const VexaDRCore::Response reply = sender.process(request);
  if (reply.isSuccess()) {
    AddToClusterLog(user, VexaCCC::CLOG_PRIORITY_SUCCESS, action.success, values);
    return 0;
  }
  transport::LogBadResponse(LOG_ERR, __LINE__, reply, request, "guest_action");
  const power::Failure failure = power::FailureOf(action, reply.getErrCode());
  AddToClusterLog(user, VexaCCC::CLOG_PRIORITY_FAILURE, failure.line, values);
  return failure.error;
}

// Returns an array with the outcome of each host; null when there are no hosts.
Json::Value SendToListedHosts(const Json::Value& host_ids, VexaDRCore::Request& request) {
  request.addParam("reason", kReasonHa);
  request.setTimeout(kTimeoutByHaS);
  std::vector<std::string> hosts;
  for (const Json::Value& id : json::Elements(host_ids)) hosts.push_back(json::String(id));
  const VexaCCC::MultiResponse replies = VexaCCC::MultiSender(hosts).process(request);
  Json::Value results;
  for (const std::string& host_id : replies.getHostList()) {
    const VexaDRCore::Response reply = replies.getResponse(host_id);
    Json::Value result(Json::objectValue);
    result["host_id"] = host_id;
    result["success"] = reply.isSuccess();
    if (!reply.isSuccess()) result["errcode"] = reply.getErrCode();
    results.append(std::move(result));
  }
  return results;
}

}  // namespace

void GuestAction::PwrCtl(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  const auto guest_id = request->GetAndCheckString("guest_id", 0, VexaCCC::Utils::IsNotEmpty);
  const auto name = request->GetAndCheckString("action", 0, VexaCCC::Utils::IsNotEmpty);
  const auto host_ids = request->GetAndCheckArray("host_ids", 1);
  if (guest_id.IsInvalid() || name.IsInvalid()) {
    const std::string parameters = json::ToText(request->GetParam("", Json::Value()));
    VEXA_LOG("guest_action", "Bad parameters, request: %s", parameters.c_str());
    return response->SetError(user_error::kBadParameter, Json::Value());
  }
  const std::string& id = guest_id.Get();
  const std::string user = request->GetLoginUserName();
  if (!IsGuestPermitted(request, id)) {
    VEXA_LOG("guest_action", "Action on guest[%s] is not allowed from user[%s]", id.c_str(), user.c_str());
    return response->SetError(user_error::kNotPermitted, Json::Value());
  }
  const Action* action = power::FindAction(name.Get());
  const bool targets_listed_hosts = action && action->target == Action::Target::kListedHosts;
  // "host_ids" must be present; unusable hosts show up as failures in the result.
  if (!action || (targets_listed_hosts && !request->HasParam("host_ids"))) {
    VEXA_LOG("guest_action", "Invalid action [%s]", name.Get().c_str());
    return response->SetError(user_error::kBadParameter, Json::Value());
  }

  VexaDRCore::Request host_request = transport::NewRequest("VEXA.CCC.Guest", action->method);
  host_request.addParam("guest_id", id);
  host_request.setTimeout(kTimeoutS);
  if (targets_listed_hosts) return response->SetSuccess(SendToListedHosts(host_ids.Get(), host_request));
  if (const int failure = SendToGuestHost(user, *action, id, host_request)) {
    return response->SetError(failure, Json::Value());
  }
  response->SetSuccess(Json::Value());
}

}  // namespace VexaVirtualization
