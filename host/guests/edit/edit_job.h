// One edit of one guest: its beginning (edit_begin.cpp), the rest (edit_job.cpp), and the undo (edit_undo.cpp). For
// host/guests/edit/edit*.cpp and for jobs that are edits with more records, such as a creation.
#pragma once

#include <json/value.h>

#include <optional>
#include <set>
#include <string>

#include "host/guests/edit/edit.h"
#include "host/guests/edit/edit_facts.h"
#include "host/guests/edit/edit_plan.h"
#include "host/guests/edit/edit_request.h"
#include "host/guests/jobs/file_job.h"
#include "host/records/reader.h"

namespace vexa::guests {

// Threads: one at a time.
class EditJob {
 public:
  // `kind` and `options` must outlive the job.
  EditJob(const JobKind& kind, const EditOptions& options, std::string guest_id);
  virtual ~EditJob() = default;

  // From the beginning. Refusals: those of Edits::Edit.
  Result<void, Refusal> Start(const EditRequest& request, const Requester& requester);

  // Resumes an edit that this host had started when it ended. A refusal has the reason why it is not finished.
  Result<void, Refusal> Resume(const StoredJob& unfinished);

 protected:
  // What a job does beside the edit, in the same commits. Not set: it may continue.
  using MaybeRefused = Result<std::optional<Refusal>>;
  // For the commit of the intent.
  virtual MaybeRefused AddToIntent(const records::Reader& /*reader*/, store::Transaction& /*transaction*/) {
    return std::optional<Refusal>();
  }
  // Writes to the new files, which are empty images, before they are made durable. `made` has them in the order of
  // "vdisks_add".
  virtual Result<void, Refusal> FillFiles(const std::vector<NewFile>& /*made*/) { return {}; }
  // For the commit of the records, or the only commit of an edit without files.
  virtual MaybeRefused AddToRecords(const records::Reader& /*reader*/, store::Transaction& /*transaction*/) {
    return std::optional<Refusal>();
  }
  // Undoes what AddToIntent has added, once the files are as they were. Can be repeated.
  virtual Status UndoRecords() { return {}; }

  const std::string& guest_id() const { return guest_id_; }
  const EditOptions& options() const { return options_; }
  const FileJob& job() const { return job_; }
  const Refusal& refusal() const { return refusal_; }

 private:
  enum class Outcome {
    kStarted,  // the intent is recorded: the files come next
    kDone,
    kChanged,   // undone, because the records now refer to other files: start again
    kOutdated,  // facts are missing, or records have started to refer to files since the search for other referrers
    kRefused,   // refusal_ has the reason
  };

  Status MakeIds();
  Outcome Begin(const Requester& requester);
  Outcome LoadUnfinished();
  Result<void, Refusal> GatherFacts();
  // 949 while the folders of the files are not the expected ones, or differ from the folders at the start of the edit:
  // nothing is known about the files.
  Result<void, Refusal> CheckStorage(const FileChanges& files) const;
  Result<void, Refusal> CheckStorage() const;
  Result<void, Refusal> CheckRoom(const FileChanges& files) const;
  Outcome HandleFailedBegin(const Error& error);
  Result<store::Transaction> PlanBegin(const records::Reader& reader, const Requester& requester);
  Result<store::Transaction> CompleteOrRefuse(MaybeRefused refused, store::Transaction& transaction);
  Status SelectFor(const FileChanges& files);
  Status SelectGrown(const FileChanges& files);
  Status SelectRemoved(const FileChanges& files);
  Result<void, Refusal> ChangeFiles();
  Result<void, Refusal> ChangeExistingFiles();
  Outcome CommitRecords();
  Outcome CommitOnce();
  Result<bool> AreFilesReferencedElsewhere();
  Result<store::Transaction> PlanCommit(const records::Reader& reader, std::optional<Outcome>& early_outcome);
  Outcome HandleFailedCommit(const Error& error);
  Outcome Undo(const Refusal& refusal, Outcome outcome);
  Status UndoFiles();
  Status UndoGrown();
  Status Shrink(const disks::Growth& growth, const std::set<std::string>& own_disks);
  Result<std::set<std::string>> OwnDisks() const;

  Outcome Refuse(Refusal refusal);

  const JobKind& kind_;
  const EditOptions& options_;
  const std::string guest_id_;
  FileJob job_;

  EditRequest request_;
  NewIds ids_;
  FileFacts facts_;
  std::optional<FileChanges> files_;       // the changes that intent_ was made from; not set: none yet
  std::optional<FileChanges> unexamined_;  // the changes to make intent_ from
  FileIntent intent_;
  Notes notes_;
  Refusal refusal_;
};

}  // namespace vexa::guests
