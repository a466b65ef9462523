// A job that changes files and records of a guest, all of them or none, even when the host stops in the middle.
//
// 1. AddIntent() adds the job's record, with all intended changes of files, to a commit that compares what the plan has
//    read. LoadUnfinished() reads it back.
// 2. The files change, by steps that can be undone: Make(), Hide(), then SyncAll().
// 3. One commit changes the guest's records, and AddPurging() adds the stage "purging" to the job's record. This is the
//    point of no return. CompareReferencesRevision() compares that no record has started to refer to a file since
//    BeginSearch(), after which the job made sure that no other record refers to one of its files.
// 4. Purge() removes the hidden files, then the job's record.
// A failure before 3 is undone with Undo(). A job that a host finds when it starts (ResumeFrom) may be undone as well.
// Progress is not recorded: a step that is already done does nothing, and neither does the undo of a step that was not
// done.
//
// Each kind of job consists of a row of JobKind (job_record.h), a plan (which files, and what the records become), and
// code that calls FileJob.
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
#include "host/disks/file_referrers.h"
#include "host/guests/jobs/file_selection.h"
#include "host/guests/jobs/job_options.h"
#include "host/guests/jobs/job_record.h"
#include "host/guests/jobs/requester.h"
#include "host/store/store.h"

namespace vexa::guests {

// How often a job is started, in total, when the guest's disks change during it.
inline constexpr int kMaxJobAttempts = 8;
// How often the search for other referrers of the files is made while records start to refer to files.
inline constexpr int kMaxFileSearches = 8;

inline bool HasErrorCode(const Status& status, ErrorCode code) { return !status && status.error().code() == code; }

Refusal GuestKeepsChanging();        // the guest's record: 915
Refusal FilesKeepBeingReferenced();  // by other records: 915
Refusal ReferencesKeepChanging();    // the references of other records to any files: 915

// The files whose referrers are searched for, by normal path.
using QueriedFiles = std::map<std::string, disks::QueriedFile>;

// A file of a disk to create.
struct NewFile {
  std::string path;
  domain_xml::ImageFormat format = domain_xml::ImageFormat::kQcow2;
  std::uint64_t size_mib = 0;
  bool operator==(const NewFile&) const = default;
};

// Makes the changes in the folders of `paths` durable, each folder once, in this order, after `before_sync` with the
// number of the folder. Stops at the first failure.
Status SyncFolders(const disks::DiskFiles& disk_files, const std::vector<std::string>& paths,
                   const std::function<void(std::size_t index)>& before_sync);

// Threads: one at a time. No snapshot of the request may be held: work on files can take long.
class FileJob {
 public:
  // `kind` and `options` must outlive the job.
  FileJob(const JobKind& kind, const JobOptions& options, std::string guest_id);

  const disks::DiskFiles& disk_files() const { return disk_files_; }
  // As last added by AddIntent() or loaded by ResumeFrom().
  const JobRecord& record() const { return record_; }

  // The job's record.
  // Adds the record, and the compare that the guest has no record of this kind.
  void AddIntent(const Requester& requester, FileIntent files, store::Transaction& transaction);
  // Call it after that commit. Refusals: 901 when the record cannot be read, 915 when it is not the one of AddIntent().
  Result<void, Refusal> LoadUnfinished();
  // Whether that commit took effect although it reported a failure. Then the job has begun.
  bool HasBegunDespiteFailure();
  // Continues with a record of this host.
  void ResumeFrom(const StoredJob& unfinished);
  Result<std::optional<StoredJob>> ReadNow() const;
  // Whether the stored record is still the one that this job has committed or resumed.
  Result<bool> IsOurs(const store::Snapshot& snapshot) const;
  // Adds a compare that it is.
  void CompareOurs(store::Transaction& transaction) const;
  // Adds that the record's stage is "purging", unless the record has changed.
  void AddPurging(store::Transaction& transaction) const;
  // The outcome of the commit of 3 after it reported a failure: it may have taken effect nevertheless.
  struct FailedCommit {
    enum class State {
      kUnknown,          // leave everything unchanged: the job is resumed later; logged
      kPurging,          // it took effect
      kPurgedElsewhere,  // another host's job of this kind is beyond its point of no return
      kNotDone,          // undo it
    } state = State::kUnknown;
    Refusal refusal;  // unless it took effect
  };
  FailedCommit InspectFailedCommit(const Error& error) const;

  // Checks.
  Result<void, Refusal> CheckNotRunning() const;
  // 949 while folders of these files are not the expected ones: nothing is known about the files.
  Result<void, Refusal> CheckStorage(const std::string& repository_id, const std::vector<std::string>& paths,
                                     storage::StorageUse use) const;
  // The same for the folders that the job started with.
  Result<void, Refusal> CheckStoredFolders() const;

  // Search for other records that refer to files of the job. The result is valid as long as FileReferencesGuardKey()
  // has the revision that BeginSearch() read.
  Status BeginSearch();
  // The current files: the hidden ones under their hidden names, or the one at a path.
  Result<QueriedFiles> QueryHidden() const;
  Result<disks::QueriedFile> QueryFile(const std::string& path) const;
  disks::FileReferrerQuery MakeReferrerQuery(std::set<std::string> except_disks) const;
  Result<bool> AreReferenced(const QueriedFiles& files, const disks::FileReferrerQuery& query) const;
  // Adds a compare of `now`, the revision of FileReferencesGuardKey(). False, and adds nothing: it has changed since
  // BeginSearch().
  Result<bool> CompareReferencesRevision(const Result<store::Revision>& now, store::Transaction& transaction) const;

  // The steps. Each calls JobOptions::before_step first.
  // Creates the files, with their folder when it is missing. A file that was already there is removed from the record
  // in memory, so that the undo leaves it.
  Result<void, Refusal> Make(const std::vector<NewFile>& files);
  // Errors: those of DiskFiles::Hide.
  Status Hide(const HiddenFile& file, std::size_t index) const;
  // Makes the changes in all folders of the intent durable.
  Status SyncAll(std::string_view step) const;
  // Removes the hidden files, then the record, unless `storage` refuses. Failures are logged and retried later.
  void Purge(const Result<void, Refusal>& storage);

  // Undoing.
  // Calls `undo_files`, unless `storage` refuses, and then removes the record. False: it is not undone, which is logged
  // and added to the reason of `refusal`; it is resumed later.
  bool Undo(const Result<void, Refusal>& storage, Refusal& refusal, const std::function<Status()>& undo_files);
  enum class Order { kForwards, kBackwards };
  // Gives hidden files their names back. Where both names exist, both files stay, which is logged.
  Status RestoreNames(Order order) const;
  // Removes the files that were created, last first, unless a record refers to them by now.
  Status RemoveCreated() const;

  void BeforeStep(std::string_view step) const;
  void BeforeStep(std::string_view step, std::size_t index) const;
  void LogFailure(const std::string& sentence) const;

 private:
  Status CreateFile(const NewFile& file) const;
  Status RemoveRecord(std::string_view step) const;

  const JobKind& kind_;
  const JobOptions& options_;
  const std::string guest_id_;
  const disks::DiskFiles disk_files_;

  JobRecord record_;
  store::Revision revision_ = 0;        // of the stored record
  store::Revision files_revision_ = 0;  // of FileReferencesGuardKey(), read before the last search
};

}  // namespace vexa::guests
