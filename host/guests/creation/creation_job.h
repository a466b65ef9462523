// One creation of one guest. For host/guests/creation/*.cpp only.
#pragma once

#include <optional>
#include <string>

#include "host/guests/creation/creation.h"
#include "host/guests/creation/creation_request.h"
#include "host/guests/creation/sources.h"
#include "host/guests/edit/edit_job.h"

namespace vexa::guests {

// Threads: one at a time.
class CreationJob final : public EditJob {
 public:
  // A job without a request can only Resume(). `request` must outlive the job, and so must `sources`, which has the
  // image to copy for each disk of the request, or nothing.
  CreationJob(const CreationOptions& options, std::string guest_id, const CreationRequest* request,
              const Sources* sources);

  // Refusals: those of Creations::Create.
  Result<Json::Value, Refusal> Create(const Requester& requester);

 private:
  Result<void, Refusal> FillFiles(const std::vector<NewFile>& made) override;
  MaybeRefused AddToIntent(const records::Reader& reader, store::Transaction& transaction) override;
  MaybeRefused AddToRecords(const records::Reader& reader, store::Transaction& transaction) override;
  Status UndoRecords() override;

  MaybeRefused AddRequest(const records::Reader& reader, RequestState state, store::Transaction& transaction);
  MaybeRefused AddGrants(const records::Reader& reader, store::Transaction& transaction) const;
  Json::Value Answer() const;

  const CreationOptions& creation_options_;
  const CreationRequest* const request_;
  const Sources* const sources_;
};

}  // namespace vexa::guests
