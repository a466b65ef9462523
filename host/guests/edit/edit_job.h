// One edit of one guest: its beginning (edit_begin.cpp), the rest (edit_job.cpp), and the undo (edit_undo.cpp). For
// host/guests/edit/edit*.cpp only.
#pragma once

#include <json/value.h>

#include <optional>
#include <set>
#include <string>

#include "host/guests/edit/edit.h"
#include "host/guests/edit/edit_facts.h"
#include "host/guests/edit/edit_plan.h"
#include "host/guests/edit/edit_request.h"
#include "host/guests/jobs/edit_record.h"
#include "host/guests/jobs/file_job.h"

namespace vexa::guests {

// Threads: one at a time.
class EditJob {
 public:
  EditJob(const EditOptions& options, std::string guest_id);

  // From the beginning. Refusals: those of Edits::Edit.
  Refused Start(const Json::Value& edit, const Requester& requester);

  // Resumes an edit that this host had started when it ended. A refusal says why it is not finished.
  Refused Resume(const StoredJob& begun);

 private:
  enum class Outcome {
    kBegun,  // the intent is recorded: the files come next
    kDone,
    kChanged,   // undone, because the records now name other files: start again
    kOutdated,  // facts are missing, or records have come to name files since the search for other users of the guest's
                // files
    kRefused,   // refusal_ says why
  };

  Status MakeIds();
  Outcome Begin(const Requester& requester);
  Outcome TakeBegun();
  Refused LookInto();
  // 949 while the folders of the files are not the expected ones, or those that the edit started with: nothing is known
  // about the files.
  Refused RefuseStorage(const FileChanges& files) const;
  Refused RefuseStorage() const;
  Outcome SettleFailedBegin(const Error& error);
  Result<store::Transaction> PlanBegin(const Requester& requester);
  Status SelectFor(const FileChanges& files);
  Status SelectGrown(const FileChanges& files);
  Status SelectRemoved(const FileChanges& files);
  Refused DoFiles();
  Refused DoActiveFiles();
  Outcome CommitRecords();
  Outcome CommitOnce();
  Result<bool> AreFilesNamedByOthers();
  Result<store::Transaction> PlanCommit(std::optional<Outcome>& instead);
  Outcome SettleFailedCommit(const Error& error);
  Outcome Undo(const Refusal& refusal, Outcome outcome);
  Status UndoFiles();
  Status UndoGrown();
  Status Shrink(const Growth& growth, const std::set<std::string>& own_disks);
  Result<std::set<std::string>> OwnDisks() const;

  Outcome Refuse(Refusal refusal);

  const EditOptions& options_;
  const std::string guest_id_;
  FileJob job_;

  EditRequest request_;
  NewIds ids_;
  FileFacts facts_;
  std::optional<FileChanges> files_;   // the changes that intent_ was selected by; not set: not yet
  std::optional<FileChanges> unseen_;  // the changes to select them by
  FileIntent intent_;
  Notes notes_;
  Refusal refusal_;
};

}  // namespace vexa::guests
