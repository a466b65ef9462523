#include "host/api/user/guest_keeping_api.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/gone_host.h"
#include "host/base/refusal.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_log.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/utils.h"

namespace vexa::services {
namespace {

using webapi::Call;

constexpr int kUserBusy = 912;
constexpr int kUserFailed = 901;
constexpr int kTimeoutS = 3600;

// What a user gets for a code of the guest's host; any other code becomes 901.
struct CodeRow {
  int of_host;
  int of_user;
};
constexpr CodeRow kCodes[] = {{guests::kUnreadable, kErrorUnreadable},
                              {guests::kRunsAlready, guests::kRunsAlready},
                              {guests::kNotRunning, guests::kNotRunning},
                              {guests::kBusy, kUserBusy},
                              {guests::kUnavailable, guests::kUnavailable}};

int CodeForUser(int of_host) {
  const auto* const row = std::ranges::find(kCodes, of_host, &CodeRow::of_host);
  return row == std::end(kCodes) ? kUserFailed : row->of_user;
}

enum class Deed { kDiscard, kRelease };

const char* MethodOf(Deed deed) { return deed == Deed::kDiscard ? "discard_saved" : "release"; }

VexaDRCore::Response AskHost(Deed deed, const std::string& guest_id, const std::string& host_id) {
  VexaDRCore::Request request;
  request.setAPI("VEXA.CCC.Guest");
  request.setMethod(MethodOf(deed));
  request.setVersion(1);
  request.addParam("guest_id", guest_id);
  request.setTimeout(kTimeoutS);
  return VexaCCC::Sender(host_id).process(request);
}

void Log(const std::string& user, Deed deed, bool is_done, const std::string& name) {
  using namespace VexaCCC;
  const bool is_discard = deed == Deed::kDiscard;
  if (is_done && is_discard) {
    ClusterLogAdd(user, CLOG_PRIORITY_SUCCESS, "The saved memory of the virtual machine [%s] has been discarded.",
                  name.c_str());
  } else if (is_done) {
    ClusterLogAdd(user, CLOG_PRIORITY_SUCCESS, "The virtual machine [%s] has been released to libvirt.", name.c_str());
  } else if (is_discard) {
    ClusterLogAdd(user, CLOG_PRIORITY_FAILURE, "Failed to discard the saved memory of the virtual machine [%s].",
                  name.c_str());
  } else {
    ClusterLogAdd(user, CLOG_PRIORITY_FAILURE, "Failed to release the virtual machine [%s].", name.c_str());
  }
}

void Do(const Call& call, Deed deed) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  if (!VexaVirtualization::IsGuestPermitted(call.request, guest_id.Get())) return Fail(call, kErrorNotPermitted);
  std::string host_id;
  if (vgConfHostGet(guest_id.Get(), host_id) != 0) return Fail(call, kErrorUnreadable);
  std::string name;
  (void)VexaVirtualization::GetGuestNameById(guest_id.Get(), name);
  const VexaDRCore::Response reply = AskHost(deed, guest_id.Get(), host_id);
  Log(call.request->GetLoginUserName(), deed, reply.isSuccess(), name);
  if (reply.isSuccess()) return call.response->SetSuccess(Json::Value());
  call.response->SetError(CodeForUser(reply.getErrCode()), reply.getErrMsg());
}

webapi::ApiRow Row(Deed deed, webapi::Access access, std::string_view summary) {
  return {.api = "VEXA.Virtualization.Guest",
          .method = MethodOf(deed),
          .version = 1,
          .access = access,
          .lane = webapi::LaneKind::kLong,
          .handler = WithGoneHostReason([deed](const Call& call) { Do(call, deed); }, NeededHost::kHolderOrNamed),
          .summary = summary,
          .parameters = {Text("guest_id", "The guest's id, a UUID.")},
          .errors = {webapi::kErrorBadParameter, kErrorUnreadable, kErrorNotPermitted, kUserFailed,
                     guests::kRunsAlready, guests::kNotRunning, kUserBusy, guests::kUnavailable}};
}

}  // namespace

std::vector<webapi::ApiRow> GuestKeepingRows() {
  return {Row(Deed::kDiscard, webapi::Access::kUser,
              "Remove the saved memory of a guest, which is shut down then. Data that it had not written to its "
              "disks is lost."),
          Row(Deed::kRelease, webapi::Access::kAdministrator,
              "Return a guest that is off to libvirt: its definition and files stay, and the cluster removes its "
              "records.")};
}

}  // namespace vexa::services
