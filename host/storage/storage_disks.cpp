#include "host/storage/storage_disks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "host/base/json_parse.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/storage/storage_condition.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace disks_are = VexaCCC::State::vDisk;
namespace repositories_are = VexaCCC::State::Repo;
using VexaCCC::DB::DashCate;

constexpr std::uint64_t kMib = std::uint64_t{1} << 20;
// In the format that QEMU's documentation calls qcow2, the size is eight bytes, the highest first.
constexpr std::string_view kMagic = "QFI\xfb";
constexpr std::size_t kSizeOffset = 24;
constexpr std::size_t kHeadLength = 32;
constexpr std::size_t kStatesPerCommit = 1000;

std::string DiskKey(const std::string& disk_id, const char* name) {
  return cluster::MemberKey(DashCate::vDisk.name(), disk_id, name);
}

// The disk's state for a repository state that disks share. Null for one that they do not share.
const char* SharedState(std::string_view repository) {
  const std::array<std::pair<const char*, const char*>, 6> shared{
      {{repositories_are::inaccessible, disks_are::inaccessible},
       {repositories_are::unavailable, disks_are::unavailable},
       {repositories_are::crashed, disks_are::crashed},
       {repositories_are::full, disks_are::full},
       {repositories_are::degraded, disks_are::degraded},
       {repositories_are::provision_warning, disks_are::provision_warning}}};
  for (const auto& [of_repository, of_disk] : shared) {
    if (repository == of_repository) return of_disk;
  }
  return nullptr;
}

// Whether nothing is known about the files in it.
bool HidesFiles(std::string_view repository) {
  return repository == repositories_are::inaccessible || repository == repositories_are::unavailable ||
         repository == repositories_are::crashed;
}

std::optional<std::uint64_t> Qcow2Size(int file) {
  std::array<char, kHeadLength> head{};
  const ssize_t count = ::pread(file, head.data(), head.size(), 0);
  if (count < 0) return std::nullopt;
  if (static_cast<std::size_t>(count) < head.size()) return 0;
  if (std::string_view(head.data(), kMagic.size()) != kMagic) return 0;
  std::uint64_t size = 0;
  for (std::size_t i = kSizeOffset; i < kHeadLength; ++i) size = size << 8 | static_cast<unsigned char>(head[i]);
  return size;
}

// Chooses up to `most` candidates after the one chosen last, in their order, wrapping around to the first.
void ChooseFrom(const std::map<std::string, const DiskFile*>& candidates, std::size_t most, std::string& last,
                std::vector<DiskFile>& chosen) {
  auto next = candidates.upper_bound(last);
  for (std::size_t count = std::min(most, candidates.size()); count > 0; --count) {
    if (next == candidates.end()) next = candidates.begin();
    chosen.push_back(*next->second);
    last = next->first;
    ++next;
  }
}

}  // namespace

std::string DiskStateKey(const std::string& disk_id) { return DiskKey(disk_id, keys::state); }

FileState LookAtFile(const DiskFile& disk) {
  if (disk.path.empty() || disk.path.find('\0') != std::string::npos) return FileState::kMissing;
  struct stat info {};
  if (::stat(disk.path.c_str(), &info) != 0) {
    return errno == ENOENT || errno == ENOTDIR ? FileState::kMissing : FileState::kUnknown;
  }
  if (S_ISBLK(info.st_mode)) return FileState::kFine;
  if (!S_ISREG(info.st_mode)) return FileState::kMissing;
  // An import rounds the size of an image up to whole MiB.
  const std::uint64_t size_mib = disk.size_mib > 0 ? disk.size_mib - 1 : 0;
  const std::uint64_t least =
      size_mib >= UINT64_MAX / kMib ? UINT64_MAX : size_mib * kMib + (disk.size_mib > 0 ? 1 : 0);
  if (!disk.is_qcow2) return static_cast<std::uint64_t>(info.st_size) < least ? FileState::kShort : FileState::kFine;
  // By now, there may be a FIFO at the path.
  const int file = ::open(disk.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) return FileState::kUnknown;
  const std::optional<std::uint64_t> size = Qcow2Size(file);
  ::close(file);
  if (!size) return FileState::kUnknown;
  return *size < std::max<std::uint64_t>(least, 1) ? FileState::kShort : FileState::kFine;
}

std::optional<std::string> DiskStateOf(std::string_view repository, std::optional<FileState> file,
                                       std::string_view stored) {
  const char* const shared = SharedState(repository);
  if (HidesFiles(repository)) return shared;
  // Before the first check, the result of an earlier one is valid.
  const bool is_of_file = stored == disks_are::inaccessible || stored == disks_are::crashed;
  if (!file && (is_of_file || stored.empty())) return std::nullopt;
  if (file == FileState::kMissing) return disks_are::inaccessible;
  if (file == FileState::kShort) return disks_are::crashed;
  return shared != nullptr ? shared : disks_are::online;
}

std::string ShownDiskState(std::string_view repository, std::string_view stored) {
  if (std::optional<std::string> state = DiskStateOf(repository, std::nullopt, stored)) return *std::move(state);
  if (!stored.empty()) return std::string(stored);
  return DiskStateOf(repository, FileState::kFine, stored).value_or(disks_are::online);
}

std::vector<DiskFile> DiskStates::Choose(const std::vector<DiskFile>& disks, const std::set<std::string>& running,
                                         std::size_t most) {
  std::map<std::string, const DiskFile*> hot;
  std::map<std::string, const DiskFile*> other;
  for (const DiskFile& disk : disks) (running.contains(disk.guest_id) ? hot : other).emplace(disk.id, &disk);
  std::vector<DiskFile> chosen;
  // A quarter is reserved for the others, so that they get their turn too.
  const std::size_t kept = std::min(most / 4, other.size());
  ChooseFrom(hot, most - kept, last_running_, chosen);
  ChooseFrom(other, most - chosen.size(), last_other_, chosen);
  return chosen;
}

void DiskStates::Take(const std::string& disk_id, FileState state) {
  if (state != FileState::kUnknown) files_[disk_id] = state;
}

Status DiskStates::ReadStored(const store::Store& store, const std::vector<DiskFile>& disks) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  for (const DiskFile& disk : disks) {
    if (stored_.contains(disk.id) || !store::IsKey(DiskStateKey(disk.id))) continue;
    const auto value = (*snapshot)->Get(DiskStateKey(disk.id));
    if (!value) return value.error();
    const Result<Json::Value> parsed = *value ? ParseJson((*value)->text) : Result<Json::Value>(Json::Value());
    stored_[disk.id] = parsed && parsed->isString() ? json::String(*parsed) : std::string();
  }
  return {};
}

// A disk that has disappeared meanwhile gets no state.
Result<store::Transaction> DiskStates::Plan(const store::Store& store, const std::map<std::string, std::string>& part) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  store::Transaction transaction;
  for (const auto& [id, state] : part) {
    const auto object = (*snapshot)->Get(DiskKey(id, keys::object));
    if (!object) return object.error();
    const auto now = (*snapshot)->Get(DiskStateKey(id));
    if (!now) return now.error();
    std::string text = json::ToText(state);
    if (!object->has_value() || (now->has_value() && (*now)->text == text)) continue;
    transaction.compares.push_back({DiskKey(id, keys::object), (*object)->revision});
    transaction.operations.push_back({DiskStateKey(id), std::move(text)});
  }
  return transaction;
}

Status DiskStates::Write(store::Store& store, const std::vector<DiskFile>& disks, std::string_view repository) {
  std::set<std::string_view> ids;
  for (const DiskFile& disk : disks) ids.insert(disk.id);
  std::erase_if(stored_, [&](const auto& one) { return !ids.contains(one.first); });
  std::erase_if(files_, [&](const auto& one) { return !ids.contains(one.first); });
  if (Status read = ReadStored(store, disks); !read) return read;
  std::map<std::string, std::string> part;
  const auto commit = [&]() -> Status {
    if (Status committed = cluster::CommitPlanned(store, [&] { return Plan(store, part); }); !committed) {
      return committed;
    }
    for (auto& [id, state] : part) stored_[id] = std::move(state);
    part.clear();
    return {};
  };
  for (const DiskFile& disk : disks) {
    const auto stored = stored_.find(disk.id);
    if (stored == stored_.end()) continue;  // not an id that a key can have
    const auto file = files_.find(disk.id);
    const std::optional<std::string> state =
        DiskStateOf(repository, file == files_.end() ? std::nullopt : std::optional(file->second), stored->second);
    if (!state || *state == stored->second) continue;
    part[disk.id] = *state;
    if (part.size() < kStatesPerCommit) continue;
    if (Status committed = commit(); !committed) return committed;
  }
  return part.empty() ? Status() : commit();
}

}  // namespace vexa::guests
