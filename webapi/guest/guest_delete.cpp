#include <string>

#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/guest/guest.h"
#include "webapi/guest/incompatible.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"
#include "webapi/platform/ccc_log.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/utils/log.h"
#include "webapi/utils/transport.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

namespace key = VexaCCC::DB::_k;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;

// The facts about a guest that its deletion needs.
struct Target {
  std::string name;
  std::string host_id;  // the host that owns the guest's repository
};

// Returns false when a record cannot be read. Logs nothing.
bool FindTarget(const std::string& guest_id, Target& target) {
  Json::Value guest;
  if (Dashboard(DashCate::Guest, guest_id).Get(guest, key::object) != 0) return false;
  const Json::Value* repository_id = json::FindMember(guest, key::repository_id);
  if (!repository_id) return false;
  Json::Value repository;
  if (Dashboard(DashCate::Repository, json::String(*repository_id)).Get(repository, key::object) != 0) return false;
  target = {json::String(json::Member(guest, key::name)), json::String(json::Member(repository, key::host_id))};
  return true;
}

// Sends the deletion to the repository's host and, unless that host is too old, retries on the local host. Returns the
// last reply. Failures are logged.
VexaDRCore::Response SendDeletion(const std::string& guest_id, const std::string& host_id) {
  VexaDRCore::Request request = transport::NewRequest("VEXA.CCC.Guest", "delete");
  request.addParam("guest_id", guest_id);
  VexaCCC::Sender sender;
  sender.setHost(host_id);
  VexaDRCore::Response reply = sender.process(request);
  if (reply.isSuccess()) return reply;
  transport::LogBadResponse(LOG_ERR, __LINE__, reply, request, "guest");
  if (reply.getErrCode() == host_error::kUnknownApi) return reply;

  const std::string local_id = VexaCCC::DB::DBLocalhostID();
  if (host_id == local_id) return reply;
  VEXA_LOG("guest", "Failed to send guest delete to host[%s], try to delete it on local host[%s].", host_id.c_str(),
           local_id.c_str());
  sender.setHost(local_id);
  reply = sender.process(request);
  if (!reply.isSuccess()) transport::LogBadResponse(LOG_ERR, __LINE__, reply, request, "guest");
  return reply;
}

// Returns 0, or the error code for the reply; the refusal is already logged.
int CheckCaller(VEXA::APIRequest* request, const VEXA::APIParameter<std::string>& guest_id) {
  const std::string user = request->GetLoginUserName();
  // Permissions are checked before parameters, so that unauthorized callers learn nothing about the request format.
  if (!IsAdminOrAdvancedUser(request)) {
    VEXA_LOG("guest", "Action not allowed from user[%s]", user.c_str());
    return user_error::kNotPermitted;
  }
  if (guest_id.IsInvalid()) {
    const std::string parameters = json::ToText(request->GetParam("", Json::Value()));
    VEXA_LOG("guest", "Bad parameters, request: %s", parameters.c_str());
    return user_error::kBadParameter;
  }
  if (!IsGuestPermitted(request, guest_id.Get())) {
    VEXA_LOG("guest", "Action on guest[%s] is not allowed from user[%s]", guest_id.Get().c_str(), user.c_str());
    return user_error::kNotPermitted;
  }
  return 0;
}

}  // namespace

void Guest::Delete(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  const auto guest_id = request->GetAndCheckString("guest_id", 0, VexaCCC::Utils::isUUID);
  if (const int refusal = CheckCaller(request, guest_id)) return response->SetError(refusal, Json::Value());
  const std::string& id = guest_id.Get();
  Target target;
  if (!FindTarget(id, target)) return response->SetError(user_error::kNotFoundOrUnreadable, Json::Value());

  const VexaDRCore::Response reply = SendDeletion(id, target.host_id);
  const std::string user = request->GetLoginUserName();
  if (!reply.isSuccess() && reply.getErrCode() == host_error::kUnknownApi) {
    VexaCCC::ClusterLogAdd(user, VexaCCC::CLOG_PRIORITY_FAILURE, kIncompatibleLine, "delete virtual machine");
    return response->SetError(user_error::kIncompatibleHost, Json::Value());
  }
  if (!reply.isSuccess()) {
    VexaCCC::ClusterLogAdd(user, VexaCCC::CLOG_PRIORITY_FAILURE, "Failed to delete the virtual machine [%s].",
                           target.name.c_str());
    return response->SetError(user_error::kActionFailed, Json::Value());
  }
  if (VexaCCC::gaGuestDelete(id) < 0) {
    VEXA_LOG("guest", "Failed to delete permission settings of guest[%s].", id.c_str());
  }
  VexaCCC::ClusterLogAdd(user, VexaCCC::CLOG_PRIORITY_SUCCESS,
                         "The virtual machine [%s] has been successfully deleted.", target.name.c_str());
  response->SetSuccess(Json::Value());
}

}  // namespace VexaVirtualization
