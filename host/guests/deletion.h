// Deletes guests: their disks' files and their records, all or nothing, whatever stops the host meanwhile.
//
//   /deletion/<guest id>   {"host_id", "user", "request_id", "since" (Unix seconds), "stage": "hiding" | "purging",
//                           "files": [{"path", "hidden"}]}
//   /leftover/<host id>/<guest id>   {"files": [path, …]}: files of a guest that was deleted while this host, whose
//                           repository it was, could not be asked
//
// 1. "hiding" is committed with compares: nobody has the guest (run_record.h), nobody deletes it, its record is as
// read.
// 2. Each file gets a hidden name in its folder. What fails is undone: the names come back, the record goes.
// 3. One commit deletes all records of the guest, and changes the stage to "purging". This is the point of no return.
// 4. The hidden files are removed, then the "/deletion" record.
// A host that starts finishes what it left: "hiding" is done again from 2, or undone; "purging" from 4.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/guests/disk_files.h"
#include "host/guests/refusal.h"
#include "host/store/store.h"

namespace vexa::guests {

// Who asked for something.
struct Requester {
  std::string user;     // "" when it is not known
  std::string host_id;  // the host that sent the request
  std::string request_id;
};

// Why nothing can be begun with a guest that is being deleted: 915, with who deletes it and since when; 901 when that
// cannot be read. Nothing: it is not being deleted.
Refused DeletionUnderWay(const store::Store& store, const std::string& guest_id);

struct DeletionOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;  // this host's
  // Folders whose files are guests' disks. Only regular files below them are removed, and none that a record of another
  // disk names; all others are left where they are, with a line in the system log.
  std::vector<std::string> image_roots;
  std::function<std::chrono::system_clock::time_point()> now = std::chrono::system_clock::now;
  // Called before each step; for tests that stop there.
  std::function<void(std::string_view step)> before_step;
  FileCalls file_calls;  // tests put others in the place of the system's
};

// Threads: any, at the same time; of two deletions of one guest the second is refused as busy.
class Deletion {
 public:
  explicit Deletion(DeletionOptions options) : options_(std::move(options)) {}

  // On the host of the guest's repository, or on any other when that cannot be asked; then the files are left to it.
  // Refusals: 403 no readable record, 910 a host has the guest, 915 it is being deleted (the reason says by whom and
  // since when), 901 with what failed.
  Refused Delete(const std::string& guest_id, const Requester& requester);

  // What this host had begun when it ended, and leftovers of others' deletions. Whatever fails is logged and stays for
  // the next time.
  void FinishAll();
  // Leftovers alone; cheap when there are none.
  void RemoveLeftovers();

 private:
  DeletionOptions options_;
};

}  // namespace vexa::guests
