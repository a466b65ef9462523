// One creation of one guest. For host/guests/creation/*.cpp only.
#pragma once

#include <optional>
#include <string>

#include "host/guests/creation/creation.h"
#include "host/guests/creation/creation_request.h"
#include "host/guests/edit/edit_job.h"

namespace vexa::guests {

// Threads: one at a time.
class CreationJob final : public EditJob {
 public:
  // A job without a request can only Resume(). `request` must outlive the job.
  CreationJob(const EditOptions& options, std::string guest_id, const CreationRequest* request);

  // Refusals: those of Creations::Create.
  Result<Json::Value, Refusal> Create(const Requester& requester);

 private:
  MaybeRefused AddToIntent(const records::Reader& reader, store::Transaction& transaction) override;
  MaybeRefused AddToRecords(const records::Reader& reader, store::Transaction& transaction) override;
  Status UndoRecords() override;

  MaybeRefused CheckPlaces(const records::Reader& reader) const;
  MaybeRefused AddRequest(const records::Reader& reader, RequestState state, store::Transaction& transaction);
  MaybeRefused AddGrants(const records::Reader& reader, store::Transaction& transaction) const;
  Result<store::Transaction> PlanUndo(const records::Reader& reader) const;
  Json::Value Answer() const;

  const CreationRequest* const request_;
};

}  // namespace vexa::guests
