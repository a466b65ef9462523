// Lets vexad run on a disk that hangs: while the file that the variable VEXA_TEST_HANGING_DISK names exists, a sync of
// the database does not end, and says so.
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

extern "C" int fdatasync(int fd) {
  static const char* const hangs = std::getenv("VEXA_TEST_HANGING_DISK");  // NOLINT(concurrency-mt-unsafe)
  constexpr char kLine[] = "A sync hangs.\n";
  if (hangs != nullptr && ::access(hangs, F_OK) == 0) {
    if (::write(STDOUT_FILENO, kLine, sizeof kLine - 1) < 0) return -1;
    while (::access(hangs, F_OK) == 0) ::usleep(10'000);
  }
  return static_cast<int>(::syscall(SYS_fdatasync, fd));
}
