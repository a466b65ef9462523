#include "host/storage/repository_contents.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <system_error>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/disks/disk_files.h"
#include "host/records/named_record.h"
#include "host/records/request_scope.h"
#include "host/storage/repository_files.h"
#include "webapi/platform/ccc.h"

namespace vexa::storage {
namespace {

namespace fs = std::filesystem;
using VexaCCC::DB::DashCate;

constexpr std::uint64_t kBlockBytes = 512;  // of st_blocks, see stat(2)

struct Measured {
  std::map<std::string, std::uint64_t> allocated;  // by the path of a disk
  std::vector<ContainedFile> files;
};

// May wait forever.
Measured MeasureFiles(const std::vector<std::string>& disk_paths, const std::vector<std::string>& all_paths,
                      const std::vector<std::string>& folders) {
  Measured measured;
  struct stat info {};
  for (const std::string& path : disk_paths) {
    if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    measured.allocated[path] = static_cast<std::uint64_t>(info.st_blocks) * kBlockBytes;
  }
  const std::set<std::string> known(all_paths.begin(), all_paths.end());
  for (const std::string& folder : folders) {
    std::error_code failed;
    for (fs::directory_iterator entry(folder, failed), end; !failed && entry != end; entry.increment(failed)) {
      const std::string path = entry->path().string();
      if (known.contains(path) || ::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
      if (measured.files.size() == kMaxListedFiles) return measured;
      measured.files.push_back(
          {path, static_cast<std::uint64_t>(info.st_size), static_cast<std::uint64_t>(info.st_blocks) * kBlockBytes});
    }
  }
  std::ranges::sort(measured.files, {}, &ContainedFile::path);
  return measured;
}

}  // namespace

RepositoryReader::RepositoryReader(std::string host_id, std::vector<std::string> roots,
                                   std::chrono::milliseconds timeout)
    : host_id_(std::move(host_id)), roots_(std::move(roots)), calls_(timeout) {}

Result<RepositoryContents, Refusal> RepositoryReader::Read(store::Store& store, const std::string& repository_id) {
  const records::RequestPause pause;
  const auto failed = [](const Error& error) { return Refusal{records::kRecordFailed, error.ToString()}; };
  const auto listed = ListRepositories(store);
  if (!listed) return failed(listed.error());
  const auto repository = std::ranges::find(*listed, repository_id, &ListedRepository::id);
  if (repository == listed->end()) {
    return Refusal{host_error::kNotFoundOrUnreadable,
                   "There is no repository '" + SanitizeForLog(repository_id, records::kMaxRecordName) + "'"};
  }
  RepositoryContents contents;
  contents.repository = *repository;
  FilesByRepository all;
  const Result<const FilesByRepository::Files*> files = all.Find(store);
  if (!files) return failed(files.error());
  const auto found = (*files)->find(repository_id);
  const RepositoryFiles own = found == (*files)->end() ? RepositoryFiles() : found->second;
  std::map<std::string, ContainedGuest> guests;
  for (const DiskFile& disk : own.disks) {
    guests[disk.guest_id].disks.push_back({disk.id, disk.path, disk.size_mib, std::nullopt});
  }
  {
    const auto snapshot = store.Read();
    if (!snapshot) return failed(snapshot.error());
    for (auto& [id, guest] : guests) {
      guest.id = id;
      const auto record = records::ReadNamedRecord(**snapshot, DashCate::Guest.name(), id);
      if (!record) return failed(record.error());
      if (*record) guest.name = (*record)->name;
      contents.guests.push_back(std::move(guest));
    }
  }
  if (contents.repository.host_id == host_id_) Measure(contents, own.paths);
  return contents;
}

void RepositoryReader::Measure(RepositoryContents& contents, std::vector<std::string> paths) {
  std::vector<std::string> disk_paths;
  for (const ContainedGuest& guest : contents.guests) {
    for (const ContainedDisk& disk : guest.disks) disk_paths.push_back(disk.path);
  }
  std::vector<std::string> folders;
  for (const std::string& root : disks::NormalRoots(roots_)) {
    const std::string folder = root + "/" + contents.repository.id;
    if (disks::NormalPath(folder + "/x") == folder + "/x") folders.push_back(folder);
  }
  const auto measured = std::make_shared<Measured>();
  BoundedCalls::Call call =
      calls_.Begin(contents.repository.id, [=] { *measured = MeasureFiles(disk_paths, paths, folders); });
  if (!call.Wait()) return;
  contents.files = measured->files;
  for (ContainedGuest& guest : contents.guests) {
    for (ContainedDisk& disk : guest.disks) {
      const auto size = measured->allocated.find(disk.path);
      if (size != measured->allocated.end()) disk.allocated = size->second;
    }
  }
}

}  // namespace vexa::storage
