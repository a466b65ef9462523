#include "host/guests/import/guest_import.h"

#include <string_view>
#include <utility>

#include "host/base/log_text.h"
#include "host/guests/import/import_records.h"
#include "host/records/keys.h"
#include "host/records/name_search.h"
#include "host/records/reading.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::string_view kShutdownState = "guest_shutdown";
constexpr std::size_t kShownName = 128;

hypervisor::ImportOptions OptionsOf(const ImportRequest& request) {
  hypervisor::ImportOptions options;
  if (!request.repository_id.empty()) options.repository_id = request.repository_id;
  if (!request.host_id.empty()) options.host_id = request.host_id;
  options.disk_sizes_mib = request.disk_sizes_mib;
  options.networks = request.networks;
  options.size_of = [&sizes = request.image_sizes](const std::string& path,
                                                   hypervisor::ImageFormat) -> Result<std::uint64_t> {
    const auto found = sizes.find(path);
    if (found == sizes.end()) return Error(ErrorCode::kNotFound, "There is no size of the image '" + path + "'");
    if (!found->second) return Error(ErrorCode::kDenied, "The image '" + path + "' could not be read");
    return *found->second;
  };
  return options;
}

Result<hypervisor::ImportedGuest> Parse(const ImportRequest& request) {
  auto guest = hypervisor::ParseDomainXml(request.xml, OptionsOf(request));
  if (!guest) return guest;
  if (!request.has_variables) guest->guest.removeMember(kNvramMember);
  return guest;
}

// A host that has the guest, and jobs that are not finished.
Result<Refused> FindHolder(const store::Snapshot& snapshot, const std::string& id) {
  struct Holder {
    std::string key;
    int code;
    const char* reason;
  };
  for (const auto& [key, code, reason] :
       {Holder{RunKey(id), kRunsAlready, "runs on a host: power it off"},
        Holder{DeletionKey(id), kImportBusy, "is being deleted: wait until it is gone"},
        Holder{EditKey(id), kImportBusy, "is being edited: wait until that is done"}}) {
    const auto held = snapshot.Get(key);
    if (!held) return held.error();
    if (held->has_value()) return Refused(Refusal{code, "The guest '" + id + "' " + reason});
  }
  return Refused();
}

}  // namespace

struct GuestImport::Attempt {
  const ImportRequest& request;
  hypervisor::ImportedGuest guest;
  std::string name;
  StoredGuest stored{};
  std::optional<store::Revision> first_revision{};  // of the stored guest when it was read first
};

Refused GuestImport::Import(const ImportRequest& request, ImportedGuest& imported) {
  imported = {};
  Result<hypervisor::ImportedGuest> parsed = Parse(request);
  if (!parsed) return Refusal{kBadDefinition, parsed.error().ToString()};
  Attempt attempt{request, std::move(*parsed), ""};
  const hypervisor::ImportedGuest& guest = attempt.guest;
  attempt.name = json::String(json::Member(guest.guest, "name"));
  imported.id = guest.id;
  imported.name = attempt.name;
  if (!request.expected_id.empty() && request.expected_id != guest.id) {
    return Refusal{kBadDefinition, "<uuid> says '" + guest.id + "': the manifest says '" + request.expected_id +
                                       "'; correct one of them"};
  }
  Refused refused = options_.mode == ImportMode::kCheck ? Check(attempt) : Commit(attempt);
  if (refused) return refused;
  imported.is_replacement = attempt.stored.revision != 0;
  imported.records = hypervisor::ToJson(guest);
  return {};
}

Refused GuestImport::Commit(Attempt& attempt) {
  return cluster::CommitRecord(
      store_, [&](const store::Snapshot& snapshot, Refused& refused) { return Plan(snapshot, attempt, refused); });
}

Refused GuestImport::Check(Attempt& attempt) {
  Refused refused;
  {
    const auto snapshot = store_.Read();
    if (!snapshot) return Refusal{cluster::kRecordFailed, snapshot.error().ToString()};
    const auto planned = Plan(**snapshot, attempt, refused);
    if (!planned) return Refusal{cluster::kRecordFailed, planned.error().ToString()};
  }
  if (!refused) options_.planned[attempt.guest.id] = attempt.name;
  return refused;
}

// Called again when somebody else has committed meanwhile. Commits that name other guests do not matter then, but what
// was decided about this guest holds only while its record is the same.
Result<store::Transaction> GuestImport::Plan(const store::Snapshot& snapshot, Attempt& attempt,
                                             Refused& refused) const {
  store::Transaction transaction;
  Result<StoredGuest> stored = ReadStoredGuest(snapshot, attempt.guest.id);
  if (!stored) return stored.error();
  attempt.stored = std::move(*stored);
  Result<Refused> conflict = FindConflict(snapshot, attempt);
  if (!conflict) return conflict.error();
  refused = std::move(*conflict);
  if (!attempt.first_revision) attempt.first_revision = attempt.stored.revision;
  if (!refused && *attempt.first_revision != attempt.stored.revision) {
    refused = Refusal{kImportBusy, "The guest '" + attempt.guest.id + "' was changed meanwhile: import it again"};
  }
  if (refused) return transaction;
  return MakeImportTransaction(attempt.guest, {attempt.guest.xml, attempt.request.autostart}, attempt.stored);
}

Result<Refused> GuestImport::FindConflict(const store::Snapshot& snapshot, const Attempt& attempt) const {
  const std::string& id = attempt.guest.id;
  const StoredGuest& stored = attempt.stored;
  const bool exists = stored.revision != 0 || options_.planned.contains(id);
  if (exists && options_.on_existing == OnExisting::kRefuse) {
    return Refused(
        Refusal{cluster::kRecordExists, "The guest '" + id + "' exists already: use --replace to replace it"});
  }
  if (!stored.state.empty() && stored.state != kShutdownState) {
    return Refused(Refusal{kRunsAlready, "The guest '" + id + "' is in the state '" +
                                             cluster::LogText(stored.state, kShownName) +
                                             "': shut it down before it is replaced"});
  }
  const Result<std::string> other = FindOtherByName(snapshot, attempt.name, id);
  if (!other) return other.error();
  if (!other->empty()) {
    return Refused(Refusal{cluster::kRecordExists, "The name '" + attempt.name + "' belongs to the guest '" +
                                                       cluster::LogText(*other, kShownName) +
                                                       "': rename one of the two"});
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
  cluster::NameSearch search(name);
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
