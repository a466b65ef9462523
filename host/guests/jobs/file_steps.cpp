// The steps of a job on files, and how they are undone.
#include <sys/stat.h>

#include <cerrno>
#include <set>
#include <string_view>
#include <utility>

#include "host/base/log_text.h"
#include "host/disks/image_file.h"
#include "host/guests/jobs/file_job.h"

namespace vexa::guests {
namespace {

std::string_view FolderOf(const std::string& path) { return std::string_view(path).substr(0, path.rfind('/')); }

}  // namespace

Status SyncFolders(const DiskFiles& disk_files, const std::vector<std::string>& paths,
                   const std::function<void(std::size_t index)>& before_sync) {
  std::set<std::string_view> folders;
  for (const std::string& path : paths) {
    if (!folders.insert(FolderOf(path)).second) continue;
    before_sync(folders.size() - 1);
    if (Status synced = disk_files.Sync(path); !synced) return synced;
  }
  return {};
}

Refused FileJob::Make(const std::vector<NewFile>& files) {
  for (std::size_t i = 0; i < files.size(); ++i) {
    Step("make", i);
    const Status made = MakeOne(files[i]);
    // A file that existed before must not be removed.
    if (IsCode(made, ErrorCode::kConflict)) std::erase(record_.files.made, files[i].path);
    if (!made) return FileFailedBecause(made.error());
  }
  return std::nullopt;
}

Status FileJob::MakeOne(const NewFile& file) const {
  // Only the repository's own folder: the administrator creates its root.
  const std::string folder(FolderOf(file.path));
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    return SystemError(ErrorCode::kInternal, "Cannot make the folder '" + folder + "'", errno);
  }
  // Also when it already existed: its creator may have ended before the sync.
  if (Status synced = disk_files_.Sync(folder); !synced) return synced;
  const EmptyImage image = MakeEmptyImage(file.format, file.size_mib << 20);
  return disk_files_.Create(file.path, image.length, image.pieces);
}

Status FileJob::Hide(const HiddenFile& file, std::size_t index) const {
  Step("hide", index);
  return disk_files_.Hide(file.path, file.hidden);
}

Status FileJob::SyncAll(std::string_view step) const {
  std::vector<std::string> paths = record_.files.made;
  for (const HiddenFile& file : record_.files.hidden) paths.push_back(file.path);
  return SyncFolders(disk_files_, paths, [&](std::size_t index) { Step(step, index); });
}

Status FileJob::ShowAll(Order order) const {
  const std::size_t count = record_.files.hidden.size();
  for (std::size_t turn = 0; turn < count; ++turn) {
    const std::size_t i = order == Order::kForwards ? turn : count - 1 - turn;
    const auto& [path, hidden] = record_.files.hidden[i];
    Step("show", i);
    const Status shown = disk_files_.Show(path, hidden);
    if (shown || IsCode(shown, ErrorCode::kNotFound)) continue;
    if (!IsCode(shown, ErrorCode::kConflict)) return shown;
    LogFailure("There are both [" + cluster::ShownPath(path) + "] and [" + hidden + "] beside it; both are left");
  }
  return {};
}

// The guest's own records do not name a file that was created, because they are as before.
Status FileJob::UnmakeAll() const {
  const std::vector<std::string>& made = record_.files.made;
  SoughtFiles files;
  for (const std::string& path : made) {
    const auto look = disk_files_.Examine(path);
    if (!look) return look.error();
    if (look->kind == DiskFiles::Kind::kRegular) files.emplace(path, SoughtFile{look->identity, ""});
  }
  const auto named = FindFileUsers(*options_.store, Question({}), files);
  if (!named) return named.error();
  for (std::size_t i = made.size(); i-- > 0;) {
    const std::string& path = made[i];
    Step("unmake", i);
    if (const auto user = named->find(path); user != named->end()) {
      LogFailure("The new file [" + cluster::ShownPath(path) + "] is left: " + Describe(user->second));
      continue;
    }
    const Status removed = disk_files_.Remove(path);
    if (!removed && !IsCode(removed, ErrorCode::kNotFound)) return removed;
  }
  return {};
}

}  // namespace vexa::guests
