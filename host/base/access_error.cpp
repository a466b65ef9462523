#include "host/base/access_error.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "host/base/account_name.h"
#include "host/base/sanitize_for_log.h"

namespace vexa {
namespace {

bool Permits(const std::string& path, int rights) {
  return ::faccessat(AT_FDCWD, path.c_str(), rights, AT_EACCESS) == 0 || errno != EACCES;
}

// "the folder '/a' belongs to 'root' and has mode 0700, so 'vexa' cannot use it"
std::string Describe(const char* kind, const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return "";
  return fmt::format("the {} '{}' belongs to '{}' and has mode {:04o}, so '{}' cannot use it", kind,
                     SanitizePathForLog(path), NameOfAccount(info.st_uid), info.st_mode & 07777U,
                     NameOfAccount(::geteuid()));
}

// " Run: chown vexa: '/a'", in quotes of the shell. Empty where the path cannot be shown as it is.
std::string Advice(const std::string& command, const std::string& path) {
  if (SanitizePathForLog(path) != path) return "";
  std::string quoted;
  for (const char each : path) quoted += each == '\'' ? "'\\''" : std::string(1, each);
  return fmt::format(". Run: {} '{}'", command, quoted);
}

std::string OwnFolder(const std::string& folder) {
  return Describe("folder", folder) + Advice(fmt::format("chown {}:", NameOfAccount(::geteuid())), folder);
}

std::string WhatIsMissing(const std::string& path, AccessTo access) {
  const std::size_t last = path.rfind('/');
  if (last == std::string::npos || last == 0) return "";
  for (std::size_t end = path.find('/', 1); end < last; end = path.find('/', end + 1)) {
    const std::string above = path.substr(0, end);
    if (!Permits(above, X_OK)) return Describe("folder", above) + Advice("chmod o+x", above);
  }
  const std::string folder = path.substr(0, last);
  if (!Permits(folder, access == AccessTo::kEntry ? W_OK | X_OK : X_OK)) return OwnFolder(folder);
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    return Permits(path, R_OK | X_OK) ? "" : OwnFolder(path);
  }
  // Its owner may be right: libvirt gives a guest's disks to QEMU while it runs.
  return Permits(path, R_OK | W_OK) ? "" : Describe("file", path);
}

}  // namespace

Error AccessError(ErrorCode code, std::string message, const std::string& path, AccessTo access, int error_number) {
  const bool lacks_right = error_number == EACCES || error_number == EPERM;
  const std::string missing = lacks_right ? WhatIsMissing(path, access) : "";
  if (missing.empty()) return SystemError(code, std::move(message), error_number);
  return Error(code, std::move(message), fmt::format("{}; {}", std::generic_category().message(error_number), missing));
}

}  // namespace vexa
