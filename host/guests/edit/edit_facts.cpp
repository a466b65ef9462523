#include "host/guests/edit/edit_facts.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "host/disks/file_referrers.h"
#include "host/guests/jobs/repository_folder.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;

// Returns the value under `name`. Not set: it is not known yet, and the name has been added to `wanted`.
template <class Value>
std::optional<Value> Find(const std::map<std::string, Value>& known, const std::string& name,
                          std::set<std::string>& wanted) {
  const auto found = known.find(name);
  if (found != known.end()) return found->second;
  wanted.insert(name);
  return std::nullopt;
}

std::string KeyOf(const records::Guest& guest) {
  std::string text = json::ToText(guest.records.guest);
  for (const auto* parts : {&guest.records.disks, &guest.records.nics}) {
    for (const auto& [id, record] : *parts) text += id + json::ToText(record);
  }
  return text;
}

void BeforeLookup(const EditOptions& options) {
  if (options.file_calls.before_lookup) options.file_calls.before_lookup();
}

// The identity of the file at `path`, following symbolic links; FileIdentity() when the file does not exist or cannot
// be examined.
disks::FileIdentity IdentityOf(const EditOptions& options, const std::string& path) {
  struct stat info {};
  BeforeLookup(options);
  if (::stat(path.c_str(), &info) != 0) return {};
  return {info.st_dev, info.st_ino};
}

}  // namespace

std::optional<FileFacts::Image> FileFacts::ImageAt(const std::string& path) {
  return Find(images_, path, images_wanted_);
}

std::optional<std::string> FileFacts::FolderOf(const std::string& repository_id) {
  return Find(folders_, repository_id, folders_wanted_);
}

std::optional<Result<void, Refusal>> FileFacts::Pins(const records::Guest& edited) {
  const auto found = pins_.find(KeyOf(edited));
  if (found != pins_.end()) return found->second;
  pins_wanted_ = edited;
  return std::nullopt;
}

std::optional<Result<void, Refusal>> FileFacts::AppliesNow(const records::Guest& edited) {
  const auto found = applies_.find(KeyOf(edited));
  if (found != applies_.end()) return found->second;
  applies_wanted_ = edited;
  return std::nullopt;
}

std::optional<Result<void, Refusal>> FileFacts::Room(const std::string& repository_id,
                                                     const std::set<std::string>& paths) {
  const auto found = rooms_.find({repository_id, paths});
  if (found != rooms_.end()) return found->second;
  room_wanted_ = RoomQuery(repository_id, paths);
  return std::nullopt;
}

std::optional<Result<void, Refusal>> FileFacts::NotRunning() {
  not_running_wanted_ = !not_running_;
  return not_running_;
}

Status FileFacts::Gather(const EditOptions& options, const std::string& guest_id) {
  if (std::exchange(not_running_wanted_, false)) {
    not_running_ = options.check_not_running ? options.check_not_running(guest_id) : Result<void, Refusal>();
  }
  for (const std::string& repository_id : std::exchange(folders_wanted_, {})) {
    folders_[repository_id] = RepositoryFolder(options, repository_id);
  }
  if (const std::optional<records::Guest> guest = std::exchange(pins_wanted_, std::nullopt)) {
    pins_[KeyOf(*guest)] = options.check_pins ? options.check_pins(*guest) : Result<void, Refusal>();
  }
  if (const std::optional<records::Guest> guest = std::exchange(applies_wanted_, std::nullopt)) {
    applies_[KeyOf(*guest)] = options.check_applies_now
                                  ? options.check_applies_now(*guest)
                                  : Refusal{host_error::kFailed, "The guest cannot be changed while it runs"};
  }
  if (const std::optional<RoomQuery> query = std::exchange(room_wanted_, std::nullopt)) {
    rooms_[*query] =
        options.storage ? options.storage->CheckRoom(query->first, query->second) : Result<void, Refusal>();
  }
  return GatherImages(options);
}

// Determines whether images are disks of guests: if disks could be inserted into CD-ROM drives, a user with the right
// to insert images could read all disks. Disks of other hosts count too, because the guest may be moved to one of them.
Status FileFacts::GatherImages(const EditOptions& options) {
  std::map<std::string, disks::QueriedFile> files;
  for (const std::string& path : std::exchange(images_wanted_, {})) {
    images_[path] = Image::kMissing;
    if (options.has_file && !options.has_file(path)) continue;
    images_[path] = Image::kUsable;
    files.emplace(path, disks::QueriedFile{IdentityOf(options, path), ""});
  }
  disks::FileReferrerQuery query;
  query.kinds = {disks::FileReferrer::kDisk, disks::FileReferrer::kNvram};
  const auto disks = disks::FindFileReferrers(*options.store, query, files);
  if (!disks) {
    for (const auto& [path, file] : files) images_.erase(path);
    return disks.error();
  }
  for (const auto& [path, user] : *disks) images_[path] = Image::kDisk;
  return {};
}

}  // namespace vexa::guests
