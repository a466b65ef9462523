#include <string>
#include <vector>

#include "json/readers.h"
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

constexpr int kBadParameter = 401;
constexpr int kNoHost = 403;
constexpr int kNotAllowed = 409;
constexpr int kInUpgrade = 415;
constexpr int kNoHostChosen = 932;

constexpr int kGuestHasNoHost = -2;  // vgConfHostGet's

constexpr int kTimeoutS = 3600;
constexpr int kTimeoutByHaS = 30;
constexpr int kReasonHa = 20;

// 0, or the error code to answer; nothing is logged here.
int FindHost(const std::string& guest_id, std::string& host_id) {
  // Intentional: for every action, not for a power-on alone.
  if (vgConfHostGet(guest_id, host_id) == kGuestHasNoHost && VexaCCC::ClConfAutoSelHostGet() &&
      GuestAction::AutoSelectHost(guest_id) < 0) {
    return kNoHostChosen;
  }
  // The host may have been set just now, so the second answer is the one that counts.
  return vgConfHostGet(guest_id, host_id) == 0 ? 0 : kNoHost;
}

// Intentional: during an incompatible upgrade a guest of another host can be started but not stopped.
bool IsRefusedInUpgrade(const Action& action, const std::string& host_id) {
  return CCCIsIncompatibleUpgrading() != 0 && host_id != VexaCCC::DB::DBLocalhostID() &&
         action.in_upgrade == Action::InUpgrade::kRefused;
}

// Sends to the guest's host, and writes the outcome to the cluster log. 0, or the error code to answer.
int ControlOnItsHost(const std::string& user, const Action& action, const std::string& guest_id,
                     const VexaDRCore::Request& request) {
  std::string host_id;
  if (const int failure = FindHost(guest_id, host_id)) return failure;
  LineValues values;
  values.operation = std::string(action.name) + " virtual machine";
  if (IsRefusedInUpgrade(action, host_id)) {
    Tell(user, VexaCCC::CLOG_PRIORITY_FAILURE, power::IncompatibleLine(), values);
    return kInUpgrade;
  }
  // A name that is not known stays empty.
  GetGuestNameById(guest_id, values.guest);
  VexaCCC::Utils::GetHostNameById(host_id, values.host);
  VexaCCC::Sender sender;
  sender.setHost(host_id);
  const VexaDRCore::Response reply = sender.process(request);
  if (reply.isSuccess()) {
    Tell(user, VexaCCC::CLOG_PRIORITY_SUCCESS, action.success, values);
    return 0;
  }
  transport::LogBadResponse(LOG_ERR, __LINE__, reply, request, "guest_action");
  const power::Failure failure = power::FailureOf(action, reply.getErrCode());
  Tell(user, VexaCCC::CLOG_PRIORITY_FAILURE, failure.line, values);
  return failure.answer;
}

// What each host answered; null when there is none.
Json::Value ControlOnListedHosts(const Json::Value& host_ids, VexaDRCore::Request& request) {
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
    return response->SetError(kBadParameter, Json::Value());
  }
  const std::string& id = guest_id.Get();
  const std::string user = request->GetLoginUserName();
  if (!IsGuestPermitted(request, id)) {
    VEXA_LOG("guest_action", "Action on guest[%s] is not allowed from user[%s]", id.c_str(), user.c_str());
    return response->SetError(kNotAllowed, Json::Value());
  }
  const Action* action = power::FindAction(name.Get());
  const bool is_for_listed = action && action->target == Action::Target::kListedHosts;
  // Hosts must be named; their answers show whether they are usable.
  if (!action || (is_for_listed && !request->HasParam("host_ids"))) {
    VEXA_LOG("guest_action", "Invalid action [%s]", name.Get().c_str());
    return response->SetError(kBadParameter, Json::Value());
  }

  VexaDRCore::Request order = transport::NewRequest("VEXA.CCC.Guest", action->method);
  order.addParam("guest_id", id);
  order.setTimeout(kTimeoutS);
  if (is_for_listed) return response->SetSuccess(ControlOnListedHosts(host_ids.Get(), order));
  if (const int failure = ControlOnItsHost(user, *action, id, order)) return response->SetError(failure, Json::Value());
  response->SetSuccess(Json::Value());
}

}  // namespace VexaVirtualization
