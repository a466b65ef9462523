#include "host/daemon/image_folders.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace vexa::daemon {
namespace {

namespace fs = std::filesystem;

// Why `folder` cannot be used, as an error number; 0 when it can be, or may still be made.
int ProblemOf(const fs::path& folder) {
  if (::access(folder.c_str(), R_OK | W_OK | X_OK) == 0) return 0;
  const int problem = errno;
  if (problem != ENOENT || folder == folder.root_path()) return problem;
  return ::access(folder.parent_path().c_str(), W_OK | X_OK) == 0 ? 0 : ENOENT;
}

}  // namespace

void WarnOfHiddenFolders(const std::vector<std::string>& folders) {
  for (const std::string& folder : folders) {
    const int problem = ProblemOf(fs::path(folder).lexically_normal());
    if (problem == 0) continue;
    ::syslog(
        LOG_WARNING,
        "The image folder '%s' cannot be used here: %s. If it is fine for other programs, the unit of this service "
        "hides it: name it in ReadWritePaths= of a drop-in or, if it is below /home, /root or /run/user, in BindPaths= "
        "beside ProtectHome=tmpfs.",
        folder.c_str(), std::generic_category().message(problem).c_str());
  }
}

}  // namespace vexa::daemon
