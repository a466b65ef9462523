#include "host/guests/jobs/repository_folder.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>

namespace vexa::guests {
namespace {

constexpr std::size_t kMaxFolderBytes = 128;

bool IsFolderName(const std::string& name) {
  return !name.empty() && name.size() <= kMaxFolderBytes && std::ranges::all_of(name, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
  });
}

}  // namespace

std::string RepositoryFolder(const JobOptions& options, const std::string& repository_id) {
  if (!IsFolderName(repository_id)) return "";
  std::string first;
  for (const std::string& root : options.image_roots) {
    const std::string folder = fmt::format("{}/{}", root, repository_id);
    if (!disks::NormalPath(folder + "/x")) continue;
    struct stat info {};
    if (options.file_calls.before_lookup) options.file_calls.before_lookup();
    if (::stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return folder;
    if (first.empty()) first = folder;
  }
  return first;
}

}  // namespace vexa::guests
