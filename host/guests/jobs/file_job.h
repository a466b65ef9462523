// One job that changes files and records of a guest, the whole job or nothing, whatever stops the host meanwhile.
//
// 1. AddIntent() puts the job's record, with all that it is about to do with files, into a commit that compares
// whatever
//    the plan has read. TakeBegun() reads it back.
// 2. The files change, by steps that can be undone: Make(), Hide(), then SyncAll().
// 3. One commit changes the guest's records; AddPurging() adds that the job's record now says "purging". This is the
//    point of no return. It compares (CompareFiles) that no record has come to name a file since BeginSearch(), after
//    which the job made sure that no other record names one of its files.
// 4. Purge() removes the hidden files, then the job's record.
// A failure before 3 is undone with Undo(), and so may be a job that a host finds when it starts (TakeUp). What was
// done is not recorded: each step does nothing where it is already done, and each undo nothing where the step was not
// done.
//
// A kind of jobs is a row of JobKind (job_record.h), a plan (which files, what the records become), and calls of these.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/disks/disk_files.h"
#include "host/disks/disk_users.h"
#include "host/guests/jobs/file_selection.h"
#include "host/guests/jobs/job_options.h"
#include "host/guests/jobs/job_record.h"
#include "host/guests/jobs/requester.h"
#include "host/store/store.h"

namespace vexa::guests {

// How often a job starts again because the guest's disks changed during it.
inline constexpr int kJobTurns = 8;
// How often the search for other users of the files is repeated while records come to name files.
inline constexpr int kFileSearches = 8;

inline bool IsCode(const Status& status, ErrorCode code) { return !status && status.error().code() == code; }

Refusal KeepsChanging();        // the guest's record: 915
Refusal FilesKeepBeingNamed();  // by other records: 915
Refusal FilesKeepChanging();    // which records name files: 915

// The files that a question is about, by normal path.
using SoughtFiles = std::map<std::string, SoughtFile>;

// A file of a disk to create.
struct NewFile {
  std::string path;
  hypervisor::ImageFormat format = hypervisor::ImageFormat::kQcow2;
  std::uint64_t size_mib = 0;
  bool operator==(const NewFile&) const = default;
};

// Makes the changes in the folders of `paths` durable, each folder once, in this order, after `before_sync` with the
// number of the folder. Stops at the first failure.
Status SyncFolders(const DiskFiles& disk_files, const std::vector<std::string>& paths,
                   const std::function<void(std::size_t index)>& before_sync);

// Threads: one at a time. No snapshot of the request may be held: work on files can take long.
class FileJob {
 public:
  // Both must outlive it.
  FileJob(const JobKind& kind, const JobOptions& options, std::string guest_id);

  const DiskFiles& disk_files() const { return disk_files_; }
  // As last put into a commit by AddIntent(), or taken up.
  const JobRecord& record() const { return record_; }

  // The journal.
  // Adds the record, and the compare that the guest has none of this kind.
  void AddIntent(const Requester& requester, FileIntent files, store::Transaction& transaction);
  // After that commit. 901 when the record cannot be read, 915 when it is not the one of AddIntent().
  Refused TakeBegun();
  // After that commit has failed: whether it succeeded all the same. Then the job has begun.
  bool HasBegunAllTheSame();
  // Continues with a record of this host.
  void TakeUp(const StoredJob& begun);
  Result<std::optional<StoredJob>> ReadNow() const;
  // Whether the stored record is still the one that this job has committed or taken up.
  Result<bool> IsOurs(const store::Snapshot& snapshot) const;
  // Adds that the record's stage is "purging", unless the record has changed.
  void AddPurging(store::Transaction& transaction) const;
  // A commit that reported a failure may have succeeded all the same, and then there is no way back.
  struct FailedCommit {
    enum class State {
      kUnknown,          // leave everything as it is: the job is taken up later; logged
      kPurging,          // it succeeded
      kPurgedElsewhere,  // there is a record of another host that is beyond the point of no return
      kNotDone,          // undo it
    } state = State::kUnknown;
    Refusal refusal;  // unless it succeeded
  };
  FailedCommit SettleFailedCommit(const Error& error) const;

  // Checks.
  Refused RefuseActive() const;
  // 949 while folders of these files are not the expected ones: nothing is known about the files.
  Refused RefuseStorage(const std::string& repository_id, const std::vector<std::string>& paths, StorageUse use) const;
  // The same for the folders that the job started with.
  Refused RefuseTrail() const;

  // Whether other records name files of the job. The answer holds until the revision that BeginSearch() read changes.
  Status BeginSearch();
  // What is there now: of the hidden files under their hidden names, or of other files.
  Result<SoughtFiles> SeekHidden() const;
  Result<SoughtFile> Seek(const std::string& path) const;
  FileQuestion Question(std::set<std::string> except_disks) const;
  Result<bool> AreNamed(const SoughtFiles& files, const FileQuestion& question) const;
  // Adds a compare of `now`, the revision of FilesKey(). False, and adds nothing: it has changed since BeginSearch().
  Result<bool> CompareFiles(const Result<store::Revision>& now, store::Transaction& transaction) const;

  // Steps. Each calls JobOptions::before_step first.
  // Creates the files, with their folder when it is missing. A file that was already there is struck from the record in
  // memory, so that the undo leaves it.
  Refused Make(const std::vector<NewFile>& files);
  // Errors: those of DiskFiles::Hide.
  Status Hide(const HiddenFile& file, std::size_t index) const;
  // Makes the changes in all folders of the intent durable.
  Status SyncAll(std::string_view step) const;
  // Removes the hidden files, then the record, unless `storage` refuses. Failures are logged and retried later.
  void Purge(const Refused& storage);

  // Undoing.
  // Calls `undo_files`, unless `storage` refuses, and then removes the record. False: it is not undone, which is logged
  // and added to the reason of `refusal`; it is taken up again later.
  bool Undo(const Refused& storage, Refusal& refusal, const std::function<Status()>& undo_files);
  enum class Order { kForwards, kBackwards };
  // Gives hidden files their names back. Where both names exist, both files are left, which is logged.
  Status ShowAll(Order order) const;
  // Removes the files that were created, last first, except where a record names the file by now.
  Status UnmakeAll() const;

  void Step(std::string_view step) const;
  void Step(std::string_view step, std::size_t index) const;
  void LogFailure(const std::string& sentence) const;

 private:
  Status MakeOne(const NewFile& file) const;
  Status RemoveRecord(std::string_view step) const;

  const JobKind& kind_;
  const JobOptions& options_;
  const std::string guest_id_;
  const DiskFiles disk_files_;

  JobRecord record_;
  store::Revision revision_ = 0;        // of the stored record
  store::Revision files_revision_ = 0;  // of FilesKey(), read before the last search
};

}  // namespace vexa::guests
