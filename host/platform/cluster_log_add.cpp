#include <syslog.h>

#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>

#include "host/base/log_text.h"
#include "host/cluster/cluster_log.h"
#include "host/records/environment.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::cluster {
namespace {

std::int64_t NowUs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

Status Add(const std::string& user, VexaCCC::CLOG_PRIORITY priority, const char* text) {
  const Environment* environment = CurrentEnvironment();
  if (!environment || !environment->store) return Error(ErrorCode::kUnavailable, "The cluster database is not open");
  LogEntry entry;
  entry.time_us = NowUs();
  entry.host_id = environment->host_id;
  entry.user = user;
  entry.priority = priority;
  entry.text = text;
  if (environment->request_id) entry.request_id = environment->request_id();
  return AddLogEntry(*environment->store, std::move(entry));
}

// The line is part of the message because it is stored nowhere else.
void Complain(const char* text, const std::string& why) {
  ::syslog(LOG_ERR, "The cluster log cannot be written: %s. The line was: %s", why.c_str(), text);
}

}  // namespace
}  // namespace vexa::cluster

namespace VexaCCC {

void ClusterLogAdd(const std::string& user, CLOG_PRIORITY priority, const char* format, ...) {
  // More than an entry can hold, but limited: a name may be of any length.
  char text[2 * vexa::cluster::kMaxLogEntryBytes] = "";
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  try {
    if (length < 0) return vexa::cluster::Complain(format, "its values cannot be put into it");
    const std::string line = vexa::cluster::LogText(text, vexa::cluster::kMaxLogEntryBytes);
    const vexa::Status added = vexa::cluster::Add(user, priority, line.c_str());
    if (!added) vexa::cluster::Complain(line.c_str(), added.error().ToString());
  } catch (const std::exception& exception) {
    ::syslog(LOG_ERR, "The cluster log cannot be written: %s", exception.what());
  }
}

}  // namespace VexaCCC
