#include "host/guests/creation/copied_import.h"

#include <fmt/format.h>

#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_images.h"
#include "host/guests/creation/creation_undo.h"
#include "host/guests/creation/places.h"
#include "host/guests/import/import_records.h"
#include "host/guests/jobs/creation_record.h"
#include "host/guests/jobs/repository_folder.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"
#include "json/readers.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

constexpr std::uint64_t kMib = std::uint64_t{1} << 20;
constexpr std::size_t kMaxQuotedBytes = 128;

Refusal BadDefinition(const Error& error) { return {host_error::kBadParameter, error.ToString()}; }

// The codes of GuestImport are those for users.
Refusal ForHosts(Refusal refusal) {
  if (refusal.code == kImportBusy) refusal.code = host_error::kBusy;
  if (refusal.code == records::kRecordExists) refusal.code = host_error::kNameTaken;
  if (refusal.code == records::kRecordFailed) refusal.code = host_error::kFailed;
  return refusal;
}

// The record of the guest while its images are copied.
Json::Value RecordOf(const ImportAttempt& attempt) {
  Json::Value record(Json::objectValue);
  record[keys::name] = attempt.name;
  for (const char* member : {keys::repository_id, keys::host_id, keys::is_general_vm}) {
    record[member] = json::Member(attempt.guest.guest, member);
  }
  record[keys::state] = VexaCCC::State::Guest::importing;
  record[keys::vdisks] = Json::Value(Json::arrayValue);
  record[keys::vnics] = Json::Value(Json::arrayValue);
  return record;
}

Result<std::optional<Refusal>> FindMissingPlaceOf(const store::Snapshot& snapshot, const ImportRequest& request) {
  return FindMissingPlace(snapshot, request.repository_id, request.host_id);
}

Result<void, Refusal> CheckPlaces(const store::Store& store, const ImportRequest& request) {
  const auto snapshot = store.Read();
  if (!snapshot) return RefusalFor(snapshot.error());
  auto missing = FindMissingPlaceOf(**snapshot, request);
  if (!missing) return RefusalFor(missing.error());
  return OkUnless(*std::move(missing));
}

// The disk's format cannot be taken from the image alone: a guest can write anything into a raw one.
Result<void, Refusal> CheckFormat(const std::string& target, const domain_xml::DiskImage& image,
                                  const disks::SourceImage& source) {
  const std::string found = disks::SourceFormatName(source.format);
  if (image.format == found) return {};
  return Refusal{host_error::kBadParameter,
                 fmt::format("The disk '{}' has the format '{}' in its definition, and its image '{}' has the format "
                             "'{}'. Correct the definition",
                             SanitizeForLog(target, kMaxQuotedBytes), SanitizeForLog(image.format, kMaxQuotedBytes),
                             SanitizePathForLog(image.path), found)};
}

}  // namespace

CopiedImport::CopiedImport(const CreationOptions& options, GuestImport::Options importing)
    : options_(options), importer_(*options.store, importing), importing_(std::move(importing)) {}

Result<void, Refusal> CopiedImport::Import(const ImportRequest& request, const Requester& requester,
                                           ImportedGuest& imported) {
  // Also for a check, and without disks: neither gets to Begin().
  if (const auto placed = CheckPlaces(*options_.store, request); !placed.ok()) return placed;
  ImportRequest copied = request;
  if (const auto prepared = PrepareCopies(copied); !prepared.ok()) return prepared;
  if (importing_.mode == ImportMode::kCheck || made_.empty()) {
    const auto done = importer_.Import(copied, imported);
    if (!done.ok()) return ForHosts(done.error());
    return {};
  }
  ImportAttempt attempt{copied};
  if (const auto converted = importer_.Convert(attempt, imported); !converted.ok()) return ForHosts(converted.error());
  guest_id_ = imported.id;
  job_.emplace(kCreationKind, options_, guest_id_);
  if (const auto begun = Begin(attempt, requester); !begun.ok()) return begun;
  if (const auto filled = MakeFiles(); !filled.ok()) return Undo(filled.error());
  if (const auto committed = CommitRecords(attempt); !committed.ok()) return committed;
  imported.records = domain_xml::ToJson(attempt.guest);
  return {};
}

Result<void, Refusal> CopiedImport::PrepareCopies(ImportRequest& request) {
  const auto images = domain_xml::ParseDomainImages(request.xml);
  if (!images) return BadDefinition(images.error());
  repository_id_ = request.repository_id;
  folder_ = RepositoryFolder(options_, repository_id_);
  if (folder_.empty()) {
    return Refusal{host_error::kUnavailable, fmt::format("The repository '{}' has no folder here",
                                                         SanitizeForLog(repository_id_, kMaxQuotedBytes))};
  }
  for (const auto& [target, image] : images->disks) {
    if (const auto added = AddCopy(target, image, request); !added.ok()) return added;
  }
  Result<std::string> replaced = domain_xml::ReplaceDomainImages(request.xml, copies_);
  if (!replaced) return BadDefinition(replaced.error());
  if (!copies_.empty()) request.xml = *std::move(replaced);
  return {};
}

Result<void, Refusal> CopiedImport::AddCopy(const std::string& target, const domain_xml::DiskImage& image,
                                            ImportRequest& request) {
  Result<disks::SourceImage> source = disks::OpenSourceImage(options_.image_roots, image.path);
  if (!source) return BadDefinition(source.error());
  if (const auto checked = CheckFormat(target, image, *source); !checked.ok()) return checked;
  const std::uint64_t size_mib = source->size / kMib + (source->size % kMib == 0 ? 0 : 1);
  if (size_mib > domain_xml::kMaxDiskMib) {
    return Refusal{host_error::kBadParameter,
                   fmt::format("The image of the disk '{}' is too large", SanitizeForLog(target, kMaxQuotedBytes))};
  }
  const Result<std::string> id = RandomUuid();
  if (!id) return RefusalFor(id.error());
  const bool is_raw = source->format == disks::SourceFormat::kRaw;
  const auto format = is_raw ? domain_xml::ImageFormat::kRaw : domain_xml::ImageFormat::kQcow2;
  const std::string path = disks::NormalPath(folder_ + "/" + ImageName(*id, format)).value_or("");
  made_.push_back({path, format, size_mib});
  sources_.emplace_back(*std::move(source));
  copies_[target] = {path, is_raw ? "raw" : "qcow2"};
  request.image_sizes[path] = size_mib * kMib;
  return {};
}

Result<void, Refusal> CopiedImport::Begin(ImportAttempt& attempt, const Requester& requester) {
  FileIntent intent;
  for (const NewFile& file : made_) intent.made.push_back(file.path);
  intent.repository_id = repository_id_;
  if (const auto allowed = job_->CheckStorage(repository_id_, intent.made, storage::StorageUse::kNew); !allowed.ok()) {
    return allowed;
  }
  Result<storage::FolderChain> storage = storage::ReadFolderChains(options_.image_roots, intent.made);
  if (!storage) return RefusalFor(storage.error());
  intent.storage = *std::move(storage);
  std::optional<Refusal> refused;
  const Status committed = records::CommitWithRetry(*options_.store, [&](const records::Reader& reader) {
    refused.reset();
    return PlanBegin(reader, attempt, requester, intent, refused);
  });
  if (!committed && job_->HasBegunDespiteFailure()) return Undo(RefusalFor(committed.error()));
  if (!committed) return RefusalFor(committed.error());
  if (refused) return *std::move(refused);
  return job_->LoadUnfinished();
}

Result<store::Transaction> CopiedImport::PlanBegin(const records::Reader& reader, ImportAttempt& attempt,
                                                   const Requester& requester, const FileIntent& intent,
                                                   std::optional<Refusal>& refused) {
  store::Transaction transaction;
  Result<StoredGuest> stored = ReadStoredGuest(reader, guest_id_);
  if (!stored) return stored.error();
  attempt.stored = *std::move(stored);
  auto conflict = importer_.FindConflict(reader, attempt);
  if (!conflict) return conflict.error();
  if (*conflict) refused = ForHosts(**std::move(conflict));
  if (!refused) {
    auto missing = FindMissingPlaceOf(reader, attempt.request);
    if (!missing) return missing.error();
    refused = *std::move(missing);
  }
  if (refused) return transaction;
  transaction.compares.push_back({records::GuestObjectKey(guest_id_), 0});
  transaction.compares.push_back({records::GuestNamesGuardKey(), attempt.stored.renames_revision});
  CompareFree(transaction, guest_id_, {GuestLock::kCreation});  // which AddIntent() compares
  transaction.operations.push_back({records::GuestObjectKey(guest_id_), json::ToText(RecordOf(attempt))});
  transaction.operations.push_back({records::GuestNamesGuardKey(), json::ToText(Json::Value(guest_id_))});
  job_->AddIntent(requester, intent, transaction);
  return transaction;
}

Result<void, Refusal> CopiedImport::MakeFiles() {
  if (const auto made = job_->Make(made_); !made.ok()) return made;
  disks::CopyOptions copy = options_.copy;
  copy.must_stop = options_.is_stopping;
  const auto filled = ImageCopies(options_, guest_id_, std::move(copy)).Fill(*job_, made_, sources_);
  if (!filled.ok()) return filled;
  if (const Status synced = job_->SyncAll("sync done"); !synced) return RefusalFor(synced.error());
  return job_->CheckStoredFolders();
}

Result<void, Refusal> CopiedImport::CommitRecords(ImportAttempt& attempt) {
  std::optional<Refusal> refused;
  const Status committed = records::CommitWithRetry(*options_.store, [&](const records::Reader& reader) {
    refused.reset();
    return PlanCommit(reader, attempt, refused);
  });
  if (refused) return Undo(*std::move(refused));
  if (!committed) {
    using State = FileJob::FailedCommit::State;
    const FileJob::FailedCommit failed = job_->InspectFailedCommit(committed.error());
    if (failed.state == State::kUnknown) return failed.refusal;
    if (failed.state != State::kPurging) return Undo(failed.refusal);
  }
  job_->Purge(job_->CheckStoredFolders());
  return {};
}

Result<store::Transaction> CopiedImport::PlanCommit(const records::Reader& reader, ImportAttempt& attempt,
                                                    std::optional<Refusal>& refused) const {
  Result<StoredGuest> stored = ReadStoredGuest(reader, guest_id_);
  if (!stored) return stored.error();
  const Result<bool> is_ours = job_->IsOurs(reader);
  if (!is_ours) return is_ours.error();
  if (!*is_ours || stored->revision == 0) {
    refused = Refusal{host_error::kFailed, "The record of the guest's import was changed"};
    return store::Transaction();
  }
  auto missing = FindMissingPlaceOf(reader, attempt.request);
  if (!missing) return missing.error();
  refused = *std::move(missing);
  if (refused) return store::Transaction();
  store::Transaction transaction = MakeImportTransaction(
      attempt.guest, {attempt.guest.xml, attempt.request.autostart, true}, *stored, {GuestLock::kCreation});
  transaction.operations.push_back({ProgressKey(guest_id_), std::nullopt});
  job_->AddPurging(transaction);
  return transaction;
}

Result<void, Refusal> CopiedImport::Undo(Refusal refusal) {
  (void)job_->Undo(job_->CheckStoredFolders(), refusal, [&]() -> Status {
    if (Status removed = job_->RemoveCreated(); !removed) return removed;
    if (Status synced = job_->SyncAll("sync undone"); !synced) return synced;
    return UndoCreation(*job_, options_, guest_id_, refusal);
  });
  return refusal;
}

}  // namespace vexa::guests
