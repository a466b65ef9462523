#include "host/storage/storage_condition.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::storage {
namespace {

namespace states = VexaCCC::State::Repo;

constexpr unsigned kHysteresisPercent = 2;          // points that the usage must fall below an exceeded limit
constexpr unsigned kHysteresisHeadroomPercent = 5;  // of the headroom that must be free in addition to it
constexpr unsigned kHundredPercent = 100;
constexpr std::uint64_t kGib = std::uint64_t{1} << 30;

// Reads one entry, which fails on a file system that was shut down or lost its device. Returns 0 or an errno(3) value.
int ReadEntry(int folder) {
  const int opened = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (opened < 0) return errno;
  DIR* const entries = ::fdopendir(opened);
  if (entries == nullptr) {
    const int error_number = errno;
    ::close(opened);
    return error_number;
  }
  errno = 0;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): threads may read different directories, see readdir(3).
  (void)::readdir(entries);
  const int error_number = errno;
  ::closedir(entries);
  return error_number;
}

// Not set: the folder cannot be opened although its file system works, or its file system was already probed.
std::optional<FolderCondition> Probe(const std::string& folder, std::set<dev_t>& probed) {
  FolderCondition condition;
  condition.folder = folder;
  const int opened = ::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (opened < 0) {
    condition.error_number = errno;
    return IsFileSystemFailure(condition.error_number) ? std::optional(condition) : std::nullopt;
  }
  struct stat info {};
  struct statvfs space {};
  bool is_new = true;
  if (::fstat(opened, &info) != 0 || ::fstatvfs(opened, &space) != 0) {
    condition.error_number = errno;
  } else {
    is_new = probed.insert(info.st_dev).second;
    // Other errors, such as EACCES, do not show whether the file system works.
    if (const int error_number = is_new ? ReadEntry(opened) : 0; IsFileSystemFailure(error_number)) {
      condition.error_number = error_number;
    }
  }
  ::close(opened);
  if (!is_new) return std::nullopt;
  condition.is_read_only = (space.f_flag & ST_RDONLY) != 0;
  const std::uint64_t block = space.f_frsize;
  condition.used = (space.f_blocks - std::min(space.f_bfree, space.f_blocks)) * block;
  condition.available = space.f_bavail * block;
  return condition;
}

// Whether at least this share of the file system is used. Counted as by df(1): relative to what users other than root
// could have.
bool IsUsedAbove(const FolderCondition& condition, unsigned percent, std::uint64_t headroom) {
  // A 53-bit number is exact enough for percentages, and 64 bits could overflow.
  const double all = static_cast<double>(condition.used) + static_cast<double>(condition.available);
  if (percent == 0 || all == 0) return false;
  if (headroom != 0 && condition.available > headroom) return false;
  return static_cast<double>(condition.used) * kHundredPercent >= all * percent;
}

bool ExceedsLimit(const FolderCondition& condition, unsigned percent, std::uint64_t headroom_gib, bool was_exceeded) {
  if (percent == 0) return false;
  const std::uint64_t headroom = headroom_gib * kGib;
  if (!was_exceeded) return IsUsedAbove(condition, percent, headroom);
  return IsUsedAbove(condition, std::max(percent, kHysteresisPercent + 1) - kHysteresisPercent,
                     headroom + headroom / kHundredPercent * kHysteresisHeadroomPercent);
}

std::string DescribeUsage(const std::string& folder, unsigned percent) {
  return fmt::format("the file system of the folder {} is at least {} % full", folder, percent);
}

std::optional<StorageProblem> ProblemOf(const FolderCondition& condition, const SpaceLimits& limits,
                                        std::string_view before) {
  const std::string folder = QuotedPath(condition.folder);
  const auto problem = [&](const char* state, std::string reason) {
    StorageProblem found;
    found.folders = {condition.folder};
    found.reason = std::move(reason);
    found.state = state;
    return found;
  };
  if (condition.error_number != 0) {
    const Error error =
        SystemError(ErrorCode::kInternal, fmt::format("the folder {} cannot be used", folder), condition.error_number);
    return problem(states::crashed, error.ToString());
  }
  const bool was_full = before == states::full;
  if (ExceedsLimit(condition, limits.full_percent, limits.full_headroom_gib(), was_full)) {
    return problem(states::full, DescribeUsage(folder, limits.full_percent));
  }
  if (condition.is_read_only) {
    return problem(states::degraded, fmt::format("the file system of the folder {} is mounted read-only", folder));
  }
  if (ExceedsLimit(condition, limits.warning_percent, limits.warning_headroom_gib(),
                   was_full || before == states::provision_warning)) {
    return problem(states::provision_warning, DescribeUsage(folder, limits.warning_percent));
  }
  return std::nullopt;
}

}  // namespace

bool IsFileSystemFailure(int error_number) {
  constexpr std::array kFailures{EIO,       ESTALE, EUCLEAN,  EBADMSG,   EREMOTEIO, ENXIO,
                                 ESHUTDOWN, ENODEV, ENOTCONN, ENOMEDIUM, ETIMEDOUT};
  return std::ranges::find(kFailures, error_number) != kFailures.end();
}

std::vector<FolderCondition> ProbeFolders(const std::vector<std::string>& folders) {
  std::vector<FolderCondition> conditions;
  std::set<dev_t> probed;
  for (const std::string& folder : folders) {
    if (std::optional<FolderCondition> condition = Probe(folder, probed)) conditions.push_back(std::move(*condition));
  }
  return conditions;
}

std::optional<StorageProblem> WorstProblem(const std::vector<FolderCondition>& conditions, const SpaceLimits& limits,
                                           std::string_view before) {
  std::optional<StorageProblem> worst;
  for (const FolderCondition& condition : conditions) {
    std::optional<StorageProblem> problem = ProblemOf(condition, limits, before);
    if (!problem) continue;
    if (!worst || RepositoryRank(problem->state) > RepositoryRank(worst->state)) worst = std::move(problem);
  }
  return worst;
}

int RepositoryRank(std::string_view state) {
  const std::array<std::string_view, 6> rising{states::provision_warning, states::degraded, states::full,
                                               states::unavailable,       states::crashed,  states::inaccessible};
  const auto found = std::ranges::find(rising, state);
  return found == rising.end() ? 0 : static_cast<int>(found - rising.begin()) + 1;
}

bool IsUsableRepository(std::string_view state) {
  return state == states::online || state == states::degraded || state == states::provision_warning;
}

}  // namespace vexa::storage
