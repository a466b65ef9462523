#include "host/disks/image_records.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <string_view>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/rooted_file.h"
#include "host/base/sanitize_for_log.h"
#include "host/base/uuid.h"
#include "host/disks/disk_files.h"
#include "host/disks/file_referrers.h"
#include "host/records/guest_image.h"
#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "host/records/request_scope.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::disks {
namespace {

using records::kImageCategory;
using records::kRecordExists;
using records::kRecordInUse;
using records::NamedRecord;
using VexaCCC::DB::DashCate;

constexpr std::size_t kMaxDisplayedName = 128;

bool IsPath(const std::string& text) {
  return text.starts_with('/') && text.size() <= records::kMaxImagePathBytes && IsValidUtf8(text) &&
         std::ranges::none_of(text, [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

std::string JoinPaths(const std::vector<std::string>& paths) {
  std::string joined;
  for (const std::string& path : paths) joined += (joined.empty() ? "'" : ", '") + path + "'";
  return joined;
}

// Why the file cannot be an image: a clause.
std::string WhyNotAnImage(const std::vector<std::string>& roots, const std::string& path) {
  struct stat info {};
  if (FindRoot(NormalRoots(roots), path) && ::lstat(path.c_str(), &info) != 0 && errno == ENOENT) {
    return "'" + SanitizePathForLog(path) +
           "' does not exist on the host. Put it there, or send a file of yours with 'vexa image add NAME FILE "
           "--upload'";
  }
  return "'" + SanitizePathForLog(path) + "' is not a regular file below " + JoinPaths(roots) +
         " without '.', '..' and symbolic links";
}

// Why the image cannot be added while `other` exists; not set when it can.
std::optional<Refusal> ConflictWith(const NamedRecord& other, const NewImage& image, const std::string& id) {
  if (other.id == id) return Refusal{kRecordExists, "There is an image '" + id + "' already"};
  const std::string displayed_id = SanitizeForLog(other.id, kMaxDisplayedName);
  if (other.name == image.name) {
    return Refusal{kRecordExists, "The image '" + displayed_id + "' has the name '" + image.name + "'"};
  }
  if (json::StringMember(other.record, records::kImagePath) == image.path) {
    return Refusal{kRecordExists, "The file '" + SanitizePathForLog(image.path) + "' is the image '" +
                                      SanitizeForLog(other.name, kMaxDisplayedName) + "' already"};
  }
  return std::nullopt;
}

// Finds the guests whose drives have an image.
class DriveSearch {
 public:
  explicit DriveSearch(const NamedRecord& image)
      : id_(image.id), path_(NormalPath(json::StringMember(image.record, records::kImagePath))) {
    if (path_) file_name_ = path_->substr(path_->rfind('/') + 1);
  }

  // The names of the guests, in quotes. Errors: those of the store.
  Result<std::vector<std::string>> Find(const store::Snapshot& snapshot) {
    const std::string prefix = records::CategoryKey(DashCate::Guest.name());
    const Status scanned = snapshot.Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
      if (key.size() > prefix.size()) Inspect(key.substr(prefix.size() + 1), value.text);
      return true;
    });
    if (!scanned) return scanned.error();
    std::vector<std::string> names;
    for (const std::string& segment : guests_) {
      const std::string id = store::DecodeSegment(segment).value_or(segment);
      const auto guest = records::ReadNamedRecord(snapshot, DashCate::Guest.name(), id);
      if (!guest) return guest.error();
      names.push_back("'" + (*guest ? records::DisplayName(**guest) : SanitizeForLog(id, kMaxDisplayedName)) + "'");
    }
    return names;
  }

 private:
  // `rest` is the key after the category's prefix. The drives are a member of the guest's record, or have a key of
  // their own.
  void Inspect(std::string_view rest, std::string_view text) {
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos || !MayRefer(text)) return;
    const std::string_view name = rest.substr(slash + 1);
    if (name != keys::object && name != keys::iso_images) return;
    const Result<Json::Value> parsed = ParseJson(text);
    // A damaged record refers to nothing.
    if (!parsed) return;
    const Json::Value& images = name == keys::object ? json::Member(*parsed, keys::iso_images) : *parsed;
    for (const Json::Value& image : json::Elements(images)) {
      if (IsTheImage(image)) guests_.insert(std::string(rest.substr(0, slash)));
    }
  }

  // Whether `text` must be parsed: it contains the id or the file's name, or escapes that could hide them.
  bool MayRefer(std::string_view text) const {
    return text.find(id_) != std::string_view::npos || text.find('\\') != std::string_view::npos ||
           (!file_name_.empty() && text.find(file_name_) != std::string_view::npos);
  }

  bool IsTheImage(const Json::Value& image) const {
    if (!image.isString()) return false;
    const std::string text = json::String(image);
    return text == id_ || (path_ && NormalPath(text) == path_);
  }

  const std::string id_;
  const std::optional<std::string> path_;
  std::string file_name_;
  std::set<std::string> guests_;  // ids, encoded as in keys
};

Result<store::Transaction> PlanRemoval(const store::Snapshot& snapshot, const std::string& id, std::string& name,
                                       const AlsoWhenRemoved& also, std::optional<Refusal>& refused) {
  store::Transaction transaction;
  name.clear();
  const auto image = records::ReadNamedRecord(snapshot, kImageCategory, id);
  if (!image) return image.error();
  if (!*image) {
    refused =
        Refusal{host_error::kNotFoundOrUnreadable, "There is no image '" + SanitizeForLog(id, kMaxDisplayedName) + "'"};
    return transaction;
  }
  name = records::DisplayName(**image);
  const auto guests = DriveSearch(**image).Find(snapshot);
  if (!guests) return guests.error();
  if (!guests->empty()) {
    refused = Refusal{kRecordInUse, "The image '" + name + "' is in a drive of these guests: " +
                                        records::FormatReferrers(*guests) + ". Take it out of the drives first"};
    return transaction;
  }
  // A guest that gets the image meanwhile makes this commit a conflict.
  if (Status compared = CompareFileReferencesRevision(snapshot, transaction); !compared) return compared.error();
  const Status removed = records::RemoveNamedRecord(snapshot, kImageCategory, **image, transaction);
  if (!removed) return removed.error();
  if (also) also(**image, transaction);
  return transaction;
}

}  // namespace

Status CheckImage(const NewImage& image) {
  if (!records::IsRecordName(image.name)) {
    return Error(ErrorCode::kInvalid, "An image's name is 1 to 128 bytes of UTF-8 without control characters");
  }
  if (!image.id.empty() && NormalizeUuid(image.id).empty()) {
    return Error(ErrorCode::kInvalid, "'" + SanitizeForLog(image.id, kMaxDisplayedName) + "' is not a UUID");
  }
  if (!IsPath(image.path)) {
    return Error(ErrorCode::kInvalid, "'" + SanitizePathForLog(image.path) +
                                          "' is not a valid image path: give an absolute path of up to 4096 "
                                          "bytes of UTF-8 without control characters");
  }
  return {};
}

Result<store::Transaction> PlanImageAddition(const store::Snapshot& snapshot, const NewImage& image,
                                             const std::string& id, std::optional<Refusal>& refused) {
  store::Transaction transaction;
  const auto all = records::ReadNamedRecords(snapshot, kImageCategory);
  if (!all) return all.error();
  for (const NamedRecord& other : *all) {
    refused = ConflictWith(other, image, id);
    if (refused) return transaction;
  }
  NamedRecord added;
  added.id = id;
  added.name = image.name;
  added.record[keys::name] = image.name;
  added.record[records::kImagePath] = image.path;
  if (!image.uploaded.isNull()) added.record[records::kImageUploaded] = image.uploaded;
  const Status put = records::AddNamedRecord(snapshot, kImageCategory, *all, added, transaction);
  if (!put) return put.error();
  if (Status compared = CompareFileReferencesRevision(snapshot, transaction); !compared) return compared.error();
  transaction.operations.push_back({records::FileReferencesGuardKey(), json::ToText(Json::Value(id))});
  return transaction;
}

Result<void, Refusal> AddImage(store::Store& store, const std::vector<std::string>& roots, const NewImage& image,
                               std::string& id) {
  const records::RequestPause pause;  // the file system may be slow
  if (!IsRegularFileBelow(roots, image.path)) {
    return Refusal{kNotAnImage, WhyNotAnImage(roots, image.path)};
  }
  id = NormalizeUuid(image.id);
  if (id.empty()) {
    Result<std::string> random = RandomUuid();
    if (!random) return Refusal{records::kRecordFailed, random.error().ToString()};
    id = std::move(*random);
  }
  return records::CommitRecord(store, [&](const records::Reader& reader, std::optional<Refusal>& refused) {
    return PlanImageAddition(reader, image, id, refused);
  });
}

Result<std::vector<ListedImage>> ListImages(const store::Store& store) {
  std::vector<ListedImage> images;
  {
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    auto all = records::ReadNamedRecords(**snapshot, kImageCategory);
    if (!all) return all.error();
    for (NamedRecord& image : *all) {
      images.push_back(
          {std::move(image.id), std::move(image.name), json::StringMember(image.record, records::kImagePath), {}});
    }
  }
  return images;
}

Result<void, Refusal> RemoveImage(store::Store& store, const std::string& id, std::string& name,
                                  const AlsoWhenRemoved& also) {
  return records::CommitRecord(store, [&](const records::Reader& reader, std::optional<Refusal>& refused) {
    return PlanRemoval(reader, id, name, also, refused);
  });
}

}  // namespace vexa::disks
