#include "host/guests/creation/creation_undo.h"

#include "host/guests/creation/creation_request.h"
#include "host/guests/creation/image_copies.h"
#include "host/guests/creation/request_record.h"
#include "host/records/keys.h"
#include "host/records/live_state.h"
#include "host/records/object_edit.h"
#include "json/readers.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

namespace states = VexaCCC::State::Guest;

Status AddFailedRequest(const store::Snapshot& snapshot, const Json::Value& number, const std::string& guest_id,
                        const Refusal& refusal, std::chrono::system_clock::time_point now,
                        store::Transaction& transaction) {
  const std::string owner = json::StringMember(number, "owner");
  const std::string id = json::StringMember(number, "id");
  if (owner.empty()) return {};
  const auto stored = ReadRequest(snapshot, owner, id, now);
  if (!stored) return stored.error();
  if (!stored->record || stored->record->guest_id != guest_id) return {};
  RequestRecord failed = *stored->record;
  failed.state = RequestState::kFailed;
  failed.refusal = refusal;
  transaction.compares.push_back({RequestKey(owner, id), stored->revision});
  transaction.operations.push_back({RequestKey(owner, id), SerializeRequest(failed)});
  return {};
}

}  // namespace

Result<bool> AddCreationUndo(const store::Snapshot& snapshot, const std::string& guest_id, const Refusal& refusal,
                             std::chrono::system_clock::time_point now, store::Transaction& transaction) {
  const auto guest = records::LoadObject(snapshot, records::GuestObjectKey(guest_id));
  if (!guest) return guest.error();
  const std::string state = json::StringMember(guest->record, keys::state);
  if (guest->revision == 0 || (state != states::creating && state != states::importing)) return false;
  const Status failed =
      AddFailedRequest(snapshot, json::Member(guest->record, kCreationRequest), guest_id, refusal, now, transaction);
  if (!failed) return failed.error();
  transaction.compares.push_back({records::GuestObjectKey(guest_id), guest->revision});
  transaction.operations.push_back({records::GuestObjectKey(guest_id), std::nullopt});
  transaction.operations.push_back({ProgressKey(guest_id), std::nullopt});
  records::AddLiveStateRemoval(transaction, guest_id);
  return true;
}

Status UndoCreation(const FileJob& job, const JobOptions& options, const std::string& guest_id,
                    const Refusal& refusal) {
  return records::CommitWithRetry(*options.store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    store::Transaction transaction;
    const Result<bool> is_ours = job.IsOurs(reader);
    if (!is_ours) return is_ours.error();
    if (!*is_ours) return transaction;
    const Result<bool> is_found = AddCreationUndo(reader, guest_id, refusal, options.now(), transaction);
    if (!is_found) return is_found.error();
    if (*is_found) job.BeforeStep("commit removal");
    return transaction;
  });
}

}  // namespace vexa::guests
