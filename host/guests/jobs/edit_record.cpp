#include "host/guests/jobs/edit_record.h"

#include <algorithm>
#include <string_view>

#include "host/base/json_parse.h"
#include "host/base/log_text.h"
#include "host/base/time_text.h"
#include "host/records/run_record.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

constexpr char kHostId[] = "host_id";
constexpr char kUser[] = "user";
constexpr char kRequestId[] = "request_id";
constexpr char kSince[] = "since";
constexpr char kStage[] = "stage";
constexpr char kMade[] = "made";
constexpr char kHiddenFiles[] = "hidden";
constexpr char kGrown[] = "grown";
constexpr char kPath[] = "path";
constexpr char kHidden[] = "hidden";
constexpr char kFrom[] = "from";
constexpr char kTo[] = "to";
constexpr char kRepositoryId[] = "repository_id";
constexpr char kStorage[] = "storage";
constexpr char kDoing[] = "doing";
constexpr char kPurging[] = "purging";
constexpr std::string_view kSuffixQcow2 = ".qcow2";
constexpr std::string_view kSuffixRaw = ".raw";
constexpr std::string_view kDigits = "0123456789abcdef";
constexpr std::size_t kHeadBytes = 16;
constexpr std::size_t kShownName = 256;

std::string Text(const Json::Value& value) { return value.isString() ? json::String(value) : std::string(); }

std::string ToHex(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    text += kDigits[static_cast<unsigned char>(byte) >> 4];
    text += kDigits[static_cast<unsigned char>(byte) & 0xF];
  }
  return text;
}

// Not set: it is not the head of an image.
std::optional<std::string> FromHex(const std::string& text) {
  if (text.size() != 2 * kHeadBytes) return std::nullopt;
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const std::size_t high = kDigits.find(text[i]);
    const std::size_t low = kDigits.find(text[i + 1]);
    if (high == std::string_view::npos || low == std::string_view::npos) return std::nullopt;
    bytes.push_back(static_cast<char>(high << 4 | low));
  }
  return bytes;
}

std::optional<std::string> ParsePath(const Json::Value& value) {
  std::optional<std::string> path = NormalPath(Text(value));
  if (!path || *path != Text(value)) return std::nullopt;
  return path;
}

// A file to be removed again must have been created here, according to its name.
std::optional<std::string> ParseMade(const Json::Value& value) {
  std::optional<std::string> path = ParsePath(value);
  if (!path) return std::nullopt;
  const std::string_view name = std::string_view(*path).substr(path->rfind('/') + 1);
  for (const std::string_view suffix : {kSuffixQcow2, kSuffixRaw}) {
    const bool is_made =
        name.ends_with(suffix) && VexaCCC::Utils::isUUID(std::string(name.substr(0, name.size() - suffix.size())));
    if (is_made) return path;
  }
  return std::nullopt;
}

std::optional<Growth> ParseGrowth(const Json::Value& value) {
  const std::optional<std::string> path = ParsePath(json::Member(value, kPath));
  const Json::Value& from = json::Member(value, kFrom);
  const Json::Value& to = json::Member(value, kTo);
  if (!path) return std::nullopt;
  if (from.isUInt64() && to.isUInt64()) return Growth{*path, json::UInt64(from), json::UInt64(to), {}, {}};
  std::optional<std::string> from_head = FromHex(Text(from));
  std::optional<std::string> to_head = FromHex(Text(to));
  if (!from_head || !to_head) return std::nullopt;
  return Growth{*path, 0, 0, std::move(*from_head), std::move(*to_head)};
}

Json::Value GrowthJson(const Growth& growth) {
  Json::Value value(Json::objectValue);
  value[kPath] = growth.path;
  if (growth.to_head.empty()) {
    value[kFrom] = static_cast<Json::UInt64>(growth.from_length);
    value[kTo] = static_cast<Json::UInt64>(growth.to_length);
  } else {
    value[kFrom] = ToHex(growth.from_head);
    value[kTo] = ToHex(growth.to_head);
  }
  return value;
}

// True: `parse` understood every element, and `list` contains them.
template <class Element, class Parse>
bool ParseList(const Json::Value& value, const Parse& parse, std::vector<Element>& list) {
  if (!value.isArray()) return false;
  for (const Json::Value& element : value) {
    std::optional<Element> parsed = parse(element);
    if (!parsed) return false;
    list.push_back(std::move(*parsed));
  }
  return true;
}

std::optional<EditRecord> ParseRecord(std::string_view text, const std::string& guest_id) {
  const Result<Json::Value> parsed = ParseJson(text);
  if (!parsed) return std::nullopt;
  EditRecord record;
  record.host_id = Text(json::Member(*parsed, kHostId));
  record.user = Text(json::Member(*parsed, kUser));
  record.request_id = Text(json::Member(*parsed, kRequestId));
  record.since = StoredTime(json::Member(*parsed, kSince));
  const std::string stage = Text(json::Member(*parsed, kStage));
  if (record.host_id.empty() || (stage != kDoing && stage != kPurging)) return std::nullopt;
  record.stage = stage == kDoing ? EditStage::kDoing : EditStage::kPurging;
  const auto parse_hidden = [&](const Json::Value& value) { return ParseHiddenFile(value, guest_id); };
  const bool is_whole = ParseList(json::Member(*parsed, kMade), ParseMade, record.made) &&
                        ParseList(json::Member(*parsed, kHiddenFiles), parse_hidden, record.hidden) &&
                        ParseList(json::Member(*parsed, kGrown), ParseGrowth, record.grown);
  if (!is_whole) return std::nullopt;
  record.repository_id = Text(json::Member(*parsed, kRepositoryId));
  record.storage = TrailFromJson(json::Member(*parsed, kStorage));
  return record;
}

}  // namespace

std::string ImageName(const std::string& disk_id, hypervisor::ImageFormat format) {
  return disk_id + std::string(format == hypervisor::ImageFormat::kRaw ? kSuffixRaw : kSuffixQcow2);
}

std::string EditText(const EditRecord& record) {
  Json::Value text(Json::objectValue);
  text[kHostId] = record.host_id;
  text[kUser] = record.user;
  text[kRequestId] = record.request_id;
  text[kSince] = SecondsOf(record.since);
  text[kStage] = record.stage == EditStage::kDoing ? kDoing : kPurging;
  Json::Value& made = json::MakeArray(text[kMade]);
  for (const std::string& path : record.made) made.append(path);
  Json::Value& hidden = json::MakeArray(text[kHiddenFiles]);
  for (const HiddenFile& file : record.hidden) {
    Json::Value& element = hidden.append(Json::Value(Json::objectValue));
    element[kPath] = file.path;
    element[kHidden] = file.hidden;
  }
  Json::Value& grown = json::MakeArray(text[kGrown]);
  for (const Growth& growth : record.grown) grown.append(GrowthJson(growth));
  if (!record.repository_id.empty()) text[kRepositoryId] = record.repository_id;
  if (!record.storage.empty()) text[kStorage] = TrailJson(record.storage);
  return json::ToText(text);
}

Result<std::optional<StoredEdit>> ReadEdit(const store::Snapshot& snapshot, const std::string& guest_id) {
  const auto value = snapshot.Get(EditKey(guest_id));
  if (!value) return value.error();
  if (!value->has_value()) return std::optional<StoredEdit>();
  const std::string_view text = (*value)->text;
  return std::optional(StoredEdit{(*value)->revision, std::string(text), ParseRecord(text, guest_id)});
}

Refusal EditedByOther(const StoredEdit& edit) {
  if (!edit.record) return {kBusy, "The guest is being edited, and the record of it is damaged"};
  const EditRecord& record = *edit.record;
  const std::string who = record.user.empty() ? "by the host '" + cluster::LogText(record.host_id, kShownName) + "'"
                                              : "by '" + cluster::LogText(record.user, kShownName) + "'";
  return {kBusy, "The guest is being edited " + who + " since " + TimeText(record.since)};
}

}  // namespace vexa::guests
