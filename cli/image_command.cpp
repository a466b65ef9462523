#include "cli/image_command.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <ostream>
#include <system_error>
#include <utility>

#include "cli/listing.h"
#include "cli/printable.h"
#include "host/base/json_parse.h"
#include "host/base/rooted_file.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_xml.h"
#include "host/records/guest_image.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::cli {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::size_t kMaxName = 128;

std::string ImageKey(const std::string& id) { return store::MakeKey({"dash", cluster::kImageCategory, id, "object"}); }

// With their ids; a record that cannot be read is an empty object.
Result<std::vector<std::pair<std::string, Json::Value>>> ReadAll(const store::Snapshot& snapshot) {
  const auto ids = snapshot.Children(store::MakeKey({"dash", cluster::kImageCategory}));
  if (!ids) return ids.error();
  std::vector<std::pair<std::string, Json::Value>> all;
  for (const std::string& id : *ids) {
    const auto value = snapshot.Get(ImageKey(id));
    if (!value) return value.error();
    if (!value->has_value()) continue;
    Result<Json::Value> record = ParseJson((*value)->text);
    all.emplace_back(id, record && record->isObject() ? std::move(*record) : Json::Value(Json::objectValue));
  }
  return all;
}

bool IsPlain(const std::string& text) {
  return IsValidUtf8(text) && std::ranges::none_of(text, [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

Status CheckWords(const NewImage& image) {
  if (image.name.empty() || image.name.size() > kMaxName || !IsPlain(image.name)) {
    return Error(ErrorCode::kInvalid, "An image's name is 1 to 128 bytes of UTF-8 without control characters");
  }
  if (!image.id.empty() && !IsUuidForm(image.id)) return Error(ErrorCode::kInvalid, "'" + image.id + "' is no UUID");
  for (const std::string& root : image.roots) {
    if (!root.starts_with('/')) return Error(ErrorCode::kInvalid, "'" + root + "' is no absolute path");
  }
  return {};
}

std::string JoinPaths(const std::vector<std::string>& paths) {
  std::string joined;
  for (const std::string& path : paths) joined += (joined.empty() ? "'" : ", '") + path + "'";
  return joined;
}

// The absolute path of the file. "." and ".." are not resolved, and lead nowhere.
Result<std::string> FindFile(const NewImage& image) {
  std::error_code failed;
  const std::string path = std::filesystem::absolute(image.path, failed);
  if (image.path.empty() || failed || path.size() > cluster::kMaxImagePathBytes || !IsPlain(path)) {
    return Error(ErrorCode::kInvalid, "'" + image.path + "' is no path of an image: give up to " +
                                          std::to_string(cluster::kMaxImagePathBytes) +
                                          " bytes of UTF-8 without control characters");
  }
  if (IsRegularFileBelow(image.roots, path)) return path;
  return Error(ErrorCode::kInvalid, "'" + path + "' leads to no regular file below " + JoinPaths(image.roots) +
                                        " without '.', '..' and symbolic links");
}

std::optional<std::uint64_t> SizeOfFile(const std::string& path) {
  struct stat info {};
  if (path.empty() || ::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return static_cast<std::uint64_t>(info.st_size);
}

}  // namespace

Status AddImage(const NewImage& image, store::Store& store, std::ostream& out) {
  if (Status checked = CheckWords(image); !checked) return checked;
  const Result<std::string> path = FindFile(image);
  if (!path) return path.error();
  std::string id = NormalizeUuid(image.id);
  if (id.empty()) {
    Result<std::string> made = RandomUuid();
    if (!made) return made.error();
    id = std::move(*made);
  }
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const auto all = ReadAll(**snapshot);
  if (!all) return all.error();
  for (const auto& [other, record] : *all) {
    if (other == id) return Error(ErrorCode::kConflict, "There is an image '" + id + "' already");
    if (json::Member(record, "name") == Json::Value(image.name)) {
      return Error(ErrorCode::kConflict, "The image '" + other + "' has the name '" + image.name + "'");
    }
    if (json::Member(record, cluster::kImagePath) == Json::Value(*path)) {
      return Error(ErrorCode::kConflict, "The image '" + other + "' is the file '" + *path + "' already");
    }
  }
  Json::Value record(Json::objectValue);
  record["name"] = image.name;
  record[cluster::kImagePath] = *path;
  store::Transaction transaction;
  transaction.compares.push_back({ImageKey(id), 0});
  transaction.operations.push_back({ImageKey(id), json::ToText(record)});
  // Who removes or changes a file is to see that it is an image now.
  transaction.operations.push_back({guests::FilesKey(), json::ToText(Json::Value(id))});
  const auto committed = store.Commit(transaction);
  if (!committed) return committed.error();
  out << id << '\n';
  return {};
}

Status ListImages(store::Store& store, ImageForm form, std::ostream& out) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  auto all = ReadAll(**snapshot);
  if (!all) return all.error();
  Json::Value list(Json::arrayValue);
  Table table{{"IMAGE", "NAME", "BYTES", "PRESENT", "PATH"}, {}};
  for (auto& [id, record] : *all) {
    const std::string path = json::String(json::Member(record, cluster::kImagePath));
    const std::optional<std::uint64_t> size = SizeOfFile(path);
    table.rows.push_back({id, json::String(json::Member(record, "name")), size ? std::to_string(*size) : "-",
                          size ? "yes" : "no", path});
    record["image_id"] = id;
    record["present"] = size.has_value();
    if (size) record["size"] = static_cast<Json::UInt64>(*size);
    list.append(std::move(record));
  }
  if (form == ImageForm::kJson) {
    out << json::ToText(list) << '\n';
  } else {
    PrintTable(out, table);
  }
  return {};
}

}  // namespace vexa::cli
