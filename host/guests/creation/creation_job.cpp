#include "host/guests/creation/creation_job.h"

#include <fmt/format.h>

#include <utility>

#include "host/guests/creation/creation_undo.h"
#include "host/guests/creation/image_copies.h"
#include "host/guests/creation/places.h"
#include "host/guests/jobs/creation_record.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

constexpr char kMethod[] = "create";

// Whether a problem is about the grant, as opposed to the store.
bool IsAboutGrant(const Error& error) {
  return error.code() == ErrorCode::kNotFound || error.code() == ErrorCode::kDenied ||
         error.code() == ErrorCode::kCorrupt;
}

}  // namespace

CreationJob::CreationJob(const CreationOptions& options, std::string guest_id, const CreationRequest* request,
                         const Sources* sources)
    : EditJob(kCreationKind, options, std::move(guest_id)),
      creation_options_(options),
      request_(request),
      sources_(sources) {}

Result<Json::Value, Refusal> CreationJob::Create(const Requester& requester) {
  const auto created = Start(request_->edit, requester);
  if (!created.ok()) return created.error();
  return Answer();
}

Json::Value CreationJob::Answer() const {
  Json::Value answer(Json::objectValue);
  answer[keys::guest_id] = guest_id();
  answer[keys::name] = request_->name;
  answer[keys::host_id] = request_->host_id;
  return answer;
}

EditJob::MaybeRefused CreationJob::AddToIntent(const records::Reader& reader, store::Transaction& transaction) {
  MaybeRefused refused = FindMissingPlace(reader, request_->repository_id, request_->host_id);
  if (!refused || *refused) return refused;
  refused = AddRequest(reader, RequestState::kDoing, transaction);
  if (!refused || *refused) return refused;
  Json::Value record = *request_->edit.new_guest;
  record[keys::name] = request_->name;
  transaction.operations.push_back({records::GuestObjectKey(guest_id()), json::ToText(record)});
  transaction.operations.push_back({records::GuestNamesGuardKey(), json::ToText(Json::Value(guest_id()))});
  return refused;
}

EditJob::MaybeRefused CreationJob::AddToRecords(const records::Reader& reader, store::Transaction& transaction) {
  MaybeRefused refused = FindMissingPlace(reader, request_->repository_id, request_->host_id);
  if (!refused || *refused) return refused;
  refused = AddGrants(reader, transaction);
  if (!refused || *refused) return refused;
  transaction.operations.push_back({ProgressKey(guest_id()), std::nullopt});
  return AddRequest(reader, RequestState::kDone, transaction);
}

EditJob::MaybeRefused CreationJob::AddRequest(const records::Reader& reader, RequestState state,
                                              store::Transaction& transaction) {
  if (!request_->number) return std::optional<Refusal>();
  const NumberedRequest& number = *request_->number;
  const auto now = std::chrono::floor<std::chrono::seconds>(options().now());
  const auto stored = ReadRequest(reader, number.owner, number.id, now);
  if (!stored) return stored.error();
  if (stored->record && stored->record->guest_id != guest_id()) {
    return std::optional(Refusal{host_error::kBusy, "The request was made before"});
  }
  RequestRecord record{kMethod, number.digest, guest_id(), state, now, {}, {}};
  if (state == RequestState::kDone) record.answer = Answer();
  const auto added = AddNewRequest(reader, number, *stored, record, transaction);
  if (!added) return added.error();
  if (*added) return std::optional<Refusal>();
  return std::optional(Refusal{
      host_error::kBusy, fmt::format("The caller has {} numbered requests in progress already", kMaxRequestsOfCaller)});
}

EditJob::MaybeRefused CreationJob::AddGrants(const records::Reader& reader, store::Transaction& transaction) const {
  for (const cluster::GrantPrincipal& principal : request_->grants) {
    const Status added = cluster::AddGrant(reader, principal, guest_id(), transaction);
    if (added) continue;
    if (!IsAboutGrant(added.error())) return added.error();
    return std::optional(Refusal{host_error::kNotFoundOrUnreadable,
                                 fmt::format("The guest cannot be granted to {}: {}", QuoteForMessage(principal.name),
                                             added.error().ToString())});
  }
  return std::optional<Refusal>();
}

Result<void, Refusal> CreationJob::FillFiles(const std::vector<NewFile>& made) {
  disks::CopyOptions copy = creation_options_.copy;
  copy.must_stop = creation_options_.is_stopping;
  return ImageCopies(options(), guest_id(), std::move(copy)).Fill(job(), made, *sources_);
}

Status CreationJob::UndoRecords() { return UndoCreation(job(), options(), guest_id(), refusal()); }

}  // namespace vexa::guests
