// Deletes guests: the files of their disks and their records, all of them or none, even when the host stops in the
// middle.
//
//   /deletion/<guest id>   {"host_id", "user", "request_id", "since" (Unix seconds), "stage": "hiding" | "purging",
//                           "files": [{"path", "hidden" (a name in the same folder)}]}
//   /leftover/<host id>/<guest id>   {"files": [path, …]}: files of a guest that was deleted while this host, which
//                           owns its repository, was unreachable
//
// 1. "hiding" is committed with compares: no host holds the guest (run_record.h), no deletion of it is in progress, and
//    its record is as read.
// 2. Each file gets a hidden name in its folder. A failure is undone: the names are restored, the record is removed.
// 3. One commit deletes all records of the guest, removes it from all grants, and changes the stage to "purging". It
//    compares that all records are as read, that the deletion is still this one, and that no record has started to
//    refer to a file since the search for other referrers of the guest's files (FileReferencesGuardKey()). This is the
//    point of no return. If the guest is edited after 1 and its files stay the same, the edit is deleted with it; after
//    any other edit, the deletion is undone and started again.
// 4. The hidden files are removed, then the "/deletion" record. Failures are retried.
// When a host starts, and periodically, it finishes the deletions that it has not finished: "hiding" resumes from 2 or
// is undone; "purging" resumes from 4. If even the undo fails, the record stays, and the guest is busy until it
// succeeds.
//
// A disk or interface belongs to a guest when the guest's record lists it and its own record names the guest. The
// guest's files are those of its disks, and the one with its UEFI variables ("nvram" in the guest's record).
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/base/mutex.h"
#include "host/base/refusal.h"
#include "host/guests/jobs/job_options.h"
#include "host/guests/jobs/requester.h"

namespace vexa::guests {

// Files that must not be removed are left in place, with a line in the system log.
struct DeletionOptions : JobOptions {
  // Whether another host is alive and so has to delete the guests of its repositories itself. Not set: no other
  // host is alive.
  std::function<bool(const std::string& host_id)> is_alive;
  // Whether the guest's machine here, running or saved, still has one of the files of disks that were removed from the
  // guest. True when that is unknown. Not set: guests cannot run here.
  std::function<bool(const std::string& guest_id, const std::vector<std::string>& paths)> has_file_in_machine{};
};

// Threads: any, at the same time; of two deletions of one guest, the second is refused as busy.
class Deletion {
 public:
  explicit Deletion(DeletionOptions options) : options_(std::move(options)) {}

  // Call it on the host of the guest's repository, or on any other host while that one is not alive; the files are then
  // left to that host. Nothing is refused after the point of no return. Refusals: 403 no readable record, 910 a host
  // holds the guest, or a process has one of its files open, 915 it is being deleted (the reason names by whom and
  // since when) or its record keeps changing, 949 the hypervisor cannot be reached, 901 with the failure.
  Result<void, Refusal> Delete(const std::string& guest_id, const Requester& requester);

  // Finishes the deletions that this host had started when it ended, and removes leftovers of other hosts' deletions.
  // Failures are logged and retried at the next call. Call it before any Delete: it would treat a deletion in progress
  // as an interrupted one.
  void FinishAll();
  // The same for one guest, which must not be being deleted on this host meanwhile.
  void Finish(const std::string& guest_id);
  // The guests with deletions that this host has started, and has in progress or could not finish. Empty when they
  // cannot be read.
  std::vector<std::string> Unfinished() const;
  // Removes the files that earlier deletions, and removals of disks of running guests, have left. Cheap when no files
  // are left. Logs each obstacle once.
  void RemoveLeftovers();

 private:
  const DeletionOptions options_;
  Mutex logged_mutex_;
  // By guest: what prevented the removal of its leftovers.
  std::map<std::string, std::string> logged_ VEXA_GUARDED_BY(logged_mutex_);
};

}  // namespace vexa::guests
