#include "host/store/mirrored_store.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <system_error>
#include <utility>

#include "host/base/files.h"
#include "host/store/lmdb_error.h"
#include "host/store/lost_store.h"

namespace vexa::store {
namespace {

using std::chrono::milliseconds;

constexpr const char* kDataFile = "/data.mdb";
constexpr const char* kLockFile = "/lock.mdb";
constexpr milliseconds kWatchTimeout{500};
constexpr milliseconds kRepeatReportAfter{1000};
constexpr milliseconds kCopyRetryInterval{5000};  // after the copy could not be written
// Above this many changed keys, or bytes, everything is compared instead, which keeps none of it in memory.
constexpr std::size_t kMaxChangedKeys = 100'000;
constexpr std::size_t kMaxChangedBytes = std::size_t{64} << 20;

// For inspection. Older ones are replaced.
constexpr int kKeptDamagedCopies = 2;

std::string DamagedCopy(const std::string& directory, int number) {
  return fmt::format("{}.damaged-{}.mdb", directory, number);  // 1: the newest
}

Status SetAside(const std::string& directory) {
  for (int number = kKeptDamagedCopies; number > 1; --number) {
    ::rename(DamagedCopy(directory, number - 1).c_str(), DamagedCopy(directory, number).c_str());
  }
  const std::string kept = DamagedCopy(directory, 1);
  if (::rename((directory + kDataFile).c_str(), kept.c_str()) != 0) {
    return SystemError(ErrorCode::kInternal,
                       fmt::format("The damaged copy of the cluster database cannot be renamed to '{}'", kept), errno);
  }
  ::unlink((directory + kLockFile).c_str());
  return {};
}

Result<std::unique_ptr<LmdbKeyspace>> OpenCopy(const std::string& directory) {
  if (directory.empty()) return Error(ErrorCode::kInvalid, "The copy of the cluster database needs a folder");
  if (Status created = CreateDirectories(directory, S_IRWXU); !created.ok()) return created.error();
  LmdbOptions options;
  options.directory = directory;
  auto opened = LmdbKeyspace::Open(options);
  if (opened.ok() || opened.error().code() != ErrorCode::kCorrupt || !HasStore(directory)) return opened;
  if (Status kept = SetAside(directory); !kept.ok()) return kept.error();
  ::syslog(LOG_WARNING,
           "The copy of the cluster database is damaged and is being rebuilt. The damaged one is kept as '%s': %s",
           DamagedCopy(directory, 1).c_str(), opened.error().ToString().c_str());
  return LmdbKeyspace::Open(options);
}

// What the copy receives for a changed key: the value's text and revision, or nothing when the key was deleted.
struct Changed {
  std::string key;
  Revision revision = 0;
  std::optional<std::string> text;
};

}  // namespace

Result<std::shared_ptr<MirroredStore>> MirroredStore::Make(std::shared_ptr<Store> primary, MirrorOptions options) {
  auto copy = OpenCopy(options.directory);
  if (!copy.ok()) return copy.error();
  std::shared_ptr<MirroredStore> store(
      new MirroredStore(std::move(primary), std::move(copy).value(), std::move(options)));
  try {
    store->thread_ = std::thread([raw = store.get()] { raw->Run(); });
  } catch (const std::system_error& failure) {
    return ThreadError("The thread that copies the cluster database cannot be started", failure);
  }
  return store;
}

MirroredStore::MirroredStore(std::shared_ptr<Store> primary, std::unique_ptr<LmdbKeyspace> copy, MirrorOptions options)
    : primary_(std::move(primary)), copy_(std::move(copy)), options_(std::move(options)) {}

MirroredStore::~MirroredStore() {
  {
    const MutexLock lock(mutex_);
    stopping_ = true;
    wake_.NotifyAll();
  }
  if (thread_.joinable()) thread_.join();
}

Result<std::unique_ptr<Snapshot>> MirroredStore::Read() const {
  if (!serving_from_copy_.load(std::memory_order_acquire)) {
    auto snapshot = primary_->Read();
    // Too many snapshots are not a fault of the primary.
    if (snapshot.ok() || snapshot.error().code() == ErrorCode::kBusy) return snapshot;
    SwitchToCopy(snapshot.error());
    if (mirrored_revision_ == 0) return snapshot;
  }
  if (mirrored_revision_ != 0) return copy_->Read();
  if (const auto failure = PrimaryFailure()) return *failure;
  return primary_->Read();
}

Result<Revision> MirroredStore::Commit(const Transaction& transaction) {
  if (const auto failure = PrimaryFailure()) return *failure;
  return primary_->Commit(transaction);
}

Result<ChangeBatch> MirroredStore::Watch(std::string_view prefix, Revision from, milliseconds timeout) {
  if (const auto failure = PrimaryFailure()) return *failure;
  return primary_->Watch(prefix, from, timeout);
}

Health MirroredStore::health() const {
  if (serving_from_copy_.load(std::memory_order_acquire)) return Health::kInaccessible;
  const Health health = primary_->health();
  if (health == Health::kInaccessible) {
    const auto snapshot = primary_->Read();
    SwitchToCopy(snapshot.ok() ? Error(ErrorCode::kUnavailable, "The cluster database reports that it cannot be read")
                               : snapshot.error());
  }
  return health;
}

void MirroredStore::LimitLockWaits(milliseconds longest) {
  primary_->LimitLockWaits(longest);
  copy_->LimitLockWaits(longest);
}

std::optional<Error> MirroredStore::PrimaryFailure() const {
  if (!serving_from_copy_.load(std::memory_order_acquire)) return std::nullopt;
  const MutexLock lock(mutex_);
  return primary_failure_;
}

void MirroredStore::SwitchToCopy(const Error& error) const {
  const MutexLock lock(mutex_);
  if (serving_from_copy_) return;
  primary_failure_ = Error(error.code(), "The cluster database cannot be reached", error.ToString());
  serving_from_copy_.store(true, std::memory_order_release);
  wake_.NotifyAll();
}

void MirroredStore::SwitchBackWhenHealthy() {
  if (primary_->health() == Health::kInaccessible || !primary_->Read().ok()) return;
  const MutexLock lock(mutex_);
  serving_from_copy_.store(false, std::memory_order_release);
  primary_failure_.reset();
}

// Logs a switch to the copy or back, and calls on_change. On the mirror's thread, so that no reader waits for it.
void MirroredStore::ReportSwitch() {
  const std::optional<Error> failure = PrimaryFailure();
  const auto now = std::chrono::steady_clock::now();
  if (failure.has_value() == reported_copy_in_use_) {
    if (repeat_report_at_ && now >= *repeat_report_at_) {
      repeat_report_at_.reset();
      if (options_.on_change) options_.on_change();
    }
    return;
  }
  reported_copy_in_use_ = failure.has_value();
  repeat_report_at_ = now + kRepeatReportAfter;
  if (failure) {
    ::syslog(
        LOG_ERR,
        "%s. This host shows its last known state (revision %llu). Changes are refused until the database is back.",
        failure->ToString().c_str(), static_cast<unsigned long long>(mirrored_revision_.load()));
  } else {
    ::syslog(LOG_NOTICE, "The cluster database can be reached again.");
  }
  if (options_.on_change) options_.on_change();
}

// Wakes early when reads switch to the copy or back. False: the thread must end.
bool MirroredStore::Sleep(milliseconds pause) {
  const auto end = std::chrono::steady_clock::now() + pause;
  const MutexLock lock(mutex_);
  const bool was_serving = serving_from_copy_;
  while (!stopping_ && serving_from_copy_ == was_serving && wake_.WaitUntil(mutex_, end)) {
  }
  return !stopping_;
}

void MirroredStore::Run() {
  milliseconds pause{0};
  while (Sleep(pause)) {
    pause = options_.retry_interval;
    try {
      ReportSwitch();
      if (serving_from_copy_) {
        SwitchBackWhenHealthy();
        ReportSwitch();
        continue;
      }
      static_cast<void>(health());
      ReportSwitch();
      if (serving_from_copy_) continue;
      const Status updated = UpdateCopy();
      LogCopyOutcome(updated);
      pause = updated.ok() ? options_.batch_delay : kCopyRetryInterval;
    } catch (const std::exception& exception) {
      ::syslog(LOG_ERR, "The copy of the cluster database was not written: %s", exception.what());
      pause = kCopyRetryInterval;
    }
  }
}

// Logs when writing the copy starts to fail or works again. A failing primary counts as success here: health()
// reports it, and so does everything that uses it.
void MirroredStore::LogCopyOutcome(const Status& outcome) {
  const bool fails = !outcome.ok();
  if (fails && !copy_is_failing_) {
    ::syslog(LOG_ERR, "The copy of the cluster database cannot be written and falls behind: %s",
             outcome.error().ToString().c_str());
  } else if (!fails && copy_is_failing_) {
    ::syslog(LOG_NOTICE, "The copy of the cluster database is written again.");
  }
  copy_is_failing_ = fails;
}

// Brings the copy to the current state of the primary, or waits a little when it is already there.
Status MirroredStore::UpdateCopy() {
  if (mirrored_revision_ == 0) return CopyAll();
  const auto batch = primary_->Watch("", mirrored_revision_, repeat_report_at_ ? options_.batch_delay : kWatchTimeout);
  if (!batch.ok()) return {};
  if (batch->lost) return CopyAll();
  // Also for commits without relevant operations, because a change log does not reach back forever.
  return batch->revision == mirrored_revision_ ? Status() : CopyChanged(*batch);
}

Status MirroredStore::CopyAll() {
  const auto snapshot = primary_->Read();
  if (!snapshot.ok()) return {};
  const Snapshot& primary = **snapshot;
  Status read;  // of the primary
  const Status written = copy_->Update([&](KeyspaceWriter& writer) -> Status {
    Status copied;
    read = primary.Scan("", [&](std::string_view key, const ValueView& value) {
      copied = writer.Copy(key, value);
      return copied.ok();
    });
    if (!copied.ok() || !read.ok()) return copied.ok() ? read : copied;
    Status removed = writer.RemoveIf([&](std::string_view key) -> Result<bool> {
      const auto value = primary.Get(key);
      if (!value.ok()) return value.error();
      return !value->has_value();
    });
    return removed.ok() ? writer.SetRevision(primary.revision()) : removed;
  });
  if (written.ok()) mirrored_revision_ = primary.revision();
  return written;
}

// Collects the keys that changed after `from` and up to `until`. False: the log no longer reaches back, or there are
// too many.
Result<bool> MirroredStore::CollectChangedKeys(Revision from, Revision until, std::set<std::string>& keys) {
  while (from < until) {
    const auto batch = primary_->Watch("", from, milliseconds(0));
    if (!batch.ok()) return batch.error();
    if (batch->lost || keys.size() > kMaxChangedKeys) return false;
    for (const Change& change : batch->changes) {
      if (change.revision <= until) keys.insert(change.key);
    }
    from = batch->revision;
  }
  return true;
}

// All changed keys get their values from one snapshot, and all other keys have not changed up to it. So the copy equals
// that snapshot, never a state in between that the primary did not have.
Status MirroredStore::CopyChanged(const ChangeBatch& batch) {
  std::set<std::string> keys;
  for (const Change& change : batch.changes) keys.insert(change.key);
  Revision revision = 0;
  std::vector<Changed> changed;
  std::size_t bytes = 0;
  {
    const auto snapshot = primary_->Read();
    if (!snapshot.ok()) return {};
    revision = (*snapshot)->revision();
    const auto complete = CollectChangedKeys(batch.revision, revision, keys);
    if (!complete.ok()) return {};
    for (const std::string& key : keys) {
      const auto value = (*snapshot)->Get(key);
      if (!value.ok()) return value.error();
      changed.push_back({key, 0, std::nullopt});
      if (!value->has_value()) continue;
      changed.back().revision = (*value)->revision;
      changed.back().text = std::string((*value)->text);
      bytes += changed.back().text->size();
      if (bytes > kMaxChangedBytes) break;
    }
    if (!*complete || bytes > kMaxChangedBytes) revision = 0;
  }
  if (revision == 0) return CopyAll();
  const Status written = copy_->Update([&](KeyspaceWriter& writer) -> Status {
    for (const Changed& change : changed) {
      Status applied =
          change.text ? writer.Copy(change.key, {change.revision, *change.text}) : writer.Remove(change.key);
      if (!applied.ok()) return applied;
    }
    return writer.SetRevision(revision);
  });
  if (written.ok()) mirrored_revision_ = revision;
  return written;
}

}  // namespace vexa::store
