// What jobs with files are tried on: a kind of job of the tests' own, which gives a disk of a guest a new file in place
// of its old one.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/guests/jobs/begun_jobs.h"
#include "host/guests/jobs/file_job.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"
#include "tests/unit/guests/guest_deletion_ground.h"

namespace vexa::test {

inline constexpr char kNewName[] = "a/d0000000-0000-4000-8000-000000000001.raw";

inline std::string SwapKey(const std::string& guest_id) { return store::MakeKey({"swap", guest_id}); }

inline const guests::JobKind kSwapKind = {
    .key = SwapKey,
    .folder = "swap",
    .doing = "swapping",
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
    .titles = "Swaps",
    .word = "swap",
    .being = "The guest is being swapped",
    .changed = "Somebody else has changed the record of the guest's swap",
    .begun_unknown = "Begun is unknown: ",
    .done_unknown = "Done is unknown: ",
    .not_undone = "Not undone: ",
    .not_ended = "Not ended: ",
};

// The disk 1 of the guest, whose file is in another folder than the new one.
class Swap {
 public:
  Swap(const DeletionGround& ground, const guests::JobOptions& options)
      : store_(*options.store),
        old_path_(ground.More(kGuest + std::string("-1.img"))),
        new_path_(ground.Image(kNewName)),
        job_(kSwapKind, options, kGuest) {}

  guests::FileJob& job() { return job_; }

  // Commits the job's record.
  guests::Refused Begin() {
    const Status begun = cluster::CommitPlanned(store_, [&]() -> Result<store::Transaction> {
      store::Transaction transaction;
      const guests::FileIntent files{{new_path_}, {{old_path_, guests::HiddenName(kGuest, 1)}}, {}, "repository", {}};
      job_.AddIntent(Alice(), files, transaction);
      return transaction;
    });
    if (!begun) return guests::FailedBecause(begun.error());
    return job_.TakeBegun();
  }

  // The whole job.
  guests::Refused Run() {
    if (guests::Refused refused = Begin()) return refused;
    if (guests::Refused failed = DoFiles()) return Undo(*failed);
    if (const Status searched = job_.BeginSearch(); !searched) return Undo(guests::FailedBecause(searched.error()));
    const auto hidden = job_.SeekHidden();
    if (!hidden) return Undo(guests::FailedBecause(hidden.error()));
    const Result<bool> is_named = job_.AreNamed(*hidden, job_.Question({DiskId(kGuest, 1)}));
    if (!is_named || *is_named) return Undo(guests::FilesKeepBeingNamed());
    bool is_outdated = false;
    const Status committed = cluster::CommitPlanned(store_, [&] { return PlanCommit(is_outdated); });
    if (is_outdated) return Undo(guests::FilesKeepChanging());
    if (!committed) {
      using State = guests::FileJob::FailedCommit::State;
      const guests::FileJob::FailedCommit settled = job_.SettleFailedCommit(committed.error());
      if (settled.state == State::kNotDone) return Undo(settled.refusal);
      if (settled.state != State::kPurging) return settled.refusal;
    }
    job_.Purge(std::nullopt);
    return std::nullopt;
  }

  guests::Refused Resume(const guests::StoredJob& begun) {
    job_.TakeUp(begun);
    if (begun.record->stage == guests::JobStage::kDoing) return Undo({guests::kFailed, "The host ended"});
    job_.Purge(std::nullopt);
    return std::nullopt;
  }

 private:
  guests::Refused DoFiles() {
    if (guests::Refused failed = job_.Make({{new_path_, hypervisor::ImageFormat::kRaw, 1}})) return failed;
    const Status hidden = job_.Hide(job_.record().files.hidden[0], 0);
    if (!hidden) return guests::FileFailedBecause(hidden.error());
    if (const Status synced = job_.SyncAll("sync done"); !synced) return guests::FailedBecause(synced.error());
    return std::nullopt;
  }

  Result<store::Transaction> PlanCommit(bool& is_outdated) {
    const auto snapshot = store_.Read();
    if (!snapshot) return snapshot.error();
    store::Transaction transaction;
    const Result<bool> is_current = job_.CompareFiles(guests::FilesRevision(**snapshot), transaction);
    if (!is_current) return is_current.error();
    const Result<bool> is_ours = job_.IsOurs(**snapshot);
    if (!is_ours) return is_ours.error();
    is_outdated = !*is_current || !*is_ours;
    if (is_outdated) return store::Transaction();
    transaction.operations.push_back(
        {KeyOf("vdisk", DiskId(kGuest, 1)), VexaVirtualization::json::ToText(DiskRecord(kGuest, new_path_))});
    transaction.operations.push_back({guests::FilesKey(), "1"});
    job_.AddPurging(transaction);
    return transaction;
  }

  guests::Refused Undo(guests::Refusal refusal) {
    (void)job_.Undo(std::nullopt, refusal, [this]() -> Status {
      if (Status shown = job_.ShowAll(guests::FileJob::Order::kBackwards); !shown) return shown;
      if (Status unmade = job_.UnmakeAll(); !unmade) return unmade;
      return job_.SyncAll("sync undone");
    });
    return refusal;
  }

  store::Store& store_;
  const std::string old_path_;
  const std::string new_path_;
  guests::FileJob job_;
};

inline void FinishSwaps(const DeletionGround& ground, const guests::JobOptions& options) {
  guests::FinishJobs(*options.store, kSwapKind, kThisHost, [&](const std::string&, const guests::StoredJob& begun) {
    (void)Swap(ground, options).Resume(begun);
    return guests::Refused();
  });
}

// The guest's old state or its new one.
struct Ends {
  Ends(const DeletionGround& ground, const store::Store& store)
      : old_records(Everything(store)), new_records(old_records), old_files(NamesOf(ground)), new_files(old_files) {
    new_records[KeyOf("vdisk", DiskId(kGuest, 1))] =
        VexaVirtualization::json::ToText(DiskRecord(kGuest, ground.Image(kNewName)));
    new_records[guests::FilesKey()] = "1";
    new_files.erase(ground.More(kGuest + std::string("-1.img")));
    new_files.insert(ground.Image(kNewName));
  }
  static std::set<std::string> NamesOf(const DeletionGround& ground) {
    std::set<std::string> names;
    for (const auto& [path, content] : ground.Files()) names.insert(path);
    return names;
  }
  void ExpectOld(const DeletionGround& ground, const store::Store& store) const {
    EXPECT_EQ(Everything(store), old_records);
    EXPECT_EQ(NamesOf(ground), old_files);
  }
  void ExpectNew(const DeletionGround& ground, const store::Store& store) const {
    EXPECT_EQ(Everything(store), new_records);
    EXPECT_EQ(NamesOf(ground), new_files);
  }

  Texts old_records;
  Texts new_records;
  std::set<std::string> old_files;
  std::set<std::string> new_files;
};

}  // namespace vexa::test
