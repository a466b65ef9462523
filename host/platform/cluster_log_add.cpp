#include <syslog.h>

#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/cluster/cluster_log.h"
#include "host/records/environment.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::platform {
namespace {

std::int64_t NowUs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

Status AddEntry(const std::string& user, VexaCCC::CLOG_PRIORITY priority, const char* text) {
  const records::Environment* environment = records::CurrentEnvironment();
  if (!environment || !environment->store) return Error(ErrorCode::kUnavailable, "The cluster database is not open");
  cluster::LogEntry entry;
  entry.time_us = NowUs();
  entry.host_id = environment->host_id;
  entry.user = user;
  entry.priority = priority;
  entry.text = text;
  if (environment->request_id) entry.request_id = environment->request_id();
  return cluster::AddLogEntry(*environment->store, std::move(entry));
}

// The message includes the line because it is not stored anywhere else.
void LogWriteFailure(const char* line, const std::string& reason) {
  ::syslog(LOG_ERR, "The cluster log cannot be written: %s. The line was: %s", reason.c_str(), line);
}

}  // namespace
}  // namespace vexa::platform

namespace VexaCCC {

void ClusterLogAdd(const std::string& user, CLOG_PRIORITY priority, const char* format, ...) {
  // More than an entry can contain, so that SanitizeForLog sees what to cut, but limited, because names may be of any
  // length.
  char text[2 * vexa::cluster::kMaxLogEntryBytes] = "";
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  try {
    if (length < 0) return vexa::platform::LogWriteFailure(format, "it could not be formatted");
    const std::string line = vexa::SanitizeForLog(text, vexa::cluster::kMaxLogEntryBytes);
    const vexa::Status added = vexa::platform::AddEntry(user, priority, line.c_str());
    if (!added) vexa::platform::LogWriteFailure(line.c_str(), added.error().ToString());
  } catch (const std::exception& exception) {
    ::syslog(LOG_ERR, "The cluster log cannot be written: %s", exception.what());
  }
}

}  // namespace VexaCCC
