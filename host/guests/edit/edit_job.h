// One edit of one guest: its beginning (edit_begin.cpp), the rest (edit_job.cpp), and the undo (edit_undo.cpp). For
// host/guests/edit/edit*.cpp only.
#pragma once

#include <json/value.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/disks/disk_users.h"
#include "host/guests/edit/edit.h"
#include "host/guests/edit/edit_facts.h"
#include "host/guests/edit/edit_plan.h"
#include "host/guests/edit/edit_request.h"
#include "host/guests/jobs/edit_record.h"

namespace vexa::guests {

// Threads: one at a time.
class EditJob {
 public:
  EditJob(const EditOptions& options, std::string guest_id);

  // From the beginning. Refusals: those of Edits::Edit.
  Refused Start(const Json::Value& edit, const Requester& requester);

  // Resumes an edit that this host had started when it ended. A refusal says why it is not finished.
  Refused Resume(const StoredEdit& begun);

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
  Result<store::Transaction> PlanIntent(const Requester& requester, store::Transaction transaction);
  Status SelectFor(const FileChanges& files);
  Status SelectGrown(const FileChanges& files);
  Status SelectRemoved(const FileChanges& files);
  Refused DoFiles();
  Refused DoActiveFiles();
  Status MakeFile(const NewFile& file);
  Outcome CommitRecords();
  Outcome CommitOnce();
  Result<bool> AreFilesNamedByOthers();
  Result<bool> IsNamedByOthers(const std::map<std::string, SoughtFile>& files,
                               std::set<std::string> except_disks) const;
  Result<store::Transaction> PlanCommit(std::optional<Outcome>& instead);
  Outcome SettleFailedCommit(const Error& error);
  void Purge();
  Outcome Undo(const Refusal& refusal, Outcome outcome);
  Status UndoFiles();
  Status UndoGrown();
  Status Shrink(const Growth& growth, const std::set<std::string>& own_disks);
  Status ShowAll();
  Status UndoMade();
  Result<std::set<std::string>> OwnDisks() const;
  Status SyncAll(std::string_view step) const;
  Status RemoveRecord(std::string_view step);

  Outcome Refuse(Refusal refusal);
  Result<std::optional<StoredEdit>> ReadNow() const;
  void Step(std::string_view step) const;
  void Step(std::string_view step, std::size_t index) const;
  void LogFailure(const std::string& sentence) const;

  const EditOptions& options_;
  const std::string guest_id_;
  const DiskFiles disk_files_;

  EditRequest request_;
  NewIds ids_;
  FileFacts facts_;
  std::optional<FileChanges> files_;   // the changes that record_'s files were selected by; not set: not yet
  std::optional<FileChanges> unseen_;  // the changes to select them by
  Notes notes_;
  EditRecord record_;                   // as stored
  store::Revision revision_ = 0;        // of the stored record
  store::Revision files_revision_ = 0;  // of FilesKey(), read before the last search
  Refusal refusal_;
};

}  // namespace vexa::guests
