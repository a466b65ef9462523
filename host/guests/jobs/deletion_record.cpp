#include "host/guests/jobs/deletion_record.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "host/base/json_parse.h"
#include "host/base/log_text.h"
#include "host/base/time_text.h"
#include "host/disks/disk_files.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

using std::chrono::system_clock;

constexpr char kHostId[] = "host_id";
constexpr char kUser[] = "user";
constexpr char kRequestId[] = "request_id";
constexpr char kSince[] = "since";
constexpr char kStage[] = "stage";
constexpr char kFiles[] = "files";
constexpr char kPath[] = "path";
constexpr char kHidden[] = "hidden";
constexpr char kRepositoryId[] = "repository_id";
constexpr char kStorage[] = "storage";
constexpr char kHiding[] = "hiding";
constexpr char kPurging[] = "purging";

constexpr std::size_t kShownName = 256;

std::string Text(const Json::Value& value) { return value.isString() ? json::String(value) : std::string(); }

std::string PrefixOf(const std::string& guest_id) {
  return std::string(kHiddenPrefix) + store::EncodeSegment(guest_id) + "-";
}

// The name is used in the file system, so it must be one that HiddenName returns for this guest.
std::optional<HiddenFile> ParseFile(const Json::Value& value, const std::string& prefix) {
  const std::optional<std::string> path = NormalPath(Text(json::Member(value, kPath)));
  std::string hidden = Text(json::Member(value, kHidden));
  if (!path || *path != Text(json::Member(value, kPath)) || !hidden.starts_with(prefix)) return std::nullopt;
  const std::string_view index = std::string_view(hidden).substr(prefix.size());
  const bool is_number = !index.empty() && std::ranges::all_of(index, [](char c) { return c >= '0' && c <= '9'; });
  if (!is_number) return std::nullopt;
  return HiddenFile{*path, std::move(hidden)};
}

std::optional<DeletionRecord> ParseDeletion(std::string_view text, const std::string& guest_id) {
  const Result<Json::Value> parsed = ParseJson(text);
  if (!parsed) return std::nullopt;
  DeletionRecord record;
  record.host_id = Text(json::Member(*parsed, kHostId));
  record.user = Text(json::Member(*parsed, kUser));
  record.request_id = Text(json::Member(*parsed, kRequestId));
  record.since = StoredTime(json::Member(*parsed, kSince));
  const std::string stage = Text(json::Member(*parsed, kStage));
  if (record.host_id.empty() || (stage != kHiding && stage != kPurging)) return std::nullopt;
  record.stage = stage == kHiding ? DeletionStage::kHiding : DeletionStage::kPurging;
  const Json::Value& files = json::Member(*parsed, kFiles);
  if (!files.isArray()) return std::nullopt;
  const std::string prefix = PrefixOf(guest_id);
  for (const Json::Value& element : files) {
    std::optional<HiddenFile> file = ParseFile(element, prefix);
    if (!file) return std::nullopt;
    record.files.push_back(std::move(*file));
  }
  record.repository_id = Text(json::Member(*parsed, kRepositoryId));
  record.storage = TrailFromJson(json::Member(*parsed, kStorage));
  return record;
}

}  // namespace

std::string HiddenName(const std::string& guest_id, std::size_t index) {
  return PrefixOf(guest_id) + std::to_string(index);
}

std::optional<HiddenFile> ParseHiddenFile(const Json::Value& value, const std::string& guest_id) {
  return ParseFile(value, PrefixOf(guest_id));
}

std::string DeletionText(const DeletionRecord& record) {
  Json::Value text(Json::objectValue);
  text[kHostId] = record.host_id;
  text[kUser] = record.user;
  text[kRequestId] = record.request_id;
  text[kSince] = SecondsOf(record.since);
  text[kStage] = record.stage == DeletionStage::kHiding ? kHiding : kPurging;
  Json::Value& files = json::MakeArray(text[kFiles]);
  for (const HiddenFile& file : record.files) {
    Json::Value& element = files.append(Json::Value(Json::objectValue));
    element[kPath] = file.path;
    element[kHidden] = file.hidden;
  }
  if (!record.repository_id.empty()) text[kRepositoryId] = record.repository_id;
  if (!record.storage.empty()) text[kStorage] = TrailJson(record.storage);
  return json::ToText(text);
}

Result<std::optional<StoredDeletion>> ReadDeletion(const store::Snapshot& snapshot, const std::string& guest_id) {
  const auto value = snapshot.Get(DeletionKey(guest_id));
  if (!value) return value.error();
  if (!value->has_value()) return std::optional<StoredDeletion>();
  const std::string_view text = (*value)->text;
  return std::optional(StoredDeletion{(*value)->revision, std::string(text), ParseDeletion(text, guest_id)});
}

Refusal DeletedByOther(const StoredDeletion& deletion) {
  if (!deletion.record) return {kBusy, "The guest is being deleted, and the record of it is damaged"};
  const DeletionRecord& record = *deletion.record;
  const std::string who = record.user.empty() ? "by the host '" + cluster::LogText(record.host_id, kShownName) + "'"
                                              : "by '" + cluster::LogText(record.user, kShownName) + "'";
  return {kBusy, "The guest is being deleted " + who + " since " + TimeText(record.since)};
}

std::string LeftoverKey(const std::string& host_id, const std::string& guest_id) {
  return store::MakeKey({"leftover", host_id, guest_id});
}

Result<StoredLeftover> ReadLeftover(const store::Snapshot& snapshot, const std::string& host_id,
                                    const std::string& guest_id) {
  const auto value = snapshot.Get(LeftoverKey(host_id, guest_id));
  if (!value) return value.error();
  if (!value->has_value()) return StoredLeftover{0, "", std::vector<std::string>()};
  StoredLeftover stored{(*value)->revision, "", std::nullopt};
  const Result<Json::Value> parsed = ParseJson((*value)->text);
  if (!parsed || !json::Member(*parsed, kFiles).isArray()) return stored;
  std::vector<std::string> paths;
  for (const Json::Value& element : json::Elements(json::Member(*parsed, kFiles))) {
    if (!element.isString()) return stored;
    paths.push_back(json::String(element));
  }
  stored.paths = std::move(paths);
  stored.repository_id = Text(json::Member(*parsed, kRepositoryId));
  return stored;
}

std::string LeftoverText(const std::vector<std::string>& paths, const std::string& repository_id) {
  Json::Value text(Json::objectValue);
  Json::Value& files = json::MakeArray(text[kFiles]);
  for (const std::string& path : paths) files.append(path);
  if (!repository_id.empty()) text[kRepositoryId] = repository_id;
  return json::ToText(text);
}

}  // namespace vexa::guests
