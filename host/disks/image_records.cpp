#include "host/disks/image_records.h"

#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/log_text.h"
#include "host/base/rooted_file.h"
#include "host/base/uuid.h"
#include "host/disks/disk_files.h"
#include "host/disks/disk_users.h"
#include "host/records/guest_image.h"
#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using cluster::kImageCategory;
using cluster::kRecordExists;
using cluster::kRecordInUse;
using cluster::NamedRecord;
using VexaCCC::DB::DashCate;

constexpr std::size_t kShownName = 128;

bool IsPath(const std::string& text) {
  return text.starts_with('/') && text.size() <= cluster::kMaxImagePathBytes && IsValidUtf8(text) &&
         std::ranges::none_of(text, [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

std::string JoinPaths(const std::vector<std::string>& paths) {
  std::string joined;
  for (const std::string& path : paths) joined += (joined.empty() ? "'" : ", '") + path + "'";
  return joined;
}

// Why the image cannot be added beside `other`.
Refused RefuseBeside(const NamedRecord& other, const NewImage& image, const std::string& id) {
  if (other.id == id) return Refusal{kRecordExists, "There is an image '" + id + "' already"};
  const std::string shown_id = cluster::LogText(other.id, kShownName);
  if (other.name == image.name) {
    return Refusal{kRecordExists, "The image '" + shown_id + "' has the name '" + image.name + "'"};
  }
  if (json::TextMember(other.record, cluster::kImagePath) == image.path) {
    return Refusal{kRecordExists,
                   "The image '" + shown_id + "' is the file '" + cluster::ShownPath(image.path) + "' already"};
  }
  return {};
}

Result<store::Transaction> PlanAddition(const store::Snapshot& snapshot, const NewImage& image, const std::string& id,
                                        Refused& refused) {
  store::Transaction transaction;
  const auto all = cluster::ReadNamedRecords(snapshot, kImageCategory);
  if (!all) return all.error();
  for (const NamedRecord& other : *all) {
    refused = RefuseBeside(other, image, id);
    if (refused) return transaction;
  }
  NamedRecord added;
  added.id = id;
  added.name = image.name;
  added.record[keys::name] = image.name;
  added.record[cluster::kImagePath] = image.path;
  const Status put = cluster::AddNamedRecord(snapshot, kImageCategory, *all, added, transaction);
  if (!put) return put.error();
  const Result<store::Revision> files = FilesRevision(snapshot);
  if (!files) return files.error();
  transaction.compares.push_back({FilesKey(), *files});
  transaction.operations.push_back({FilesKey(), json::ToText(Json::Value(id))});
  return transaction;
}

std::optional<std::uint64_t> SizeOfFile(const std::string& path) {
  struct stat info {};
  if (!path.starts_with('/') || path.find('\0') != std::string::npos) return std::nullopt;
  if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return static_cast<std::uint64_t>(info.st_size);
}

// Finds the guests whose drives have an image.
class DriveSearch {
 public:
  explicit DriveSearch(const NamedRecord& image)
      : id_(image.id), path_(NormalPath(json::TextMember(image.record, cluster::kImagePath))) {
    if (path_) file_name_ = path_->substr(path_->rfind('/') + 1);
  }

  // What the guests are called, in quotes. Errors: what the store says.
  Result<std::vector<std::string>> Find(const store::Snapshot& snapshot) {
    const std::string prefix = cluster::CategoryKey(DashCate::Guest.name());
    const Status scanned = snapshot.Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
      if (key.size() > prefix.size()) LookAt(key.substr(prefix.size() + 1), value.text);
      return true;
    });
    if (!scanned) return scanned.error();
    std::vector<std::string> names;
    for (const std::string& segment : guests_) {
      const std::string id = store::DecodeSegment(segment).value_or(segment);
      const auto guest = cluster::ReadNamedRecord(snapshot, DashCate::Guest.name(), id);
      if (!guest) return guest.error();
      names.push_back("'" + (*guest ? cluster::ShownName(**guest) : cluster::LogText(id, kShownName)) + "'");
    }
    return names;
  }

 private:
  // `rest` is the key behind the category. The drives are a member of the guest's record, or have a key of their own.
  void LookAt(std::string_view rest, std::string_view text) {
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos || !MayName(text)) return;
    const std::string_view name = rest.substr(slash + 1);
    if (name != keys::object && name != keys::iso_images) return;
    const Result<Json::Value> parsed = ParseJson(text);
    // A damaged record names nothing that anybody could use.
    if (!parsed) return;
    const Json::Value& images = name == keys::object ? json::Member(*parsed, keys::iso_images) : *parsed;
    for (const Json::Value& image : json::Elements(images)) {
      if (IsIt(image)) guests_.insert(std::string(rest.substr(0, slash)));
    }
  }

  // Decided without parsing. What is behind an escape may be anything.
  bool MayName(std::string_view text) const {
    return text.find(id_) != std::string_view::npos || text.find('\\') != std::string_view::npos ||
           (!file_name_.empty() && text.find(file_name_) != std::string_view::npos);
  }

  bool IsIt(const Json::Value& image) const {
    if (!image.isString()) return false;
    const std::string text = json::String(image);
    return text == id_ || (path_ && NormalPath(text) == path_);
  }

  const std::string id_;
  const std::optional<std::string> path_;
  std::string file_name_;
  std::set<std::string> guests_;  // their ids as in keys
};

Result<store::Transaction> PlanRemoval(const store::Snapshot& snapshot, const std::string& id, std::string& name,
                                       Refused& refused) {
  store::Transaction transaction;
  name.clear();
  const auto image = cluster::ReadNamedRecord(snapshot, kImageCategory, id);
  if (!image) return image.error();
  if (!*image) {
    refused = Refusal{kUnreadable, "There is no image '" + cluster::LogText(id, kShownName) + "'"};
    return transaction;
  }
  name = cluster::ShownName(**image);
  const auto guests = DriveSearch(**image).Find(snapshot);
  if (!guests) return guests.error();
  if (!guests->empty()) {
    refused = Refusal{kRecordInUse, "The image '" + name + "' is in a drive of these guests: " +
                                        cluster::ListOfUsers(*guests) + ". Take it out of the drives first"};
    return transaction;
  }
  // A guest that gets the image meanwhile makes this commit a conflict.
  const Result<store::Revision> files = FilesRevision(snapshot);
  if (!files) return files.error();
  transaction.compares.push_back({FilesKey(), *files});
  const Status removed = cluster::RemoveNamedRecord(snapshot, kImageCategory, **image, transaction);
  if (!removed) return removed.error();
  return transaction;
}

}  // namespace

Status CheckImage(const NewImage& image) {
  if (!cluster::IsRecordName(image.name)) {
    return Error(ErrorCode::kInvalid, "An image's name is 1 to 128 bytes of UTF-8 without control characters");
  }
  if (!image.id.empty() && NormalizeUuid(image.id).empty()) {
    return Error(ErrorCode::kInvalid, "'" + cluster::LogText(image.id, kShownName) + "' is not a UUID");
  }
  if (!IsPath(image.path)) {
    return Error(ErrorCode::kInvalid, "'" + cluster::ShownPath(image.path) +
                                          "' cannot be the path of an image: give an absolute path of up to 4096 "
                                          "bytes of UTF-8 without control characters");
  }
  return {};
}

Refused AddImage(store::Store& store, const std::vector<std::string>& roots, const NewImage& image, std::string& id) {
  cluster::RequestScope::ReleaseSnapshot();
  if (!IsRegularFileBelow(roots, image.path)) {
    return Refusal{kNotAnImage, "'" + cluster::ShownPath(image.path) + "' leads to no regular file below " +
                                    JoinPaths(roots) + " without '.', '..' and symbolic links"};
  }
  id = NormalizeUuid(image.id);
  if (id.empty()) {
    Result<std::string> made = RandomUuid();
    if (!made) return Refusal{cluster::kRecordFailed, made.error().ToString()};
    id = std::move(*made);
  }
  return cluster::CommitRecord(store, [&](const store::Snapshot& snapshot, Refused& refused) {
    return PlanAddition(snapshot, image, id, refused);
  });
}

Result<std::vector<ListedImage>> ListImages(const store::Store& store) {
  cluster::RequestScope::ReleaseSnapshot();
  std::vector<ListedImage> images;
  {
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    auto all = cluster::ReadNamedRecords(**snapshot, kImageCategory);
    if (!all) return all.error();
    for (NamedRecord& image : *all) {
      images.push_back(
          {std::move(image.id), std::move(image.name), json::TextMember(image.record, cluster::kImagePath), {}});
    }
  }
  for (ListedImage& image : images) image.size = SizeOfFile(image.path);
  return images;
}

Refused RemoveImage(store::Store& store, const std::string& id, std::string& name) {
  return cluster::CommitRecord(store, [&](const store::Snapshot& snapshot, Refused& refused) {
    return PlanRemoval(snapshot, id, name, refused);
  });
}

}  // namespace vexa::guests
