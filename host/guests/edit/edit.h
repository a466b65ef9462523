// Changes guests: their records, and the files of their disks, all of an edit or nothing.
//
//   /edit/<guest id>   {"host_id", "user", "request_id", "since" (Unix seconds), "stage": "doing" | "purging",
//                       "made": [path], "hidden": [{"path", "hidden"}],
//                       "grown": [{"path", "from", "to"}] (lengths, or 16 bytes of a header in hexadecimal)}
//
// An edit that touches no file is one commit. Any other is done in this order:
// 1. "doing" is committed with compares: nobody deletes or edits the guest, its records are as read, and so is whether
//    a host has it.
// 2. New files are made, files of removed disks get hidden names (as in deletion.h), images grow.
// 3. One commit writes all records and changes the stage to "purging". This is the point of no return. Records that
//    others have changed since 1 are read again and the edit is made of those.
// 4. The hidden files are removed, then the "/edit" record.
// The commit of 3 compares that no record names a file since it was searched who else names those that go or grow
// (FilesKey()). What fails before the point of no return is undone in the opposite order. An image that another record
// names by then, or that a machine has open, stays grown; while the guest runs, undoing waits. A host that starts
// undoes what it left as "doing", whose caller was never told that it was done, and finishes "purging".
#pragma once

#include <json/value.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/refusal.h"
#include "host/disks/disk_files.h"
#include "host/guests/jobs/requester.h"
#include "host/records/guest_records.h"
#include "host/storage/storage_watch.h"
#include "host/store/store.h"

namespace vexa::guests {

struct EditOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;  // this host's
  // As for deletions. New files are made in "<root>/<repository's id>" of the first root that has such a folder, or
  // else in a new one below the first root.
  std::vector<std::string> image_roots;
  // Knows whether the folders of files are those that they are in. Null: all are.
  std::shared_ptr<StorageWatch> storage;
  // Asks the hypervisor whether the guest runs: 910 when it does, 949 when that cannot be found out. Not set: no guest
  // can run here.
  std::function<Refused(const std::string& guest_id)> refuse_active;
  // None of these three is called inside a commit, nor while a snapshot of the store is held.
  // Whether a guest that runs on this host could have what its edited records say set apart. Not set: it could.
  std::function<Refused(const Guest& edited)> rate_pins;
  // Whether there is a file at a path. Not set: there are all, as for guests that are only pretended to run.
  std::function<bool(const std::string& path)> has_file;
  std::function<std::chrono::system_clock::time_point()> now = std::chrono::system_clock::now;
  // Called before each step, as in deletion.h.
  std::function<void(std::string_view step)> before_step;
  FileCalls file_calls;
};

// Threads: any, at the same time, but for one guest only one at a time on this host.
class Edits {
 public:
  explicit Edits(EditOptions options) : options_(std::move(options)) {}

  // `edit` has the parameters that docs/guests.md lists. Refusals: 401, 403, 410, 901, 902, 903, 904, 910, 912, 915,
  // 932, 936, 938, 944, 949, 2101; after one, everything is as it was.
  Refused Edit(const std::string& guest_id, const Json::Value& edit, const Requester& requester);

  // What this host had begun when it ended. For the start, before any Edit. Whatever fails is logged and stays for the
  // next time.
  void FinishAll();
  // The same of one guest, which nobody edits meanwhile.
  void Finish(const std::string& guest_id);
  // The guests with edits that this host has begun, and has under way or could not finish. What cannot be read has
  // none.
  std::vector<std::string> Begun() const;

 private:
  const EditOptions options_;
};

// The record's "pending": what was changed while the guest ran, and counts from its next start.
inline constexpr char kPending[] = "pending";

}  // namespace vexa::guests
