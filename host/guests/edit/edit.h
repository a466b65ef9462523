// Edits guests: their records and the files of their disks, the whole edit or no part of it.
//
//   /edit/<guest id>   {"host_id", "user", "request_id", "since" (Unix seconds), "stage": "doing" | "purging",
//                       "made": [path], "hidden": [{"path", "hidden"}],
//                       "grown": [{"path", "from", "to"}] (lengths, or 16 bytes of a header in hexadecimal)}
//
// An edit that does not touch any file is one commit. So is one that removes or grows disks of a guest that runs here:
// the commit leaves the files of removed disks to the code that removes leftovers of deletions (deletion.h), which
// waits until the guest's machine has given them back, and marks the disks whose images must grow (kImageIsSmaller).
// All others proceed in this order:
// 1. "doing" is committed with compares: no deletion or edit of the guest is in progress, and its records
//    and its run record are as read.
// 2. New files are created, files of removed disks get hidden names (as in deletion.h), images grow.
// 3. One commit writes all records and changes the stage to "purging". This is the point of no return. Records that
//    have been changed elsewhere since 1 are reread, and the edit is applied to them.
// 4. The hidden files are removed, then the "/edit" record.
// The commit of 3 compares that no record has started to refer to a file since the search for other referrers of the
// files to be removed or grown (FileReferencesGuardKey()). A failure before the point of no return is undone in reverse
// order. An image that another record refers to by then, or that a process has open, is not shrunk back; while the
// guest runs, the undo waits. When a host starts, it undoes its edits in the stage "doing", because their callers have
// not got a success, and finishes those in "purging".
#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "host/base/refusal.h"
#include "host/guests/jobs/job_options.h"
#include "host/guests/jobs/requester.h"
#include "host/records/guest_records.h"

namespace vexa::guests {

// New files are created in "<root>/<repository's id>" of the first of the image roots that has such a folder, or else
// in a new one below the first root.
struct EditOptions : JobOptions {
  // Like check_not_running, these are never called inside a plan or while a snapshot of the store is open.
  // Whether the processors that the edited records request could be dedicated to a guest running on this host. Not set:
  // yes.
  std::function<Result<void, Refusal>(const records::Guest& edited)> check_pins;
  // Whether there is a file at a path. Not set: always true, as in test mode.
  std::function<bool(const std::string& path)> has_file;
  // Whether disks of guests that run on this host can be removed and grow: the records change, and the caller changes
  // the machine afterwards. The machines of test mode have no files.
  bool can_change_running = false;
  // Refuses an edit that could not be applied completely to the guest, which runs. Not set: nothing could be.
  std::function<Result<void, Refusal>(const records::Guest& edited)> check_applies_now;
  // Whether guests of this host can have the CPU weight. Called inside plans: it must not wait. Not set: yes.
  std::function<Result<void, Refusal>(std::int64_t weight)> check_weight;
  // Whether QEMU on this host has the keyboard layout. The same applies.
  std::function<Result<void, Refusal>(const std::string& layout)> check_layout;
};

// Threads: any, at the same time, but only one at a time per guest on this host.
class Edits {
 public:
  explicit Edits(EditOptions options) : options_(std::move(options)) {}

  // `edit` has the parameters that docs/guests.md lists. Refusals: 401, 403, 410, 901, 902, 903, 904, 910, 912, 915,
  // 932, 936, 938, 944, 949, 2101. After a refusal, everything is as it was.
  Result<void, Refusal> Edit(const std::string& guest_id, const Json::Value& edit, const Requester& requester);

  // Finishes the edits that this host had started when it ended. Call it at the start, before any Edit. Failures are
  // logged and retried at the next call.
  void FinishAll();
  // The same for one guest, which must not be being edited meanwhile.
  void Finish(const std::string& guest_id);
  // The guests with edits that this host has started, and has in progress or could not finish. Empty when they cannot
  // be read.
  std::vector<std::string> Unfinished() const;

 private:
  const EditOptions options_;
};

// A member of a disk's record: true while its image may be smaller than recorded, because the guest ran when the size
// was edited. The running machine, or else the start, makes the image as large.
inline constexpr char kImageIsSmaller[] = "image_is_smaller";

// A member that earlier versions stored in the guest's record. The next edit removes it.
inline constexpr char kOutdatedPending[] = "pending";

}  // namespace vexa::guests
