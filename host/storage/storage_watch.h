// Knows the storage of this host's repositories, so that a folder without what belongs in it is not believed.
//
// A storage is learned from files that exist: the folders down to one are remembered by their identities (see
// storage_trail.h, storage_record.h). From then on a folder that is not the same makes the repository unavailable until
// it is the same again, or an administrator accepts what is there.
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

// What to make of a folder of images that is missing, and below which no file was ever seen.
enum class UnlearnedRoots {
  kMissing,  // it is not mounted
  kIgnored,  // it was never used, as in test mode, whose guests need no files
};

// What the file system is asked about one repository, and what it answers.
struct StorageQuestion {
  std::vector<std::string> roots;  // the folders of images
  Trail known;
  std::vector<std::string> paths;  // of its files, as records have them
  std::string repository_id;
  UnlearnedRoots unlearned = UnlearnedRoots::kMissing;
};
struct StorageAnswer {
  TrailCheck check;                         // of what is known and used
  Trail learned;                            // not known yet; none while the check is kNotMounted
  std::set<std::string, std::less<>> used;  // see StorageNews
  std::vector<FolderCondition> conditions;  // of the folders in use; none while the check is kNotMounted
};

// May wait for ever. A folder is learned of a file in it that is there, and the repository's own folder below a root
// when it is there and no record names a file in it. Files in folders that are known are not looked at.
StorageAnswer AskStorage(const StorageQuestion& question);

// A repository learns no more folders than this; one that is not learned is not checked.
inline constexpr std::size_t kMaxStorageFolders = 4096;

// What a job is about to do with files.
enum class StorageUse {
  kExisting,  // looks for files, renames or removes them: of a folder that is gone they are gone as well
  kNew,       // makes files: a folder that is gone is not made again in the place of the one that was known
};

struct StorageOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;                                           // this host's
  std::vector<std::string> roots;                                // the folders of images
  std::chrono::milliseconds deadline = std::chrono::seconds(5);  // within which file systems answer
  SpaceLimits limits;
  // Whether guests need the files of their disks; test mode's do not.
  enum class Files { kNeeded, kNotNeeded };
  Files files = Files::kNeeded;
  std::function<std::chrono::system_clock::time_point()> now = std::chrono::system_clock::now;
  // Called on threads that may outlive the watch; tests put others in their place.
  std::function<StorageAnswer(const StorageQuestion&)> ask = AskStorage;
  std::function<TrailCheck(const Trail&)> check = CheckTrail;
  std::function<FileState(const DiskFile&)> look = LookAtFile;
};

// One per host. Threads: any, at the same time. No file system that hangs holds up a caller for longer than the
// deadline, nor the end of the watch.
class StorageWatch {
 public:
  explicit StorageWatch(StorageOptions options);

  // Looks at the storage of all repositories whose records name this host, learns and forgets folders, and writes the
  // state of each that has changed, with a line in the system log; then the states of their disks. What fails is logged
  // when it is new, and tried again by the next call. All repositories together take one deadline, and the files of
  // their disks another one.
  void Refresh();

  // Why a job cannot touch files of the repository now: 949, when a folder of one of `paths` is known and not the same,
  // the storage does not answer, or what is known cannot be read. Nothing: it can, as far as is known; of a repository
  // without an id nothing is. For jobs, before each step that believes what it finds; they hold neither a lock nor a
  // snapshot.
  Refused Refuse(const std::string& repository_id, const std::vector<std::string>& paths, StorageUse use);
  // Why a guest with files in the repository cannot be started now: 949, when its storage is full or cannot be written,
  // by what the last Refresh has found and is still stored.
  Refused RefuseStart(const std::string& repository_id) const;
  // The same as Refuse by the trail that a journal has of its files.
  Refused RefuseTrail(const std::string& repository_id, const Trail& remembered, StorageUse use);

  // Lets those who wait go. The watch is of no use afterwards: every storage counts as one that does not answer, and
  // Refresh writes nothing.
  void Stop();

 private:
  struct Asked;
  Asked Begin(const std::string& repository_id, const std::string& name, const Storage& storage,
              const std::vector<std::string>& paths);
  // The repository's state, "" when it is not known.
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
  std::map<std::string, std::string> complaints_;  // by repository; "" is all of them
  std::atomic<bool> is_stopped_ = false;
};

}  // namespace vexa::guests
