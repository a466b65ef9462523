#include "host/guests/jobs/file_selection.h"

#include <map>
#include <optional>
#include <string_view>

#include "host/base/log_text.h"

namespace vexa::guests {
namespace {

std::string Left(const std::string& path, const std::string& why) {
  return "the file [" + cluster::ShownPath(path) + "] is left: " + why;
}

// What can be decided from the path alone. Not set: it may be a file to remove.
std::optional<std::string> WhyLeft(const std::optional<std::string>& normal, const std::set<std::string>& images) {
  if (!normal) return "it is no absolute path of a file";
  if (images.contains(*normal)) return "it is an image in a drive of the guest";
  if (std::string_view(*normal).substr(normal->rfind('/') + 1).starts_with(kHiddenPrefix)) {
    return "it belongs to a deletion";
  }
  return std::nullopt;
}

}  // namespace

std::vector<std::string> PathsOf(const std::vector<NamedFile>& files) {
  std::vector<std::string> paths;
  paths.reserve(files.size());
  for (const NamedFile& file : files) paths.push_back(file.path);
  return paths;
}

Result<Selection> SelectFiles(const std::string& guest_id, const std::vector<NamedFile>& files,
                              const std::set<std::string>& images, const FileQuestion& question,
                              const DiskFiles& disk_files, const store::Store& store) {
  Selection selection;
  std::map<std::string, SoughtFile> found;
  for (const NamedFile& named : files) {
    const std::optional<std::string> path = NormalPath(named.path);
    if (const std::optional<std::string> why = WhyLeft(path, images)) {
      selection.notes.push_back(Left(named.path, *why));
      continue;
    }
    if (found.contains(*path)) continue;
    const Result<DiskFiles::Look> look = disk_files.Examine(*path);
    if (!look) return look.error();
    if (look->kind == DiskFiles::Kind::kLeft) selection.notes.push_back(Left(*path, look->why));
    if (look->kind == DiskFiles::Kind::kMissing) {
      selection.notes.push_back("there is no file [" + cluster::ShownPath(*path) + "]");
    }
    if (look->kind != DiskFiles::Kind::kRegular) continue;
    found.emplace(*path, SoughtFile{look->identity, ""});
    selection.files.push_back({*path, HiddenName(guest_id, named.index)});
  }
  const auto others = FindFileUsers(store, question, found);
  if (!others) return others.error();
  std::erase_if(selection.files, [&](const HiddenFile& file) { return others->contains(file.path); });
  for (const auto& [path, user] : *others) selection.notes.push_back(Left(path, Describe(user)));
  return selection;
}

}  // namespace vexa::guests
