// Reasons for failures whose handler gives none.
#pragma once

#include <string>

#include "host/api/api_table.h"
#include "host/http/http_server.h"
#include "host/records/last_finding.h"
#include "host/transport/unanswered.h"

namespace vexa::api {

// What platform and transport find during a call. Lives as long as the call.
struct FailureFindings {
  transport::FailedHostsScope hosts;
  records::FindingScope records;
};

// Gives a failed call of a user a reason when its handler has given none: what its parameters lack, who may grant what
// the caller lacks, what the hosts that were asked said, or which record could not be read.
void AddMissingReason(const ApiRow& row, const Call& call, const FailureFindings& findings);

// What a user reads of a host's refusal: `said`, or for a caller who is not an administrator what the code means and
// whom to ask.
std::string ReasonOfHost(bool is_administrator, int host_code, const std::string& said);

// Why a request was refused because of who sends it (103, 104, 105, and 100 when that could not be found out); "" for
// any other code. `caller` is null when the request was refused before the caller's account was looked up. Says nothing
// about tokens and accounts that the caller does not know.
std::string ReasonOfCaller(int code, const http::HttpRequest& request, const Caller* caller = nullptr);

// A sentence for replies that have no other reason: what is known from the code alone.
std::string ReasonOfCode(int code);

}  // namespace vexa::api
