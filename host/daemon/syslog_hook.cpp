// The daemon's own syslog(3). The library and the C library's fortified headers call syslog and __syslog_chk. These
// definitions override those of the C library; they add the request's id to each line and make it safe to print.
//
// Compiled without _FORTIFY_SOURCE, whose inline definitions would clash with these.
#include <dlfcn.h>
#include <sys/syslog.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "host/api/request_id.h"
#include "host/daemon/log_line.h"

namespace {

using Vsyslog = void (*)(int, const char*, va_list);

// Passes a finished line to the C library, which knows how to reach the system log.
void ToSystemLog(int priority, const char* format, ...) {
  static const auto next = reinterpret_cast<Vsyslog>(dlsym(RTLD_NEXT, "vsyslog"));
  if (!next) return;
  va_list arguments;
  va_start(arguments, format);
  next(priority, format, arguments);
  va_end(arguments);
}

__attribute__((format(printf, 1, 0))) std::string Format(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int size = std::vsnprintf(nullptr, 0, format, arguments);
  std::string text;
  if (size > 0) {
    text.resize(static_cast<std::size_t>(size));
    std::vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  return text;
}

__attribute__((format(printf, 2, 0))) void Log(int priority, const char* format, va_list arguments) {
  using namespace vexa::daemon;
  const std::string line = MakeLogLine(Format(format, arguments), vexa::api::CurrentRequestId());
  const LogTarget target = CurrentLogTarget();
  if (target != LogTarget::kSyslog) std::fprintf(stderr, "vexad: %s\n", line.c_str());
  if (target != LogTarget::kStderr) ToSystemLog(priority, "%s", line.c_str());
}

}  // namespace

extern "C" {

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Log(priority, format, arguments);
  va_end(arguments);
}

__attribute__((format(printf, 2, 0))) void vsyslog(int priority, const char* format, va_list arguments) {
  Log(priority, format, arguments);
}

__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Log(priority, format, arguments);
  va_end(arguments);
}

__attribute__((format(printf, 3, 0))) void __vsyslog_chk(int priority, int, const char* format, va_list arguments) {
  Log(priority, format, arguments);
}
}
