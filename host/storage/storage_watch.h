// Monitors the storage of this host's repositories, so that an unmounted or replaced folder is not taken for the real
// one.
//
// Folders are learned from files that exist: the identities of the folders down to a file are stored (see
// folder_chain.h, storage_record.h). From then on, a folder with another identity makes the repository unavailable
// until the folder is the same again, or an administrator accepts the new one.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/base/mutex.h"
#include "host/base/refusal.h"
#include "host/storage/bounded_calls.h"
#include "host/storage/folder_chain.h"
#include "host/storage/repository_files.h"
#include "host/storage/storage_condition.h"
#include "host/storage/storage_disks.h"
#include "host/storage/storage_record.h"
#include "host/store/store.h"

namespace vexa::storage {

// How to treat a missing image folder whose identity is not stored, because no file below it was ever found.
enum class UnusedRootPolicy {
  kMissing,  // as not mounted
  kIgnored,  // as never used; for test mode, where guests do not need their files
};

// A probe of the storage of one repository, and its result.
struct ProbeRequest {
  std::vector<std::string> roots;  // the image folders
  FolderChain known;               // the stored identities
  std::vector<std::string> paths;  // of its files, as in the records
  std::string repository_id;
  UnusedRootPolicy unused_roots = UnusedRootPolicy::kMissing;
};
struct ProbeResult {
  FolderChainCheck check;                   // of the known folders that are in use
  FolderChain learned;                      // folders that were not known; none while the check is kNotMounted
  std::set<std::string, std::less<>> used;  // see StorageUpdate
  std::vector<FolderCondition> conditions;  // of the folders in use; none while the check is kNotMounted
};

// May wait forever. A folder is learned from an existing file in it; the repository's own folder below a root is
// learned when it exists and no record names a file in it. Files in known folders are not checked.
ProbeResult ProbeStorage(const ProbeRequest& request);

// At most this many folders of a repository are learned; others are not checked.
inline constexpr std::size_t kMaxStorageFolders = 4096;

// What a job is going to do with files.
enum class StorageUse {
  kExisting,  // looks for, renames or removes files: if a folder is gone, so are its files
  kNew,       // creates files: a missing folder must not be created in place of the known one
};

struct StorageOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;                                          // of this host
  std::vector<std::string> roots;                               // the image folders
  std::chrono::milliseconds timeout = std::chrono::seconds(5);  // for responses of file systems
  SpaceLimits limits;
  // Whether guests need the files of their disks; in test mode they do not.
  enum class Files { kNeeded, kNotNeeded };
  Files files = Files::kNeeded;
  std::function<std::chrono::system_clock::time_point()> now = std::chrono::system_clock::now;
  // Called on threads that may outlive the watch; tests replace them.
  std::function<ProbeResult(const ProbeRequest&)> probe = ProbeStorage;
  std::function<FolderChainCheck(const FolderChain&)> check_chain = CheckFolderChain;
  std::function<FileState(const DiskFile&)> check_file = CheckFile;
};

// One per host. Threads: any, at the same time. A file system that hangs never delays a caller, or the end of the
// watch, for longer than the timeout.
class StorageWatch {
 public:
  explicit StorageWatch(StorageOptions options);

  // Checks the storage of all repositories whose records name this host, learns and forgets folders, and writes each
  // state that has changed, with a line in the system log; then the states of their disks. New failures are logged, and
  // the next call retries. One timeout is for all repositories together, and another one for the files of their disks.
  void Refresh();

  // Refuses when a job must not touch files of the repository now: 949, when a folder of one of `paths` is known and
  // has changed, the storage does not respond, or the stored knowledge cannot be read. A repository without an id is
  // never refused. Jobs call this before each step that relies on the files that it finds. The caller must not hold a
  // lock or an open snapshot.
  Result<void, Refusal> CheckFolders(const std::string& repository_id, const std::vector<std::string>& paths,
                                     StorageUse use);
  // Refuses when a guest with files in the repository cannot be started now: 949, when its storage is full according to
  // the stored result of the last Refresh.
  Result<void, Refusal> CheckStorageForStart(const std::string& repository_id) const;
  // The same as CheckFolders, for the folder chain that a job's journal has stored of its files.
  Result<void, Refusal> CheckStoredFolders(const std::string& repository_id, const FolderChain& stored, StorageUse use);

  // Refuses when a file system of the repository is full now that has one of the files, which a job is going to create
  // or grow: 949, with the figures. Images are sparse: their sizes do not count, only what is used already.
  Result<void, Refusal> CheckRoom(const std::string& repository_id, const std::set<std::string>& paths);

  // Releases waiting callers. Do not use the watch afterwards: all storage counts as not responding, and Refresh writes
  // nothing.
  void Stop();

 private:
  struct PendingProbe;
  PendingProbe BeginProbe(const std::string& repository_id, const std::string& name, const Storage& storage,
                          const SpaceLimits& limits, const std::vector<std::string>& paths);
  void StoreSpace(const PendingProbe& pending) VEXA_REQUIRES(refreshing_);
  // Waits for the probe and writes its result. Returns the repository's state, "" when it is unknown.
  std::string ApplyProbe(PendingProbe& pending) VEXA_REQUIRES(refreshing_);
  std::optional<StorageProblem> ProblemFound(PendingProbe& pending) const;
  struct PendingFileCheck;
  PendingFileCheck BeginFileCheck(const std::string& repository_id, const std::string& state,
                                  const std::vector<DiskFile>& disks) VEXA_REQUIRES(refreshing_);
  void ApplyFileCheck(PendingFileCheck& pending) VEXA_REQUIRES(refreshing_);
  std::set<std::string> RunningGuests() const;
  void LogChange(const std::string& repository_id, const std::string& name, const StorageChange& change) const;
  // Logs that the storage of the repository ("": of all of them) cannot be checked, unless `reason` was the last one
  // that was logged for it.
  void LogOnce(const std::string& repository_id, const std::string& reason) VEXA_REQUIRES(refreshing_);
  Result<void, Refusal> CheckWithTimeout(const std::string& repository_id, const FolderChain& part, StorageUse use);

  const StorageOptions options_;
  BoundedCalls calls_;
  Mutex refreshing_;  // locked during Refresh
  FilesByRepository files_ VEXA_GUARDED_BY(refreshing_);
  std::map<std::string, DiskStates> disks_ VEXA_GUARDED_BY(refreshing_);  // by repository
  // By repository; "" stands for all of them.
  std::map<std::string, std::string> last_logged_ VEXA_GUARDED_BY(refreshing_);
  std::atomic<bool> is_stopped_ = false;
};

}  // namespace vexa::storage
