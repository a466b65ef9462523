#include "tests/regress/hanging_file.h"

#include <sys/syscall.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <mutex>
#include <string_view>

// Declared here: the header's own definition, which checks the arguments, would be another one.
extern "C" long syscall(long number, ...) noexcept;  // NOLINT(google-runtime-int)

namespace {

constexpr int kCurrentFolder = -100;  // AT_FDCWD

// At most a minute, so that a test does not hang when it fails.
constexpr std::chrono::seconds kLongest{60};

std::mutex mutex;
std::condition_variable changed;
std::string hanging;  // ends the path of the file that hangs; empty: none
int waiting = 0;

void PassOrWait(std::string_view path) {
  std::unique_lock lock(mutex);
  if (hanging.empty() || !path.ends_with(hanging)) return;
  ++waiting;
  changed.notify_all();
  changed.wait_for(lock, kLongest, [] { return hanging.empty(); });
  --waiting;
}

}  // namespace

namespace vexa::test {

HangingFile::HangingFile(const std::string& end_of_path) {
  const std::lock_guard lock(mutex);
  hanging = end_of_path;
}

HangingFile::~HangingFile() { Release(); }

void HangingFile::Release() {
  const std::lock_guard lock(mutex);
  hanging.clear();
  changed.notify_all();
}

bool HangingFile::WaitUntilOpened() {
  std::unique_lock lock(mutex);
  return changed.wait_for(lock, kLongest, [] { return waiting > 0; });
}

}  // namespace vexa::test

extern "C" int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);  // means nothing unless a file is created
  va_end(arguments);
  PassOrWait(path);
  return static_cast<int>(syscall(SYS_openat, kCurrentFolder, path, flags, mode));
}
