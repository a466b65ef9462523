#include <syslog.h>

#include <string>

#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/utils/transport.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
int CheckGuestRepoCap(const std::string& guest_id, VMCHECK& check) {
  VexaDRCore::Request request = transport::NewRequest("VEXA.CCC.Guest", "check_repo_cap");
  request.addParam("guest_id", guest_id);
  const VexaDRCore::Response response = VexaCCC::Sender::localhost().process(request);
  if (!response.isSuccess() || !response.hasDataField("repo_usable")) {
    transport::LogBadResponse(LOG_ERR, __LINE__, response, request);
    return response.getErrCode() == host_error::kUnknownApi ? user_error::kIncompatibleHost : user_error::kCheckFailed;
  }
  check = json::Bool(response.getDataField("repo_usable"))
              ? VMCHECK_USABLE
              : static_cast<VMCHECK>(json::Int(response.getDataField("failed_check")));
  return 0;
}

int ClearPollTaskOnHost(const std::string& host_id, const std::string& task_id) {
  VexaDRCore::Request request = transport::NewRequest("VEXA.Virtualization.Cluster", "clear_poll_task");
  request.addParam("task_id", task_id);
  const VexaDRCore::Response response = VexaCCC::Sender(host_id).process(request);
  if (!response.isSuccess()) {
    transport::LogBadResponse(LOG_ERR, __LINE__, response, request);
    return -1;
  }
  return 0;
}

}  // namespace VexaVirtualization
