#include "host/guests/import/guest_import.h"

#include <fmt/format.h>

#include <string_view>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/domain_xml/domain_files.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/keys.h"
#include "host/records/name_search.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::string_view kShutdownState = "guest_shutdown";
constexpr std::size_t kMaxLoggedNameBytes = 128;

domain_xml::ImportOptions OptionsOf(const ImportRequest& request, const std::string& own_host_id) {
  domain_xml::ImportOptions options;
  options.repository_id = request.repository_id;
  options.host_id = request.host_id;
  options.disk_sizes_mib = request.disk_sizes_mib;
  options.networks = request.networks;
  const bool is_here = !own_host_id.empty() && options.host_id == own_host_id;
  options.size_of = [&sizes = request.image_sizes, is_here](const std::string& path,
                                                            domain_xml::ImageFormat format) -> Result<std::uint64_t> {
    if (is_here) {
      Result<std::uint64_t> own = domain_xml::ReadImageSize(path, format);
      if (!own && own.error().code() == ErrorCode::kInvalid) return own;
    }
    const auto found = sizes.find(path);
    if (found == sizes.end())
      return Error(ErrorCode::kNotFound, fmt::format("There is no size of the image '{}'", path));
    if (!found->second) return Error(ErrorCode::kDenied, fmt::format("The image '{}' could not be read", path));
    return *found->second;
  };
  return options;
}

Result<domain_xml::ImportedGuest> Parse(const ImportRequest& request, const std::string& own_host_id) {
  auto guest = domain_xml::ParseDomainXml(request.xml, OptionsOf(request, own_host_id));
  if (!guest) return guest;
  if (const auto files = domain_xml::ParseDomainFiles(request.xml); !files) return files.error();
  if (!request.has_variables) guest->guest.removeMember(records::kNvramMember);
  return guest;
}

// The refusal while a host holds the guest, or a job with its files is not finished.
Result<std::optional<Refusal>> FindHolder(const store::Snapshot& snapshot, const std::string& id) {
  const auto lock = FindLock(snapshot, id);
  if (!lock) return lock.error();
  if (!*lock) return std::optional<Refusal>();
  switch (**lock) {
    case GuestLock::kRun:
      return std::optional(
          Refusal{host_error::kAlreadyRunning, fmt::format("The guest '{}' runs on a host: power it off", id)});
    case GuestLock::kDeletion:
      return std::optional(
          Refusal{kImportBusy, fmt::format("The guest '{}' is being deleted: wait until it is gone", id)});
    case GuestLock::kEdit:
      return std::optional(
          Refusal{kImportBusy, fmt::format("The guest '{}' is being edited: wait until that is done", id)});
    case GuestLock::kCreation:
      break;
  }
  return std::optional(
      Refusal{kImportBusy, fmt::format("The guest '{}' is being created or imported: wait until that is done", id)});
}

}  // namespace

Result<void, Refusal> GuestImport::Convert(ImportAttempt& attempt, ImportedGuest& imported) const {
  const ImportRequest& request = attempt.request;
  imported = {};
  Result<domain_xml::ImportedGuest> parsed = Parse(request, options_.own_host_id);
  if (!parsed) return Refusal{kBadDefinition, parsed.error().ToString()};
  if (request.autostart) parsed->guest[keys::autorun] = 1;
  attempt.guest = std::move(*parsed);
  attempt.name = json::StringMember(attempt.guest.guest, "name");
  imported.id = attempt.guest.id;
  imported.name = attempt.name;
  if (request.expected_id.empty() || request.expected_id == imported.id) return {};
  return Refusal{kBadDefinition, fmt::format("<uuid> is '{}' and the manifest has '{}'; correct one of them",
                                             imported.id, request.expected_id)};
}

Result<void, Refusal> GuestImport::Import(const ImportRequest& request, ImportedGuest& imported) {
  ImportAttempt attempt{request};
  if (const auto converted = Convert(attempt, imported); !converted.ok()) return converted;
  Result<void, Refusal> done = options_.mode == ImportMode::kCheck ? Check(attempt) : Commit(attempt);
  if (!done.ok()) return done;
  imported.is_replacement = attempt.stored.revision != 0;
  imported.records = domain_xml::ToJson(attempt.guest);
  return {};
}

Result<void, Refusal> GuestImport::Commit(ImportAttempt& attempt) {
  return records::CommitRecord(store_, [&](const store::Snapshot& snapshot, std::optional<Refusal>& refused) {
    return Plan(snapshot, attempt, refused);
  });
}

Result<void, Refusal> GuestImport::Check(ImportAttempt& attempt) {
  std::optional<Refusal> refused;
  {
    const auto snapshot = store_.Read();
    if (!snapshot) return Refusal{records::kRecordFailed, snapshot.error().ToString()};
    const auto planned = Plan(**snapshot, attempt, refused);
    if (!planned) return Refusal{records::kRecordFailed, planned.error().ToString()};
  }
  if (!refused) options_.planned[attempt.guest.id] = attempt.name;
  return OkUnless(std::move(refused));
}

// Called again after a conflict. The cause may be another guest, for instance one that took a name; but when this
// guest's own record has changed, the user has to decide again.
Result<store::Transaction> GuestImport::Plan(const store::Snapshot& snapshot, ImportAttempt& attempt,
                                             std::optional<Refusal>& refused) const {
  store::Transaction transaction;
  Result<StoredGuest> stored = ReadStoredGuest(snapshot, attempt.guest.id);
  if (!stored) return stored.error();
  attempt.stored = std::move(*stored);
  Result<std::optional<Refusal>> conflict = FindConflict(snapshot, attempt);
  if (!conflict) return conflict.error();
  refused = std::move(*conflict);
  if (!attempt.first_revision) attempt.first_revision = attempt.stored.revision;
  if (!refused && *attempt.first_revision != attempt.stored.revision) {
    refused =
        Refusal{kImportBusy, fmt::format("The guest '{}' was changed meanwhile: import it again", attempt.guest.id)};
  }
  if (refused) return transaction;
  return MakeImportTransaction(attempt.guest, {attempt.guest.xml, attempt.request.autostart}, attempt.stored);
}

Result<std::optional<Refusal>> GuestImport::FindConflict(const store::Snapshot& snapshot,
                                                         const ImportAttempt& attempt) const {
  const std::string& id = attempt.guest.id;
  const StoredGuest& stored = attempt.stored;
  const bool exists = stored.revision != 0 || options_.planned.contains(id);
  if (exists && options_.on_existing == OnExisting::kRefuse) {
    return std::optional<Refusal>(
        Refusal{records::kRecordExists, fmt::format("The guest '{}' exists already: use --replace to replace it", id)});
  }
  if (!stored.state.empty() && stored.state != kShutdownState) {
    return std::optional<Refusal>(
        Refusal{host_error::kAlreadyRunning,
                fmt::format("The guest '{}' is in the state '{}': shut it down before it is replaced", id,
                            SanitizeForLog(stored.state, kMaxLoggedNameBytes))});
  }
  const Result<std::string> other = FindOtherByName(snapshot, attempt.name, id);
  if (!other) return other.error();
  if (!other->empty()) {
    return std::optional<Refusal>(
        Refusal{records::kRecordExists, fmt::format("The name '{}' belongs to the guest '{}': rename one of the two",
                                                    attempt.name, SanitizeForLog(*other, kMaxLoggedNameBytes))});
  }
  return FindHolder(snapshot, id);
}

// The id of a guest other than `id` with the name `name`; "" when no other guest has it.
Result<std::string> GuestImport::FindOtherByName(const store::Snapshot& snapshot, const std::string& name,
                                                 const std::string& id) const {
  for (const auto& [planned_id, planned_name] : options_.planned) {
    if (planned_name == name && planned_id != id) return planned_id;
  }
  const std::string prefix = store::MakeKey({"dash", "guest"});
  records::NameSearch search(name);
  std::string found;
  const Status scanned = snapshot.Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
    if (key.size() <= prefix.size()) return true;
    const std::string_view rest = key.substr(prefix.size() + 1);
    if (!search.Matches(rest, value.text)) return true;
    const std::string_view segment = rest.substr(0, rest.find('/'));
    std::string other = store::DecodeSegment(segment).value_or(std::string(segment));
    if (other == id || options_.planned.contains(other)) return true;
    found = std::move(other);
    return false;
  });
  if (!scanned) return scanned.error();
  return found;
}

}  // namespace vexa::guests
