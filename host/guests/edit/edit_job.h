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
#include "host/records/reader.h"

namespace vexa::guests {

// Threads: one at a time.
class EditJob {
 public:
  EditJob(const EditOptions& options, std::string guest_id);

  // From the beginning. Refusals: those of Edits::Edit.
  Result<void, Refusal> Start(const Json::Value& edit, const Requester& requester);

  // Resumes an edit that this host had started when it ended. A refusal has the reason why it is not finished.
  Result<void, Refusal> Resume(const StoredJob& unfinished);

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
  Outcome HandleFailedBegin(const Error& error);
  Result<store::Transaction> PlanBegin(const records::Reader& reader, const Requester& requester);
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
