// Intentional: <syslog.h> is not included, because in fortified builds it defines the functions that are replaced here.
#include "tests/support/syslog_capture.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace vexa::test {
namespace {

struct Captured {
  std::mutex mutex;
  std::vector<SyslogLine> lines;
};

// Never destroyed: threads may log while the program ends.
Captured& State() {
  static auto* const state = new Captured;
  return *state;
}

__attribute__((format(printf, 2, 0))) void Capture(int priority, const char* format, std::va_list arguments) {
  const int error_number = errno;  // "%m" refers to it, and logging must not change it
  std::va_list copy;
  va_copy(copy, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  SyslogLine line{priority, std::string(length > 0 ? static_cast<std::size_t>(length) : 0, '\0')};
  errno = error_number;
  if (length > 0) std::vsnprintf(line.text.data(), line.text.size() + 1, format, arguments);
  {
    const std::lock_guard lock(State().mutex);
    State().lines.push_back(std::move(line));
  }
  errno = error_number;
}

}  // namespace

std::vector<SyslogLine> CapturedSyslog() {
  const std::lock_guard lock(State().mutex);
  return State().lines;
}

void ClearCapturedSyslog() {
  const std::lock_guard lock(State().mutex);
  State().lines.clear();
}

bool SyslogContains(std::string_view text) {
  const std::lock_guard lock(State().mutex);
  for (const auto& line : State().lines) {
    if (line.text.find(text) != std::string::npos) return true;
  }
  return false;
}

}  // namespace vexa::test

extern "C" {

__attribute__((format(printf, 2, 0))) void vsyslog(int priority, const char* format, std::va_list arguments) {
  vexa::test::Capture(priority, format, arguments);
}

__attribute__((format(printf, 3, 0))) void __vsyslog_chk(int priority, int, const char* format,
                                                         std::va_list arguments) {
  vexa::test::Capture(priority, format, arguments);
}

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  vexa::test::Capture(priority, format, arguments);
  va_end(arguments);
}

__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  vexa::test::Capture(priority, format, arguments);
  va_end(arguments);
}
}
