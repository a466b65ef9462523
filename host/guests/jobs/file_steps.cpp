// The steps of a job on files, and how they are undone.
#include <fmt/format.h>

#include <set>
#include <string_view>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/disks/image_file.h"
#include "host/guests/jobs/file_job.h"

namespace vexa::guests {
namespace {

std::string_view FolderOf(const std::string& path) { return std::string_view(path).substr(0, path.rfind('/')); }

}  // namespace

Status SyncFolders(const disks::DiskFiles& disk_files, const std::vector<std::string>& paths,
                   const std::function<void(std::size_t index)>& before_sync) {
  std::set<std::string_view> folders;
  for (const std::string& path : paths) {
    if (!folders.insert(FolderOf(path)).second) continue;
    before_sync(folders.size() - 1);
    if (Status synced = disk_files.Sync(path); !synced) return synced;
  }
  return {};
}

Result<void, Refusal> FileJob::Make(const std::vector<NewFile>& files) {
  for (std::size_t i = 0; i < files.size(); ++i) {
    BeforeStep("make", i);
    const Status made = CreateFile(files[i]);
    // A file that existed before must not be removed.
    if (HasErrorCode(made, ErrorCode::kConflict)) std::erase(record_.files.made, files[i].path);
    if (!made) return FileRefusalFor(made.error());
  }
  return {};
}

Status FileJob::CreateFile(const NewFile& file) const {
  // Creates only the repository's own folder: its parent is created by the administrator.
  const std::string folder(FolderOf(file.path));
  if (Status made = storage::MakeFolder(folder, options_.folder_access); !made) return made;
  // Needed for an existing folder as well: its creator may have ended before the sync.
  if (Status synced = disk_files_.Sync(folder); !synced) return synced;
  const disks::EmptyImage image = disks::MakeEmptyImage(file.format, file.size_mib << 20);
  return disk_files_.Create(file.path, image.length, image.pieces);
}

Status FileJob::Hide(const HiddenFile& file, std::size_t index) const {
  BeforeStep("hide", index);
  return disk_files_.Hide(file.path, file.hidden);
}

Status FileJob::SyncAll(std::string_view step) const {
  std::vector<std::string> paths = record_.files.made;
  for (const HiddenFile& file : record_.files.hidden) paths.push_back(file.path);
  return SyncFolders(disk_files_, paths, [&](std::size_t index) { BeforeStep(step, index); });
}

Status FileJob::RestoreNames(Order order) const {
  const std::size_t count = record_.files.hidden.size();
  for (std::size_t n = 0; n < count; ++n) {
    const std::size_t i = order == Order::kForwards ? n : count - 1 - n;
    const auto& [path, hidden] = record_.files.hidden[i];
    BeforeStep("show", i);
    const Status shown = disk_files_.Unhide(path, hidden);
    if (shown || HasErrorCode(shown, ErrorCode::kNotFound)) continue;
    if (!HasErrorCode(shown, ErrorCode::kConflict)) return shown;
    LogFailure(fmt::format("The file [{}] exists beside its hidden copy [{}]. Both were kept", SanitizePathForLog(path),
                           hidden));
  }
  return {};
}

// The guest's own records, which have not been changed yet, do not refer to the created files.
Status FileJob::RemoveCreated() const {
  const std::vector<std::string>& made = record_.files.made;
  QueriedFiles files;
  for (const std::string& path : made) {
    const auto found = disk_files_.Examine(path);
    if (!found) return found.error();
    if (found->kind == disks::DiskFiles::Kind::kRegular) files.emplace(path, disks::QueriedFile{found->identity, ""});
  }
  const auto referrers = disks::FindFileReferrers(*options_.store, MakeReferrerQuery({}), files);
  if (!referrers) return referrers.error();
  for (std::size_t i = made.size(); i-- > 0;) {
    const std::string& path = made[i];
    BeforeStep("unmake", i);
    if (const auto referrer = referrers->find(path); referrer != referrers->end()) {
      LogFailure(
          fmt::format("The new file [{}] is kept: {}", SanitizePathForLog(path), disks::Describe(referrer->second)));
      continue;
    }
    const Status removed = disk_files_.Remove(path);
    if (!removed && !HasErrorCode(removed, ErrorCode::kNotFound)) return removed;
  }
  return {};
}

}  // namespace vexa::guests
