// Monitors the storage of this host's repositories, so that a folder without its proper content is not trusted.
//
// Storage is learned from files that exist: the folders down to a file are remembered by their identities (see
// storage_trail.h, storage_record.h). From then on, a folder that is not the same makes the repository unavailable
// until it is the same again, or an administrator accepts what is there.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/storage/storage_calls.h"
#include "host/storage/storage_condition.h"
#include "host/storage/storage_disks.h"
#include "host/storage/storage_record.h"
#include "host/storage/storage_trail.h"
#include "host/storage/storage_users.h"
#include "host/store/store.h"

namespace vexa::guests {

// How to treat a missing folder of images below which no file was ever seen.
enum class UnlearnedRoots {
  kMissing,  // it is not mounted
  kIgnored,  // it was never used, as in test mode, where guests need no files
};

// The question to the file system about one repository, and its answer.
struct StorageQuestion {
  std::vector<std::string> roots;  // the folders of images
  Trail known;
  std::vector<std::string> paths;  // of its files, as in the records
  std::string repository_id;
  UnlearnedRoots unlearned = UnlearnedRoots::kMissing;
};
struct StorageAnswer {
  TrailCheck check;                         // of what is known and used
  Trail learned;                            // not known yet; none while the check is kNotMounted
  std::set<std::string, std::less<>> used;  // see StorageNews
  std::vector<FolderCondition> conditions;  // of the folders in use; none while the check is kNotMounted
};

// May wait forever. A folder is learned from an existing file in it; the repository's own folder below a root is
// learned when it exists and no record names a file in it. Files in known folders are not checked.
StorageAnswer AskStorage(const StorageQuestion& question);

// A repository learns no more folders than this; a folder that is not learned is not checked.
inline constexpr std::size_t kMaxStorageFolders = 4096;

// What a job is about to do with files.
enum class StorageUse {
  kExisting,  // looks for, renames or removes files: if a folder is gone, so are its files
  kNew,       // creates files: a missing folder is not created in place of the known one
};

struct StorageOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;                                           // of this host
  std::vector<std::string> roots;                                // the folders of images
  std::chrono::milliseconds deadline = std::chrono::seconds(5);  // within which file systems must respond
  SpaceLimits limits;
  // Whether guests need the files of their disks; in test mode they do not.
  enum class Files { kNeeded, kNotNeeded };
  Files files = Files::kNeeded;
  std::function<std::chrono::system_clock::time_point()> now = std::chrono::system_clock::now;
  // Called on threads that may outlive the watch; tests replace them.
  std::function<StorageAnswer(const StorageQuestion&)> ask = AskStorage;
  std::function<TrailCheck(const Trail&)> check = CheckTrail;
  std::function<FileState(const DiskFile&)> look = LookAtFile;
};

// One per host. Threads: any, at the same time. A file system that hangs never delays a caller, or the end of the
// watch, for longer than the deadline.
class StorageWatch {
 public:
  explicit StorageWatch(StorageOptions options);

  // Checks the storage of all repositories whose records name this host, learns and forgets folders, and writes each
  // state that has changed, with a line in the system log; then the states of their disks. New failures are logged, and
  // the next call retries. All repositories together take one deadline, and the files of their disks another one.
  void Refresh();

  // Why a job must not touch files of the repository now: 949, when a folder of one of `paths` is known and has
  // changed, the storage does not respond, or the knowledge cannot be read. Empty: it may, as far as is known; about a
  // repository without an id nothing is known. Jobs call this before each step that relies on what it finds; they must
  // hold neither a lock nor a snapshot.
  Refused Refuse(const std::string& repository_id, const std::vector<std::string>& paths, StorageUse use);
  // Why a guest with files in the repository cannot be started now: 949, when its storage is full or cannot be written,
  // according to the stored result of the last Refresh.
  Refused RefuseStart(const std::string& repository_id) const;
  // The same as Refuse, for the trail that a journal has of its files.
  Refused RefuseTrail(const std::string& repository_id, const Trail& remembered, StorageUse use);

  // Releases waiting callers. Do not use the watch afterwards: all storage counts as not responding, and Refresh writes
  // nothing.
  void Stop();

 private:
  struct Asked;
  Asked Begin(const std::string& repository_id, const std::string& name, const Storage& storage,
              const std::vector<std::string>& paths);
  // The repository's state, "" when it is unknown.
  std::string Take(Asked& asked);
  std::optional<StorageTrouble> TroubleIn(Asked& asked) const;
  struct Checked;
  Checked BeginFiles(const std::string& repository_id, const std::string& state, const std::vector<DiskFile>& disks);
  void TakeFiles(Checked& checked);
  std::set<std::string> RunningGuests() const;
  void Log(const std::string& repository_id, const std::string& name, const StorageChange& change) const;
  void Complain(const std::string& about, const std::string& what);
  Refused CheckWithin(const std::string& repository_id, const Trail& part, StorageUse use);

  const StorageOptions options_;
  BoundedCalls calls_;
  std::mutex refreshing_;  // held by Refresh
  FilesByRepository files_;
  std::map<std::string, DiskStates> disks_;        // by repository
  std::map<std::string, std::string> complaints_;  // by repository; "" stands for all of them
  std::atomic<bool> is_stopped_ = false;
};

}  // namespace vexa::guests
