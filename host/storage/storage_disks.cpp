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

namespace vexa::storage {
namespace {

namespace disk_states = VexaCCC::State::vDisk;
namespace repository_states = VexaCCC::State::Repo;
using VexaCCC::DB::DashCate;

constexpr std::uint64_t kMib = std::uint64_t{1} << 20;
// The header of a qcow2 image has the size in eight bytes, big-endian.
constexpr std::string_view kMagic = "QFI\xfb";
constexpr std::size_t kSizeOffset = 24;
constexpr std::size_t kHeaderLength = 32;
constexpr std::size_t kStatesPerCommit = 1000;

std::string DiskKey(const std::string& disk_id, const char* name) {
  return records::MemberKey(DashCate::vDisk.name(), disk_id, name);
}

// The state that disks inherit from a repository in this state; null when they do not inherit it.
const char* InheritedState(std::string_view repository) {
  const std::array<std::pair<const char*, const char*>, 6> inherited{
      {{repository_states::inaccessible, disk_states::inaccessible},
       {repository_states::unavailable, disk_states::unavailable},
       {repository_states::crashed, disk_states::crashed},
       {repository_states::full, disk_states::full},
       {repository_states::degraded, disk_states::degraded},
       {repository_states::provision_warning, disk_states::provision_warning}}};
  for (const auto& [of_repository, of_disk] : inherited) {
    if (repository == of_repository) return of_disk;
  }
  return nullptr;
}

// Whether nothing is known about the files of a repository in this state.
bool FilesAreUnknown(std::string_view repository) {
  return repository == repository_states::inaccessible || repository == repository_states::unavailable ||
         repository == repository_states::crashed;
}

std::optional<std::uint64_t> Qcow2Size(int file) {
  std::array<char, kHeaderLength> header{};
  const ssize_t count = ::pread(file, header.data(), header.size(), 0);
  if (count < 0) return std::nullopt;
  if (static_cast<std::size_t>(count) < header.size()) return 0;
  if (std::string_view(header.data(), kMagic.size()) != kMagic) return 0;
  std::uint64_t size = 0;
  for (std::size_t i = kSizeOffset; i < kHeaderLength; ++i) size = size << 8 | static_cast<unsigned char>(header[i]);
  return size;
}

// Appends up to `max_count` candidates to `chosen`, starting after the one chosen last and wrapping around.
void ChooseFrom(const std::map<std::string, const DiskFile*>& candidates, std::size_t max_count, std::string& last,
                std::vector<DiskFile>& chosen) {
  auto next = candidates.upper_bound(last);
  for (std::size_t count = std::min(max_count, candidates.size()); count > 0; --count) {
    if (next == candidates.end()) next = candidates.begin();
    chosen.push_back(*next->second);
    last = next->first;
    ++next;
  }
}

}  // namespace

std::string DiskStateKey(const std::string& disk_id) { return DiskKey(disk_id, keys::state); }

FileState CheckFile(const DiskFile& disk) {
  if (disk.path.empty() || disk.path.find('\0') != std::string::npos) return FileState::kMissing;
  struct stat info {};
  if (::stat(disk.path.c_str(), &info) != 0) {
    return errno == ENOENT || errno == ENOTDIR ? FileState::kMissing : FileState::kUnknown;
  }
  if (S_ISBLK(info.st_mode)) return FileState::kFine;
  if (!S_ISREG(info.st_mode)) return FileState::kMissing;
  // An import rounds the size of an image up to whole MiB.
  const std::uint64_t size_mib = disk.size_mib > 0 ? disk.size_mib - 1 : 0;
  const std::uint64_t min_bytes =
      size_mib >= UINT64_MAX / kMib ? UINT64_MAX : size_mib * kMib + (disk.size_mib > 0 ? 1 : 0);
  if (!disk.is_qcow2)
    return static_cast<std::uint64_t>(info.st_size) < min_bytes ? FileState::kShort : FileState::kFine;
  // Non-blocking, because a FIFO may have replaced the file meanwhile.
  const int file = ::open(disk.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) return FileState::kUnknown;
  const std::optional<std::uint64_t> size = Qcow2Size(file);
  ::close(file);
  if (!size) return FileState::kUnknown;
  return *size < std::max<std::uint64_t>(min_bytes, 1) ? FileState::kShort : FileState::kFine;
}

std::optional<std::string> DiskStateOf(std::string_view repository, std::optional<FileState> file,
                                       std::string_view stored) {
  const char* const inherited = InheritedState(repository);
  if (FilesAreUnknown(repository)) return inherited;
  // Before the first check of this process, the state that an earlier process wrote is valid.
  const bool is_of_file = stored == disk_states::inaccessible || stored == disk_states::crashed;
  if (!file && (is_of_file || stored.empty())) return std::nullopt;
  if (file == FileState::kMissing) return disk_states::inaccessible;
  if (file == FileState::kShort) return disk_states::crashed;
  return inherited != nullptr ? inherited : disk_states::online;
}

std::string VisibleDiskState(std::string_view repository, std::string_view stored) {
  if (std::optional<std::string> state = DiskStateOf(repository, std::nullopt, stored)) return *std::move(state);
  if (!stored.empty()) return std::string(stored);
  return DiskStateOf(repository, FileState::kFine, stored).value_or(disk_states::online);
}

std::vector<DiskFile> DiskStates::Choose(const std::vector<DiskFile>& disks, const std::set<std::string>& running,
                                         std::size_t max_count) {
  std::map<std::string, const DiskFile*> of_running;
  std::map<std::string, const DiskFile*> other;
  for (const DiskFile& disk : disks) (running.contains(disk.guest_id) ? of_running : other).emplace(disk.id, &disk);
  std::vector<DiskFile> chosen;
  // A quarter is reserved for the other disks, so that they are checked too.
  const std::size_t reserved = std::min(max_count / 4, other.size());
  ChooseFrom(of_running, max_count - reserved, last_running_, chosen);
  ChooseFrom(other, max_count - chosen.size(), last_other_, chosen);
  return chosen;
}

void DiskStates::RecordCheck(const std::string& disk_id, FileState state) {
  if (state != FileState::kUnknown) files_[disk_id] = state;
}

Status DiskStates::ReadStored(const store::Store& store, const std::vector<DiskFile>& disks) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  for (const DiskFile& disk : disks) {
    if (stored_.contains(disk.id) || !store::IsValidKey(DiskStateKey(disk.id))) continue;
    const auto value = (*snapshot)->Get(DiskStateKey(disk.id));
    if (!value) return value.error();
    const Result<Json::Value> parsed = *value ? ParseJson((*value)->text) : Result<Json::Value>(Json::Value());
    stored_[disk.id] = parsed && parsed->isString() ? json::String(*parsed) : std::string();
  }
  return {};
}

// A disk that has disappeared meanwhile gets no state.
Result<store::Transaction> DiskStates::Plan(const store::Snapshot& snapshot,
                                            const std::map<std::string, std::string>& new_states) {
  store::Transaction transaction;
  for (const auto& [id, state] : new_states) {
    const auto object = snapshot.Get(DiskKey(id, keys::object));
    if (!object) return object.error();
    const auto now = snapshot.Get(DiskStateKey(id));
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
  std::map<std::string, std::string> new_states;
  const auto commit = [&]() -> Status {
    if (Status committed =
            records::CommitWithRetry(store, [&](const records::Reader& reader) { return Plan(reader, new_states); });
        !committed) {
      return committed;
    }
    for (auto& [id, state] : new_states) stored_[id] = std::move(state);
    new_states.clear();
    return {};
  };
  for (const DiskFile& disk : disks) {
    const auto stored = stored_.find(disk.id);
    if (stored == stored_.end()) continue;  // the id cannot be part of a key
    const auto file = files_.find(disk.id);
    const std::optional<std::string> state =
        DiskStateOf(repository, file == files_.end() ? std::nullopt : std::optional(file->second), stored->second);
    if (!state || *state == stored->second) continue;
    new_states[disk.id] = *state;
    if (new_states.size() < kStatesPerCommit) continue;
    if (Status committed = commit(); !committed) return committed;
  }
  return new_states.empty() ? Status() : commit();
}

}  // namespace vexa::storage
