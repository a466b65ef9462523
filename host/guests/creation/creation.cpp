#include "host/guests/creation/creation.h"

#include <fmt/format.h>

#include <thread>
#include <variant>

#include "host/guests/creation/copied_import.h"
#include "host/guests/creation/creation_job.h"
#include "host/guests/creation/creation_request.h"
#include "host/guests/creation/sources.h"
#include "host/guests/jobs/creation_record.h"
#include "host/guests/jobs/unfinished_jobs.h"

namespace vexa::guests {
namespace {

constexpr std::chrono::milliseconds kPollInterval{50};

ResumeJob ResumeCreation(const CreationOptions& options) {
  return [&options](const std::string& guest_id, const StoredJob& unfinished) {
    return CreationJob(options, guest_id, nullptr, nullptr).Resume(unfinished);
  };
}

Result<StoredRequest> ReadNow(const store::Store& store, const NumberedRequest& request) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return ReadRequest(**snapshot, request.owner, request.id, std::chrono::system_clock::now());
}

// Whether the same request was made meanwhile, for another guest. Then that is why this one was refused, for instance
// because the name is taken.
bool IsDoneElsewhere(const store::Store& store, const NumberedRequest& request, const std::string& guest_id) {
  const auto stored = ReadNow(store, request);
  return stored && stored->record && stored->record->guest_id != guest_id;
}

}  // namespace

FirstOutcome AwaitFirstOutcome(const store::Store& store, const NumberedRequest& request,
                               std::chrono::milliseconds timeout, const std::function<bool()>& is_stopping) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (true) {
    const auto stored = ReadNow(store, request);
    if (!stored) return Result<Json::Value, Refusal>(RefusalFor(stored.error()));
    if (!stored->record) return std::nullopt;
    if (FirstOutcome outcome = OutcomeOf(request, *stored)) return outcome;
    if (is_stopping && is_stopping()) {
      return Result<Json::Value, Refusal>(Refusal{host_error::kUnavailable, "This host is stopping"});
    }
    if (std::chrono::steady_clock::now() >= end) {
      return Result<Json::Value, Refusal>(Refusal{
          host_error::kBusy, fmt::format("The guest '{}' is still being created, by the same request. Repeat the "
                                         "request '{}' later",
                                         stored->record->guest_id, request.id)});
    }
    std::this_thread::sleep_for(kPollInterval);
  }
}

Result<Json::Value, Refusal> Creations::Create(const std::string& guest_id, const Json::Value& parameters,
                                               const Requester& requester) {
  Json::Value sized = parameters;
  const auto sources = OpenSources(options_.image_roots, sized);
  if (!sources.ok()) return sources.error();
  auto parsed = ParseCreation(sized);
  if (auto* refusal = std::get_if<Refusal>(&parsed)) return std::move(*refusal);
  const CreationRequest& request = std::get<CreationRequest>(parsed);
  Result<Json::Value, Refusal> created = Refusal{};
  for (int attempt = 0; attempt < kMaxJobAttempts; ++attempt) {
    if (request.number) {
      FirstOutcome first =
          AwaitFirstOutcome(*options_.store, *request.number, options_.request_wait, options_.is_stopping);
      if (first) return *std::move(first);
    }
    CreationJob job(options_, guest_id, &request, &*sources);
    created = job.Create(requester);
    if (created.ok() || !request.number || !IsDoneElsewhere(*options_.store, *request.number, guest_id)) {
      return created;
    }
  }
  return created;
}

Result<void, Refusal> Creations::Import(const ImportRequest& request, const GuestImport::Options& importing,
                                        const Requester& requester, ImportedGuest& imported) {
  return CopiedImport(options_, importing).Import(request, requester, imported);
}

void Creations::FinishAll() { FinishJobs(*options_.store, kCreationKind, options_.host_id, ResumeCreation(options_)); }

void Creations::Finish(const std::string& guest_id) {
  FinishJob(*options_.store, kCreationKind, options_.host_id, guest_id, ResumeCreation(options_));
}

std::vector<std::string> Creations::Unfinished() const {
  return UnfinishedJobs(*options_.store, kCreationKind, options_.host_id);
}

}  // namespace vexa::guests
