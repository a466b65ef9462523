// Finishes uploads that were interrupted at their end, and removes abandoned ones.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>

#include "host/base/sanitize_for_log.h"
#include "host/records/keys.h"
#include "host/storage/upload_file.h"
#include "host/storage/uploads.h"
#include "host/storage/uploads_turn.h"
#include "webapi/platform/ccc.h"

namespace vexa::storage {
namespace {

using VexaCCC::DB::DashCate;

constexpr std::size_t kMaxDisplayed = 128;

// The time of the last byte, as far as it is known.
std::chrono::system_clock::time_point LastByte(const Upload& upload, int root) {
  struct stat info {};
  if (::fstatat(root, upload.PartialName().c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return upload.began;
  return std::max(upload.began, std::chrono::system_clock::from_time_t(info.st_mtime));
}

}  // namespace

void Uploads::CleanUp(const std::function<void(const Upload& upload)>& on_added) {
  std::vector<Upload> own;
  std::vector<Upload> foreign;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return;  // the next call tries again
    const auto all = ReadUploads(**snapshot);
    if (!all) return;
    for (const Upload& upload : *all) {
      if (upload.host_id == options_.host_id) {
        own.push_back(upload);
        continue;
      }
      const auto host = (*snapshot)->Get(records::ObjectKey(DashCate::Host.name(), upload.host_id));
      if (host && !host->has_value()) foreign.push_back(upload);
    }
  }
  {
    const MutexLock lock(mutex_);
    std::erase_if(idle_, [&](const auto& one) { return std::ranges::find(own, one.first, &Upload::id) == own.end(); });
  }
  CleanUpFiles();
  for (const Upload& upload : foreign) ForgetForeign(upload);
  for (const Upload& upload : own) CleanUp(upload.id, on_added);
}

void Uploads::CleanUp(const std::string& id, const std::function<void(const Upload& upload)>& on_added) {
  std::string name;
  const auto progress = Read(id);
  if (!progress.ok()) return;
  const std::string displayed = SanitizeForLog(progress->name, kMaxDisplayed);
  if (progress->inode) {
    if (!End(id, name).ok()) return;
    ::syslog(LOG_NOTICE, "The upload of the image '%s', which was interrupted at its end, has been finished.",
             displayed.c_str());
    if (on_added) on_added(*progress);
    return;
  }
  RemoveIfAbandoned(id);
}

// Whether no byte has arrived for too long: by the clock, which counts while this process does not run, and by what
// this process has seen.
bool Uploads::HasBeenIdle(const Upload& upload, int root) {
  const auto received = ReceivedBytes(upload, root);
  const bool is_old = options_.now() - LastByte(upload, root) >= options_.limits.idle;
  const auto now = options_.steady_now();
  const MutexLock lock(mutex_);
  if (!is_old || !received.ok()) {
    idle_.erase(upload.id);
    return false;
  }
  const auto [entry, is_new] = idle_.try_emplace(upload.id, Idle{*received, now});
  if (entry->second.received != *received) entry->second = {*received, now};
  return !is_new && now - entry->second.since >= options_.limits.observed_idle;
}

void Uploads::RemoveIfAbandoned(const std::string& id) {
  const Turn turn(*this, id);
  if (!turn.is_taken()) return;
  const auto upload = Read(id);
  if (!upload.ok() || upload->inode) return;
  const auto root = OpenRoot(*upload);
  if (!root.ok() || !HasBeenIdle(*upload, root->get())) return;
  const std::string displayed = SanitizeForLog(upload->name, kMaxDisplayed);
  const auto removed = Remove(*upload, root->get());
  if (removed.ok()) {
    ::syslog(LOG_NOTICE, "The upload of the image '%s' has been removed: nothing has arrived for %ld hours.",
             displayed.c_str(), static_cast<long>(options_.limits.idle.count() / 3600));
  } else {
    ::syslog(LOG_ERR, "The upload of the image '%s', of which nothing arrives, cannot be removed: %s.",
             displayed.c_str(), removed.error().reason.c_str());
  }
}

// An upload to a host that was removed from the cluster cannot be continued.
void Uploads::ForgetForeign(const Upload& upload) {
  const auto committed =
      options_.store->Commit({{{UploadKey(upload.id), upload.revision}}, {{UploadKey(upload.id), std::nullopt}}});
  if (!committed) return;
  ::syslog(LOG_NOTICE, "The upload of the image '%s' has been forgotten: its host is not in the cluster any more.",
           SanitizeForLog(upload.name, kMaxDisplayed).c_str());
}

}  // namespace vexa::storage
