// One deletion of one guest: from the beginning, or resumed from what its record says.
#pragma once

#include <optional>
#include <string>

#include "host/guests/deletion/deletion.h"
#include "host/guests/deletion/deletion_plan.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/guests/jobs/file_job.h"
#include "host/records/reader.h"

namespace vexa::guests {

// Threads: one at a time.
class DeletionJob {
 public:
  DeletionJob(const DeletionOptions& options, std::string guest_id);

  // From the beginning. Refusals: those of Deletion::Delete.
  Result<void, Refusal> Start(const Requester& requester);

  // Resumes a deletion that this host had started when it ended. A refusal has the reason why it is not finished, or
  // was undone.
  Result<void, Refusal> Resume(const StoredJob& unfinished);

 private:
  enum class Outcome {
    kReady,  // the intent is recorded: Continue() comes next
    kDeleted,
    kChanged,   // undone, because a relevant part of the guest's record has changed: start again
    kOutdated,  // records have started to refer to files since the search for other referrers: search again
    kRefused,   // refusal_ has the reason
  };

  // deletion_begin.cpp: determines what is deleted, and records the intent.
  Outcome Begin(const Requester& requester);
  Result<store::Transaction> PlanBegin(const records::Reader& reader, const Requester& requester,
                                       std::optional<Refusal>& refused, std::optional<DeletionPlan>& unexamined);
  // The reason why the guest cannot be deleted now. Not set: the guest can be deleted, and run_revision_ has the
  // revision of its run record, or 0 without one.
  Result<std::optional<Refusal>> FindHolder(const store::Snapshot& snapshot);
  bool IsExamined(const DeletionPlan& plan) const;
  Result<void, Refusal> GatherFacts(DeletionPlan plan);
  Status SelectFor(DeletionPlan plan);
  Outcome ResumeFrom(const StoredJob& unfinished);
  bool MatchesRecord() const;

  // deletion_job.cpp: the rest, except for the commit, which is in deletion_commit.cpp.
  enum class Started { kNow, kEarlier };  // kEarlier: resumed
  Outcome Continue(Started started);
  // 949 while the folders of the files differ from the folders at the start of the deletion: nothing is known about the
  // files.
  Result<void, Refusal> CheckStorage() const;
  Result<void, Refusal> CheckRepositoryHostGone() const;
  Status HideAll();
  Outcome CommitRecords();
  Outcome CommitOnce();
  Result<bool> AreFilesReferencedElsewhere();
  disks::FileReferrerQuery MakeReferrerQuery() const;
  Result<store::Transaction> PlanCommit(const records::Reader& reader, std::optional<Outcome>& early_outcome);
  Result<DeletionPlan> PlanAgain(const store::Snapshot& snapshot) const;
  Status RemoveGrants(const store::Snapshot& snapshot, store::Transaction& transaction);
  Status AddLeftover(const store::Snapshot& snapshot, store::Transaction& transaction);
  Result<bool> AddRunRemoval(const store::Snapshot& snapshot, store::Transaction& transaction);
  Outcome HandleLostRecord();
  Outcome HandleFailedCommit(const Error& error);
  Outcome Undo(const Refusal& refusal, Outcome outcome);
  Status RestoreNames();

  Outcome Refuse(Refusal refusal);
  Result<bool> GuestExists() const;
  bool IsRemote() const;  // the files are in another host's repository
  void LogNotes() const;

  const DeletionOptions& options_;
  const std::string guest_id_;
  FileJob job_;

  std::optional<DeletionPlan> plan_;  // by which selection_ was made; not set: none yet
  bool is_gone_ = false;              // the guest has no record any more
  Selection selection_;               // the files to hide and remove
  storage::FolderChain storage_;      // the folders that contain these files
  Notes later_notes_;                 // about deviations from the selection
  store::Revision run_revision_ = 0;  // of the record of the host that has the guest's saved memory
  Refusal refusal_;
};

}  // namespace vexa::guests
