// The daemon's own syslog(3). The library and the C library's fortified headers call syslog and __syslog_chk. These
// definitions override those of the C library; they add the request's id to each line and make it safe to print.
// Threads of their own write the lines, one for each target: the reader of a pipe or of the system's socket may have
// stopped, and neither a request nor the stop may hang on it.
//
// Compiled without _FORTIFY_SOURCE, whose inline definitions would clash with these.
#include "host/daemon/syslog_hook.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "host/api/request_id.h"
#include "host/daemon/log_line.h"
#include "host/daemon/log_queue.h"

namespace {

using vexa::daemon::LogQueue;
using Vsyslog = void (*)(int, const char*, va_list);

void CallSystemLog(int priority, const char* format, ...) {
  static const auto next = reinterpret_cast<Vsyslog>(dlsym(RTLD_NEXT, "vsyslog"));
  if (!next) return;
  va_list arguments;
  va_start(arguments, format);
  next(priority, format, arguments);
  va_end(arguments);
}

// The C library knows how to reach the system log.
void WriteToSystemLog(int priority, const std::string& line) { CallSystemLog(priority, "%s", line.c_str()); }

// In one write, which the system does not split: see kMaxStderrLine. A line that cannot be written is dropped.
void WriteToStderr(int, const std::string& line) {
  const std::string whole = std::string(vexa::daemon::kStderrPrefix) + line + "\n";
  while (::write(STDERR_FILENO, whole.data(), whole.size()) < 0) {
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return;
    pollfd waiting{STDERR_FILENO, POLLOUT, 0};
    ::poll(&waiting, 1, -1);
  }
}

// Intentional: never destroyed. Their threads may hang, and other threads may log while the process ends.
LogQueue& SystemLogQueue() {
  static auto* const queue = new LogQueue(WriteToSystemLog);
  return *queue;
}

LogQueue& StderrQueue() {
  static auto* const queue = new LogQueue(WriteToStderr);
  return *queue;
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
  const int error_number = errno;  // "%m" refers to it, and logging must not change it
  const std::string text = Format(format, arguments);
  const std::string_view request_id = vexa::api::CurrentRequestId();
  const LogTarget target = CurrentLogTarget();
  if (target != LogTarget::kSyslog) StderrQueue().Push(priority, MakeLogLine(text, request_id, kMaxStderrLine));
  if (target != LogTarget::kStderr) SystemLogQueue().Push(priority, MakeLogLine(text, request_id));
  errno = error_number;
}

}  // namespace

void vexa::daemon::FlushLog(std::chrono::milliseconds timeout) {
  const auto until = std::chrono::steady_clock::now() + timeout;
  const LogTarget target = CurrentLogTarget();
  if (target != LogTarget::kSyslog) (void)StderrQueue().Flush(until);
  if (target != LogTarget::kStderr) (void)SystemLogQueue().Flush(until);
}

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
