#include "host/daemon/file_limit.h"

#include <sys/resource.h>

#include <algorithm>

namespace vexa::daemon {
namespace {

// Listeners, the store, the files that the lanes' threads open briefly (accounts, sessions), and connections that are
// being refused or closed.
constexpr std::size_t kOwnFiles = 512;

}  // namespace

std::size_t RaiseFileLimit(std::size_t connections) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return connections;
  const rlim_t wanted = connections + kOwnFiles;
  if (limit.rlim_cur < wanted) {
    rlimit raised = limit;
    raised.rlim_cur = std::min<rlim_t>(wanted, limit.rlim_max);
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
  }
  if (limit.rlim_cur >= wanted) return connections;
  const std::size_t files = limit.rlim_cur;
  // Under a very low limit, most descriptors are left to the daemon itself.
  return std::max<std::size_t>(1, files > 2 * kOwnFiles ? files - kOwnFiles : files / 4);
}

}  // namespace vexa::daemon
