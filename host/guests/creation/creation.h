// Creates guests from nothing: their records and the files of their disks, the whole guest or no part of it.
//
//   /creation/<guest id>   {"host_id", "user", "request_id", "since" (Unix seconds), "stage": "making" | "purging",
//                           "made": [path]}
//
// A creation is an edit (edit.h) of a guest that has no record yet:
// 1. "making" is committed together with the guest's record in the state "creating", so that lists show the guest and
//    no other guest gets its name, and with the record of a numbered request (request_record.h).
// 2. The files of its disks are made, empty or as copies of existing images. The key "progress" of the guest's record
//    has the percentage that is copied.
// 3. One commit writes the records of the guest, its disks and interfaces, its grants and the request's answer. This is
//    the point of no return.
// A failure before that removes the files, then the guest's record. When a host starts, it undoes the creations that it
// had started, because their callers have not got a success. A guest without disks is one commit.
//
// An import that copies images has the same record and the same steps, with the state "importing".
#pragma once

#include <json/value.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "host/base/refusal.h"
#include "host/disks/image_copy.h"
#include "host/guests/creation/request_record.h"
#include "host/guests/edit/edit.h"
#include "host/guests/import/guest_import.h"
#include "host/guests/jobs/requester.h"

namespace vexa::guests {

// The key of a guest's record with the percentage that has been copied, while it is being created.
inline constexpr char kProgress[] = "progress";

// A longer wait would hold up a stop, and clients can repeat their request once more.
inline constexpr std::chrono::seconds kRequestWait{20};

struct CreationOptions : EditOptions {
  disks::CopyOptions copy{};  // of existing images; Creations sets its callbacks
  // How long a repeated request waits for the first one.
  std::chrono::milliseconds request_wait = kRequestWait;
  // Whether such a wait, and a copy of an image, must end now. Not set: never.
  std::function<bool()> is_stopping{};
};

// Threads: any, at the same time, each with a guest id of its own.
class Creations {
 public:
  explicit Creations(CreationOptions options) : options_(std::move(options)) {}

  // Creates the guest `guest_id`, a UUID that was never used. `parameters` has those of the method "create" between
  // hosts (docs/services.md). Returns {"guest_id", "name", "host_id"}, and for a repeated request what the first one
  // returned. Refusals: those of Edits::Edit; 403 (no such repository, host or account). After a refusal, everything is
  // as it was, but for the record of a numbered request.
  Result<Json::Value, Refusal> Create(const std::string& guest_id, const Json::Value& parameters,
                                      const Requester& requester);

  // Imports a guest with copies of its disks' images, which are below the image roots and stand alone, in the folder
  // of `request.repository_id`, a repository of this host. The definition is stored with the copies. `request` has the
  // ids of its repository and host; `importing` is as for GuestImport, and guests that exist are refused. Refusals,
  // with the codes of hosts: 401 (the definition; an image that cannot be copied), 403 (no such repository or
  // host), 902 (the guest exists, or another one has the name), 910, 915, 901, 949. After a refusal, everything is as
  // it was.
  Result<void, Refusal> Import(const ImportRequest& request, const GuestImport::Options& importing,
                               const Requester& requester, ImportedGuest& imported);

  // Undoes the creations and imports that this host had started when it ended. Call it at the start, before any Create.
  // Failures are logged and retried at the next call.
  void FinishAll();
  // The same for one guest, which must not be being created meanwhile.
  void Finish(const std::string& guest_id);
  // The guests whose creation this host has started, and has in progress or could not undo. Empty when they cannot be
  // read.
  std::vector<std::string> Unfinished() const;

 private:
  const CreationOptions options_;
};

// The outcome of a numbered request that was made before, also to another host; waits at most `timeout` while it is in
// progress, and then refuses with 915, and the guest's id in the reason; with 949 when `is_stopping`. Not set: there
// was no such request. Errors of the store become refusals.
FirstOutcome AwaitFirstOutcome(const store::Store& store, const NumberedRequest& request,
                               std::chrono::milliseconds timeout, const std::function<bool()>& is_stopping = {});

}  // namespace vexa::guests
