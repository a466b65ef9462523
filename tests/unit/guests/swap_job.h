// Fixture for tests of file jobs: a job kind that only tests have, which gives a guest's disk a new file in place of
// its old one.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/guests/jobs/file_job.h"
#include "host/guests/jobs/unfinished_jobs.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"
#include "tests/unit/guests/guest_deletion_environment.h"

namespace vexa::test {

inline constexpr char kNewName[] = "a/d0000000-0000-4000-8000-000000000001.raw";

inline std::string SwapKey(const std::string& guest_id) { return store::MakeKey({"swap", guest_id}); }

inline const guests::JobKind kSwapKind = {
    .key = SwapKey,
    .folder = "swap",
    .changing_stage = "swapping",
    .parse_files = [](const Json::Value& record, const std::string& guest_id) -> std::optional<guests::FileIntent> {
      auto made = guests::ParseMade(VexaVirtualization::json::Member(record, "new"));
      auto hidden = guests::ParseHidden(VexaVirtualization::json::Member(record, "old"), guest_id);
      if (!made || !hidden) return std::nullopt;
      return guests::FileIntent{std::move(*made), std::move(*hidden), {}, {}, {}};
    },
    .put_files =
        [](const guests::FileIntent& files, Json::Value& record) {
          record["new"] = guests::MadeJson(files.made);
          record["old"] = guests::HiddenJson(files.hidden);
        },
    .title = "Swap",
    .plural = "swaps",
    .noun = "swap",
    .busy_sentence = "The guest is being swapped",
    .start_unknown = "Begun is unknown",
    .commit_unknown = "Done is unknown",
    .not_undone = "Not undone",
};

// The disk 1 of the guest, whose file is in another folder than the new one.
class Swap {
 public:
  Swap(const DeletionEnvironment& environment, const guests::JobOptions& options)
      : store_(*options.store),
        old_path_(environment.More(kGuest + std::string("-1.img"))),
        new_path_(environment.Image(kNewName)),
        job_(kSwapKind, options, kGuest) {}

  guests::FileJob& job() { return job_; }

  // Commits the job's record.
  Result<void, Refusal> Begin() {
    const Status begun = records::CommitWithRetry(store_, [&](const records::Reader&) -> Result<store::Transaction> {
      store::Transaction transaction;
      const guests::FileIntent files{{new_path_}, {{old_path_, guests::HiddenName(kGuest, 1)}}, {}, "repository", {}};
      job_.AddIntent(Alice(), files, transaction);
      return transaction;
    });
    if (!begun) return RefusalFor(begun.error());
    return job_.LoadUnfinished();
  }

  // The whole job.
  Result<void, Refusal> Run() {
    if (const auto allowed = Begin(); !allowed.ok()) return allowed;
    if (const auto allowed = ChangeFiles(); !allowed.ok()) return Undo(allowed.error());
    if (const Status searched = job_.BeginSearch(); !searched) return Undo(RefusalFor(searched.error()));
    const auto hidden = job_.QueryHidden();
    if (!hidden) return Undo(RefusalFor(hidden.error()));
    const Result<bool> is_named = job_.AreReferenced(*hidden, job_.MakeReferrerQuery({DiskId(kGuest, 1)}));
    if (!is_named || *is_named) return Undo(guests::FilesKeepBeingReferenced());
    bool is_outdated = false;
    const Status committed = records::CommitWithRetry(
        store_, [&](const records::Reader& reader) { return PlanCommit(reader, is_outdated); });
    if (is_outdated) return Undo(guests::ReferencesKeepChanging());
    if (!committed) {
      using State = guests::FileJob::FailedCommit::State;
      const guests::FileJob::FailedCommit settled = job_.InspectFailedCommit(committed.error());
      if (settled.state == State::kNotDone) return Undo(settled.refusal);
      if (settled.state != State::kPurging) return settled.refusal;
    }
    job_.Purge({});
    return {};
  }

  Result<void, Refusal> Resume(const guests::StoredJob& begun) {
    job_.ResumeFrom(begun);
    if (begun.record->stage == guests::JobStage::kChanging) return Undo({host_error::kFailed, "The host ended"});
    job_.Purge({});
    return {};
  }

 private:
  Result<void, Refusal> ChangeFiles() {
    if (const auto allowed = job_.Make({{new_path_, domain_xml::ImageFormat::kRaw, 1}}); !allowed.ok()) return allowed;
    const Status hidden = job_.Hide(job_.record().files.hidden[0], 0);
    if (!hidden) return FileRefusalFor(hidden.error());
    if (const Status synced = job_.SyncAll("sync done"); !synced) return RefusalFor(synced.error());
    return {};
  }

  Result<store::Transaction> PlanCommit(const records::Reader& reader, bool& is_outdated) {
    store::Transaction transaction;
    const Result<bool> is_current = job_.CompareReferencesRevision(disks::FileReferencesRevision(reader), transaction);
    if (!is_current) return is_current.error();
    const Result<bool> is_ours = job_.IsOurs(reader);
    if (!is_ours) return is_ours.error();
    is_outdated = !*is_current || !*is_ours;
    if (is_outdated) return store::Transaction();
    transaction.operations.push_back(
        {KeyOf("vdisk", DiskId(kGuest, 1)), VexaVirtualization::json::ToText(DiskRecord(kGuest, new_path_))});
    transaction.operations.push_back({records::FileReferencesGuardKey(), "1"});
    job_.AddPurging(transaction);
    return transaction;
  }

  Result<void, Refusal> Undo(Refusal refusal) {
    (void)job_.Undo({}, refusal, [this]() -> Status {
      if (Status shown = job_.RestoreNames(guests::FileJob::Order::kBackwards); !shown) return shown;
      if (Status unmade = job_.RemoveCreated(); !unmade) return unmade;
      return job_.SyncAll("sync undone");
    });
    return refusal;
  }

  store::Store& store_;
  const std::string old_path_;
  const std::string new_path_;
  guests::FileJob job_;
};

inline void FinishSwaps(const DeletionEnvironment& environment, const guests::JobOptions& options) {
  guests::FinishJobs(*options.store, kSwapKind, kThisHost, [&](const std::string&, const guests::StoredJob& begun) {
    (void)Swap(environment, options).Resume(begun);
    return Result<void, Refusal>();
  });
}

// The records and files before the swap and after it.
struct ExpectedStates {
  ExpectedStates(const DeletionEnvironment& environment, const store::Store& store)
      : old_records(Everything(store)),
        new_records(old_records),
        old_files(NamesOf(environment)),
        new_files(old_files) {
    new_records[KeyOf("vdisk", DiskId(kGuest, 1))] =
        VexaVirtualization::json::ToText(DiskRecord(kGuest, environment.Image(kNewName)));
    new_records[records::FileReferencesGuardKey()] = "1";
    new_files.erase(environment.More(kGuest + std::string("-1.img")));
    new_files.insert(environment.Image(kNewName));
  }
  static std::set<std::string> NamesOf(const DeletionEnvironment& environment) {
    std::set<std::string> names;
    for (const auto& [path, content] : environment.Files()) names.insert(path);
    return names;
  }
  void ExpectOld(const DeletionEnvironment& environment, const store::Store& store) const {
    EXPECT_EQ(Everything(store), old_records);
    EXPECT_EQ(NamesOf(environment), old_files);
  }
  void ExpectNew(const DeletionEnvironment& environment, const store::Store& store) const {
    EXPECT_EQ(Everything(store), new_records);
    EXPECT_EQ(NamesOf(environment), new_files);
  }

  Texts old_records;
  Texts new_records;
  std::set<std::string> old_files;
  std::set<std::string> new_files;
};

}  // namespace vexa::test
