// What the methods about images and repositories share.
#pragma once

#include <syslog.h>

#include <string>
#include <string_view>

#include "host/api/rows.h"
#include "host/base/log_text.h"
#include "host/base/result.h"
#include "host/records/named_record.h"

namespace vexa::services {

// Answers that `what` cannot be listed; the reason goes to the system log, and to administrators.
inline void FailToList(const webapi::Call& call, std::string_view what, const Error& error) {
  constexpr std::size_t kMaxReason = 1024;
  const std::string reason =
      cluster::LogText("The " + std::string(what) + " cannot be listed: " + error.ToString() + ".", kMaxReason);
  ::syslog(LOG_WARNING, "%s Asked by user[%s].", reason.c_str(), call.request->GetLoginUserName().c_str());
  Fail(call, cluster::kRecordFailed);
  // Causes name files and records.
  if (call.request->IsAdmin()) webapi::SetReason(call, reason);
}

}  // namespace vexa::services
