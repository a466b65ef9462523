#include "host/cluster/account_source.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>

#include "host/base/files.h"

namespace vexa::cluster {
namespace {

constexpr std::size_t kMaxBytes = 64;
constexpr char kPam[] = "pam\n";

std::string PathIn(const std::string& data_directory) { return data_directory + "/accounts-from"; }

}  // namespace

Status SaveAccountSource(const std::string& data_directory, AccountSource source) {
  const std::string path = PathIn(data_directory);
  if (source == AccountSource::kPam) return WriteFileAtomically(path, kPam, 0600);
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return {};
  return SystemError(ErrorCode::kInternal, fmt::format("Cannot remove '{}'", path), errno);
}

AccountSource LoadAccountSource(const std::string& data_directory) {
  const auto text = ReadFile(PathIn(data_directory), kMaxBytes);
  return text && *text == kPam ? AccountSource::kPam : AccountSource::kStore;
}

}  // namespace vexa::cluster
