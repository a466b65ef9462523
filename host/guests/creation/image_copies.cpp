#include "host/guests/creation/image_copies.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>
#include <utility>

#include "host/base/qcow2_header.h"
#include "host/base/rooted_file.h"
#include "host/guests/creation/creation.h"
#include "host/records/keys.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

Refusal NotCopied(const Error& error) {
  const bool is_unavailable = error.code() == ErrorCode::kUnavailable;
  return {is_unavailable ? host_error::kUnavailable : host_error::kFailed, error.ToString()};
}

// Opens a file that was made by this job.
Result<Descriptor> OpenMade(const std::vector<std::string>& image_roots, const std::string& path) {
  const std::vector<std::string> roots = disks::NormalRoots(image_roots);
  const std::string* const root = disks::FindRoot(roots, path);
  if (root == nullptr) return Error(ErrorCode::kInvalid, fmt::format("'{}' is outside the image folders", path));
  const Descriptor top(::open(root->empty() ? "/" : root->c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  Descriptor file = OpenBelow(top.get(), path.substr(root->size() + 1), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  if (file.get() < 0) return SystemError(ErrorCode::kInternal, fmt::format("Cannot open '{}'", path), errno);
  return file;
}

}  // namespace

std::string ProgressKey(const std::string& guest_id) {
  return records::MemberKey(VexaCCC::DB::DashCate::Guest.name(), guest_id, kProgress);
}

Result<void, Refusal> ImageCopies::Fill(const FileJob& job, const std::vector<NewFile>& made, const Sources& sources) {
  std::uint64_t total_mib = 0;
  for (std::size_t i = 0; i < made.size() && i < sources.size(); ++i) {
    if (sources[i]) total_mib += made[i].size_mib;
  }
  std::uint64_t done_mib = 0;
  for (std::size_t i = 0; i < made.size() && i < sources.size(); ++i) {
    if (!sources[i]) continue;
    job.BeforeStep("copy", i);
    if (const auto filled = FillOne(job, made[i], *sources[i], done_mib, total_mib); !filled.ok()) return filled;
    done_mib += made[i].size_mib;
  }
  return {};
}

Result<void, Refusal> ImageCopies::FillOne(const FileJob& job, const NewFile& file, const disks::SourceImage& source,
                                           std::uint64_t done_mib, std::uint64_t total_mib) {
  const Result<Descriptor> target = OpenMade(options_.image_roots, file.path);
  if (!target) return NotCopied(target.error());
  disks::CopyOptions copy = copy_;
  copy.on_progress = [&](int percent) {
    const double share = static_cast<double>(done_mib) + static_cast<double>(file.size_mib) * percent / 100;
    StoreProgress(job, static_cast<int>(100 * share / static_cast<double>(total_mib)));
  };
  if (const Status copied = disks::CopyImage(source, target->get(), file.format, copy); !copied) {
    return NotCopied(copied.error());
  }
  if (file.format == domain_xml::ImageFormat::kRaw) return {};
  const Result<Qcow2Header> header = ReadStandaloneQcow2(target->get(), file.path);
  if (!header) return NotCopied(header.error());
  if (header->size == file.size_mib << 20) return {};
  return NotCopied(Error(ErrorCode::kInternal, fmt::format("The copy '{}' has another size than the disk", file.path)));
}

// For lists and `vexa guest status`. A failure changes nothing that matters.
void ImageCopies::StoreProgress(const FileJob& job, int percent) {
  if (percent == progress_) return;
  progress_ = percent;
  store::Transaction transaction;
  job.CompareOurs(transaction);
  transaction.operations.push_back({ProgressKey(guest_id_), std::to_string(percent)});
  (void)options_.store->Commit(transaction);
}

}  // namespace vexa::guests
