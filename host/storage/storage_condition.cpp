#include "host/storage/storage_condition.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>
#include <utility>

#include "host/base/log_text.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::guests {
namespace {

namespace states = VexaCCC::State::Repo;

constexpr unsigned kPercentBack = 2;   // below a limit that was exceeded
constexpr unsigned kHeadroomBack = 5;  // percent above the headroom
constexpr unsigned kAll = 100;
constexpr std::uint64_t kGib = std::uint64_t{1} << 30;

// Reads one entry; a file system that was shut down or lost its device refuses that. 0, or an errno(3) value.
int ReadEntry(int folder) {
  const int own = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (own < 0) return errno;
  DIR* const entries = ::fdopendir(own);
  if (entries == nullptr) {
    const int error_number = errno;
    ::close(own);
    return error_number;
  }
  errno = 0;
  (void)::readdir(entries);
  const int error_number = errno;
  ::closedir(entries);
  return error_number;
}

// Not set: the folder cannot be opened for a reason of its own, or its file system was already asked.
std::optional<FolderCondition> Probe(const std::string& folder, std::set<dev_t>& asked) {
  FolderCondition condition;
  condition.folder = folder;
  const int opened = ::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (opened < 0) {
    condition.error_number = errno;
    return IsFailure(condition.error_number) ? std::optional(condition) : std::nullopt;
  }
  struct stat info {};
  struct statvfs figures {};
  bool is_new = true;
  if (::fstat(opened, &info) != 0 || ::fstatvfs(opened, &figures) != 0) {
    condition.error_number = errno;
  } else {
    is_new = asked.insert(info.st_dev).second;
    // A process that may not read the folder cannot learn whether it works.
    if (const int error_number = is_new ? ReadEntry(opened) : 0; IsFailure(error_number)) {
      condition.error_number = error_number;
    }
  }
  ::close(opened);
  if (!is_new) return std::nullopt;
  condition.is_read_only = (figures.f_flag & ST_RDONLY) != 0;
  const std::uint64_t block = figures.f_frsize;
  condition.used = (figures.f_blocks - std::min(figures.f_bfree, figures.f_blocks)) * block;
  condition.available = figures.f_bavail * block;
  return condition;
}

// Whether at least this share of the file system is used. Counted as by df(1): relative to what users other than root
// could have.
bool IsUsedAbove(const FolderCondition& condition, unsigned percent, std::uint64_t headroom) {
  // A 53-bit number is exact enough for percentages, and 64 bits could overflow.
  const double all = static_cast<double>(condition.used) + static_cast<double>(condition.available);
  if (percent == 0 || all == 0) return false;
  if (headroom != 0 && condition.available > headroom) return false;
  return static_cast<double>(condition.used) * kAll >= all * percent;
}

bool ExceedsLimit(const FolderCondition& condition, unsigned percent, const SpaceLimits& limits, bool has_before) {
  if (percent == 0) return false;
  const std::uint64_t headroom = limits.headroom_gib * kGib;
  if (!has_before) return IsUsedAbove(condition, percent, headroom);
  return IsUsedAbove(condition, std::max(percent, kPercentBack + 1) - kPercentBack,
                     headroom + headroom / kAll * kHeadroomBack);
}

std::optional<StorageTrouble> TroubleOf(const FolderCondition& condition, const SpaceLimits& limits,
                                        std::string_view before) {
  const std::string folder = cluster::QuotedPath(condition.folder);
  const auto trouble = [&](const char* state, std::string reason) {
    StorageTrouble found;
    found.folders = {condition.folder};
    found.reason = std::move(reason);
    found.state = state;
    return found;
  };
  if (condition.error_number != 0) {
    const Error error =
        SystemError(ErrorCode::kInternal, "the folder " + folder + " cannot be used", condition.error_number);
    return trouble(states::crashed, error.ToString());
  }
  const bool was_full = before == states::full;
  if (ExceedsLimit(condition, limits.full_percent, limits, was_full)) {
    return trouble(states::full, "the file system of the folder " + folder + " is used to " +
                                     std::to_string(limits.full_percent) + " %");
  }
  if (condition.is_read_only) {
    return trouble(states::degraded, "the file system of the folder " + folder + " is mounted read-only");
  }
  if (ExceedsLimit(condition, limits.warning_percent, limits, was_full || before == states::provision_warning)) {
    return trouble(states::provision_warning, "the file system of the folder " + folder + " is used to " +
                                                  std::to_string(limits.warning_percent) + " %");
  }
  return std::nullopt;
}

}  // namespace

bool IsFailure(int error_number) {
  constexpr std::array kFailures{EIO,       ESTALE, EUCLEAN,  EBADMSG,   EREMOTEIO, ENXIO,
                                 ESHUTDOWN, ENODEV, ENOTCONN, ENOMEDIUM, ETIMEDOUT};
  return std::ranges::find(kFailures, error_number) != kFailures.end();
}

std::vector<FolderCondition> ProbeFolders(const std::vector<std::string>& folders) {
  std::vector<FolderCondition> conditions;
  std::set<dev_t> asked;
  for (const std::string& folder : folders) {
    if (std::optional<FolderCondition> condition = Probe(folder, asked)) conditions.push_back(std::move(*condition));
  }
  return conditions;
}

std::optional<StorageTrouble> WorstTrouble(const std::vector<FolderCondition>& conditions, const SpaceLimits& limits,
                                           std::string_view before) {
  std::optional<StorageTrouble> worst;
  for (const FolderCondition& condition : conditions) {
    std::optional<StorageTrouble> trouble = TroubleOf(condition, limits, before);
    if (!trouble) continue;
    if (!worst || RepositoryRank(trouble->state) > RepositoryRank(worst->state)) worst = std::move(trouble);
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

}  // namespace vexa::guests
