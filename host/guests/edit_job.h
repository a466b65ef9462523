// One edit of one guest. For host/guests/edit*.cpp only.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/guests/edit.h"
#include "host/guests/edit_plan.h"
#include "host/guests/edit_record.h"
#include "host/guests/edit_request.h"

namespace vexa::guests {

// Threads: one at a time.
class EditJob {
 public:
  EditJob(const EditOptions& options, std::string guest_id);

  // From the beginning. Refusals: those of Edits::Edit.
  Refused Start(const Json::Value& edit, const Requester& requester);

  // What this host had begun when it ended. A refusal says why it is not finished.
  Refused Resume(const StoredEdit& begun);

 private:
  enum class Outcome {
    kBegun,  // it is written down: the files come next
    kDone,
    kChanged,  // undone, since the records now mean other files: to be begun again
    kRefused,  // refusal_ says why
  };

  Status MakeIds();
  Outcome Begin(const Requester& requester);
  Outcome SettleFailedBegin(const Error& error);
  Result<store::Transaction> PlanBegin(const Requester& requester);
  Result<store::Transaction> PlanIntent(const Requester& requester, store::Transaction transaction);
  Status SelectFor(const FileChanges& files);
  Status SelectGrown(const FileChanges& files);
  Status SelectRemoved(const FileChanges& files);
  Status DoFiles();
  Status MakeFile(const NewFile& file);
  Outcome CommitRecords();
  Result<bool> AreFilesNamedByOthers() const;
  Result<store::Transaction> PlanCommit(std::optional<Outcome>& instead);
  Outcome SettleFailedCommit(const Error& error);
  void Purge();
  Outcome Undo(const Refusal& refusal, Outcome outcome);
  Status UndoFiles();
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
  std::optional<FileChanges> files_;  // what record_'s files were selected by; not set: not yet
  Notes notes_;
  EditRecord record_;             // as it is stored
  store::Revision revision_ = 0;  // of the stored record
  Refusal refusal_;
};

}  // namespace vexa::guests
