// Copies existing images into the new files of a job. For host/guests/creation/*.cpp only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/disks/image_copy.h"
#include "host/disks/source_image.h"
#include "host/guests/jobs/file_job.h"

namespace vexa::guests {

using Sources = std::vector<std::optional<disks::SourceImage>>;  // one for each disk; not set: the disk is empty

// The key with the percentage of a guest that has been copied, while it is being created or imported.
std::string ProgressKey(const std::string& guest_id);

// Threads: one at a time.
class ImageCopies {
 public:
  // `options` must outlive this object. `copy` has everything but the callback for progress.
  ImageCopies(const JobOptions& options, std::string guest_id, disks::CopyOptions copy)
      : options_(options), guest_id_(std::move(guest_id)), copy_(std::move(copy)) {}

  // Copies each of `sources` into the file of the same index in `made`, empty images made by `job`, and stores the
  // progress. Refusals: 949 (it had to stop, or made no progress), 901.
  Result<void, Refusal> Fill(const FileJob& job, const std::vector<NewFile>& made, const Sources& sources);

 private:
  Result<void, Refusal> FillOne(const FileJob& job, const NewFile& file, const disks::SourceImage& source,
                                std::uint64_t done_mib, std::uint64_t total_mib);
  void StoreProgress(const FileJob& job, int percent);

  const JobOptions& options_;
  const std::string guest_id_;
  const disks::CopyOptions copy_;
  int progress_ = -1;  // as stored last
};

}  // namespace vexa::guests
