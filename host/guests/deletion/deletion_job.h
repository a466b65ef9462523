// One deletion of one guest, from whatever point it has reached.
#pragma once

#include <optional>
#include <string>

#include "host/guests/deletion/deletion.h"
#include "host/guests/deletion/deletion_plan.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/guests/jobs/file_job.h"

namespace vexa::guests {

// Threads: one at a time.
class DeletionJob {
 public:
  DeletionJob(const DeletionOptions& options, std::string guest_id);

  // From the beginning. Refusals: those of Deletion::Delete.
  Refused Start(const Requester& requester);

  // Resumes a deletion that this host had started when it ended. A refusal says why it is not finished, or was undone.
  Refused Resume(const StoredJob& begun);

 private:
  enum class Outcome {
    kReady,  // the intent is recorded: GoOn() comes next
    kDeleted,
    kChanged,   // undone, because a relevant part of the guest's record has changed: start again
    kOutdated,  // records have come to name files since the search for other users of the guest's files: search again
    kRefused,   // refusal_ says why
  };

  // deletion_begin.cpp: what is deleted, and the record of the intent.
  Outcome Begin(const Requester& requester);
  Result<store::Transaction> PlanBegin(const Requester& requester, Refused& refused,
                                       std::optional<DeletionPlan>& unseen);
  Result<Refused> RefuseTaken();
  bool IsSeen(const DeletionPlan& plan) const;
  Refused LookInto(DeletionPlan plan);
  Status SelectFor(DeletionPlan plan);
  Outcome TakeUp(const StoredJob& begun);
  bool FitsRecord() const;

  // deletion_job.cpp: from there to the end. deletion_commit.cpp: the commit in between.
  enum class Begun { kNow, kBefore };
  Outcome GoOn(Begun begun);
  // 949 while the folders of the files are not those that the deletion started with: nothing is known about the files.
  Refused RefuseStorage() const;
  Refused RefuseAlive() const;
  Status HideAll();
  Outcome CommitRecords();
  Outcome CommitOnce();
  Result<bool> AreFilesNamedByOthers();
  FileQuestion Question() const;
  Result<store::Transaction> PlanCommit(std::optional<Outcome>& instead);
  Result<DeletionPlan> PlanAgain(const store::Snapshot& snapshot) const;
  Status RemoveGrants(const store::Snapshot& snapshot, store::Transaction& transaction);
  Status AddLeftover(const store::Snapshot& snapshot, store::Transaction& transaction);
  Result<bool> AddRun(const store::Snapshot& snapshot, store::Transaction& transaction);
  Outcome Lost();
  Outcome SettleFailedCommit(const Error& error);
  Outcome Undo(const Refusal& refusal, Outcome outcome);
  Status ShowAll();

  Outcome Refuse(Refusal refusal);
  Result<bool> GuestExists() const;
  bool IsRemote() const;
  void LogNotes() const;

  const DeletionOptions& options_;
  const std::string guest_id_;
  FileJob job_;

  std::optional<DeletionPlan> plan_;  // the plan that the files were selected by; not set: not yet
  bool is_gone_ = false;              // the guest no longer has a record
  Selection selection_;               // the files that still have their names
  Trail storage_;                     // the folders that contain them
  Notes later_notes_;                 // about deviations from the selection
  store::Revision run_revision_ = 0;  // of the record of the host that has the guest's saved memory
  Refusal refusal_;
};

}  // namespace vexa::guests
