// Deletes guests: their disks' files and their records, all or nothing, whatever stops the host meanwhile.
//
//   /deletion/<guest id>   {"host_id", "user", "request_id", "since" (Unix seconds), "stage": "hiding" | "purging",
//                           "files": [{"path", "hidden" (a name in the same folder)}]}
//   /leftover/<host id>/<guest id>   {"files": [path, …]}: files of a guest that was deleted while this host, whose
//                           repository it was, could not be asked
//
// 1. "hiding" is committed with compares: nobody has the guest (run_record.h), nobody deletes it, its record is as
//    read.
// 2. Each file gets a hidden name in its folder. What fails is undone: the names come back, the record goes.
// 3. One commit deletes all records of the guest, takes it out of all grants, and changes the stage to "purging", with
//    compares that all of them are as read, that the deletion is still this one, and that no record names a file since
//    it was searched who else names the guest's (FilesKey()). This is the point of no return. An edit of the guest
//    after 1 that leaves its files what they are is deleted with it; after any other, it is undone and begun again.
// 4. The hidden files are removed, then the "/deletion" record. What fails is tried again.
// A host finishes what it left, when it starts and from time to time: "hiding" is done again from 2, or undone;
// "purging" from 4. What cannot even be undone keeps its record, and the guest is busy until then.
//
// A guest's disks and interfaces are those that its record lists and whose own records name it. Its files are those of
// its disks and the one with its UEFI variables ("nvram" in its record).
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/refusal.h"
#include "host/disks/disk_files.h"
#include "host/guests/jobs/requester.h"
#include "host/storage/storage_watch.h"
#include "host/store/store.h"

namespace vexa::guests {

struct DeletionOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;  // this host's
  // Folders whose files are guests' disks. Only regular files below them are removed, and none that another record
  // names (disk_users.h); all others are left where they are, with a line in the system log.
  std::vector<std::string> image_roots;
  // Knows whether the folders of files are those that they are in. Null: all are.
  std::shared_ptr<StorageWatch> storage;
  // Asks the hypervisor whether the guest runs: 910 when it does, 949 when that cannot be found out. Not set: no guest
  // can run here.
  std::function<Refused(const std::string& guest_id)> refuse_active;
  // Whether another host is alive, so that guests of its repositories are its to delete. Not set: no other host is.
  std::function<bool(const std::string& host_id)> is_alive;
  std::function<std::chrono::system_clock::time_point()> now = std::chrono::system_clock::now;
  // Called before each step: every commit, rename, sync of a folder and removal, by names that are distinct within one
  // deletion; for tests that stop there.
  std::function<void(std::string_view step)> before_step;
  FileCalls file_calls;  // tests put others in the place of the system's
};

// Threads: any, at the same time; of two deletions of one guest the second is refused as busy.
class Deletion {
 public:
  explicit Deletion(DeletionOptions options) : options_(std::move(options)) {}

  // On the host of the guest's repository, or on any other while that is not alive; then the files are left to it.
  // Nothing is refused after the point of no return. Refusals: 403 no readable record, 910 a host has the guest, or a
  // machine has a file of it open, 915 it is being deleted (the reason says by whom and since when) or its record keeps
  // changing, 949 the hypervisor cannot be asked, 901 with what failed.
  Refused Delete(const std::string& guest_id, const Requester& requester);

  // What this host had begun when it ended, and leftovers of others' deletions. Whatever fails is logged and stays for
  // the next time. For the start, before any Delete: it takes a deletion of this host that is under way for one that
  // was left.
  void FinishAll();
  // The same of one guest, which nobody deletes meanwhile on this host.
  void Finish(const std::string& guest_id);
  // The guests with deletions that this host has begun, and has under way or could not finish. What cannot be read has
  // none.
  std::vector<std::string> Begun() const;
  // Leftovers alone; cheap when there are none. What is in the way is logged when it is new.
  void RemoveLeftovers();

 private:
  const DeletionOptions options_;
  std::mutex told_mutex_;
  std::map<std::string, std::string> told_;  // by guest: what was in the way of removing its leftovers
};

}  // namespace vexa::guests
