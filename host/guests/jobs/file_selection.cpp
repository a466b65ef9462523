#include "host/guests/jobs/file_selection.h"

#include <fmt/format.h>

#include <map>
#include <optional>
#include <string_view>

#include "host/base/sanitize_for_log.h"

namespace vexa::guests {
namespace {

// Why the file is kept according to its path alone. Not set: it may be a file to remove.
std::optional<std::string> ReasonToKeep(const std::optional<std::string>& normal, const std::set<std::string>& images) {
  if (!normal) return "the path is not a valid absolute path";
  if (images.contains(*normal)) return "it is an image in a drive of the guest";
  if (std::string_view(*normal).substr(normal->rfind('/') + 1).starts_with(kHiddenPrefix)) {
    return "it belongs to a deletion";
  }
  return std::nullopt;
}

}  // namespace

std::string KeptFile(const std::string& path, const std::string& why) {
  return fmt::format("the file [{}] is kept: {}", SanitizePathForLog(path), why);
}

std::vector<std::string> PathsOf(const std::vector<RecordedFile>& files) {
  std::vector<std::string> paths;
  paths.reserve(files.size());
  for (const RecordedFile& file : files) paths.push_back(file.path);
  return paths;
}

Result<Selection> SelectFiles(const std::string& guest_id, const std::vector<RecordedFile>& files,
                              const std::set<std::string>& images, const disks::FileReferrerQuery& query,
                              const disks::DiskFiles& disk_files, const store::Store& store) {
  Selection selection;
  std::map<std::string, disks::QueriedFile> found;
  for (const RecordedFile& file : files) {
    const std::optional<std::string> path = disks::NormalPath(file.path);
    if (const std::optional<std::string> why = ReasonToKeep(path, images)) {
      selection.notes.push_back(KeptFile(file.path, *why));
      continue;
    }
    if (found.contains(*path)) continue;
    const Result<disks::DiskFiles::FileInfo> info = disk_files.Examine(*path);
    if (!info) return info.error();
    if (info->kind == disks::DiskFiles::Kind::kUntouchable) selection.notes.push_back(KeptFile(*path, info->reason));
    if (info->kind == disks::DiskFiles::Kind::kMissing) {
      selection.notes.push_back(fmt::format("there is no file [{}]", SanitizePathForLog(*path)));
    }
    if (info->kind != disks::DiskFiles::Kind::kRegular) continue;
    found.emplace(*path, disks::QueriedFile{info->identity, ""});
    selection.files.push_back({*path, HiddenName(guest_id, file.index)});
  }
  const auto referrers = disks::FindFileReferrers(store, query, found);
  if (!referrers) return referrers.error();
  std::erase_if(selection.files, [&](const HiddenFile& hidden) { return referrers->contains(hidden.path); });
  for (const auto& [path, referrer] : *referrers) selection.notes.push_back(KeptFile(path, disks::Describe(referrer)));
  return selection;
}

}  // namespace vexa::guests
