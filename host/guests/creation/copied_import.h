// Imports a guest together with copies of its disks' images. creation.h has the steps, which are those of a creation;
// meanwhile the guest's state is "importing". For host/guests/creation/*.cpp only.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/domain_xml/domain_images.h"
#include "host/guests/creation/creation.h"
#include "host/guests/creation/image_copies.h"
#include "host/guests/import/guest_import.h"
#include "host/guests/jobs/file_job.h"
#include "host/records/reader.h"

namespace vexa::guests {

// Threads: one at a time.
class CopiedImport {
 public:
  // `options` must outlive the job. `importing` as for GuestImport, with kRefuse for guests that exist.
  CopiedImport(const CreationOptions& options, GuestImport::Options importing);

  // `request` has the ids of its repository and host. Refusals: those of Creations::Import.
  Result<void, Refusal> Import(const ImportRequest& request, const Requester& requester, ImportedGuest& imported);

 private:
  // Opens the images, and makes `request` one for the copies.
  Result<void, Refusal> PrepareCopies(ImportRequest& request);
  Result<void, Refusal> AddCopy(const std::string& target, const domain_xml::DiskImage& image, ImportRequest& request);
  Result<void, Refusal> Begin(ImportAttempt& attempt, const Requester& requester);
  Result<store::Transaction> PlanBegin(const records::Reader& reader, ImportAttempt& attempt,
                                       const Requester& requester, const FileIntent& intent,
                                       std::optional<Refusal>& refused);
  Result<void, Refusal> MakeFiles();
  Result<void, Refusal> CommitRecords(ImportAttempt& attempt);
  Result<store::Transaction> PlanCommit(const records::Reader& reader, ImportAttempt& attempt,
                                        std::optional<Refusal>& refused) const;
  Result<void, Refusal> Undo(Refusal refusal);

  const CreationOptions& options_;
  GuestImport importer_;
  const GuestImport::Options importing_;
  std::string guest_id_;
  std::optional<FileJob> job_;
  std::string repository_id_;
  std::string folder_;  // of the repository's files
  std::vector<NewFile> made_;
  Sources sources_;
  std::map<std::string, domain_xml::DiskImage> copies_;  // by target
};

}  // namespace vexa::guests
