#include "host/guests/jobs/job_record.h"

#include <string_view>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/log_text.h"
#include "host/base/time_text.h"
#include "host/records/run_record.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;

constexpr char kHostId[] = "host_id";
constexpr char kUser[] = "user";
constexpr char kRequestId[] = "request_id";
constexpr char kSince[] = "since";
constexpr char kStage[] = "stage";
constexpr char kStorage[] = "storage";
constexpr char kPurging[] = "purging";
constexpr std::size_t kShownName = 256;

std::optional<JobRecord> ParseRecord(const JobKind& kind, std::string_view text, const std::string& guest_id) {
  const Result<Json::Value> parsed = ParseJson(text);
  if (!parsed) return std::nullopt;
  JobRecord record;
  record.host_id = json::TextMember(*parsed, kHostId);
  record.user = json::TextMember(*parsed, kUser);
  record.request_id = json::TextMember(*parsed, kRequestId);
  record.since = StoredTime(json::Member(*parsed, kSince));
  const std::string stage = json::TextMember(*parsed, kStage);
  if (record.host_id.empty() || (stage != kind.doing && stage != kPurging)) return std::nullopt;
  record.stage = stage == kPurging ? JobStage::kPurging : JobStage::kDoing;
  std::optional<FileIntent> files = kind.parse_files(*parsed, guest_id);
  if (!files) return std::nullopt;
  record.files = std::move(*files);
  record.files.repository_id = json::TextMember(*parsed, kRepositoryId);
  record.files.storage = TrailFromJson(json::Member(*parsed, kStorage));
  return record;
}

}  // namespace

std::string JobText(const JobKind& kind, const JobRecord& record) {
  Json::Value text(Json::objectValue);
  text[kHostId] = record.host_id;
  text[kUser] = record.user;
  text[kRequestId] = record.request_id;
  const auto since = std::chrono::duration_cast<std::chrono::seconds>(record.since.time_since_epoch());
  text[kSince] = static_cast<Json::Int64>(since.count());
  text[kStage] = record.stage == JobStage::kDoing ? kind.doing : kPurging;
  kind.put_files(record.files, text);
  if (!record.files.repository_id.empty()) text[kRepositoryId] = record.files.repository_id;
  if (!record.files.storage.empty()) text[kStorage] = TrailJson(record.files.storage);
  return json::ToText(text);
}

Result<std::optional<StoredJob>> ReadJob(const store::Snapshot& snapshot, const JobKind& kind,
                                         const std::string& guest_id) {
  const auto value = snapshot.Get(kind.key(guest_id));
  if (!value) return value.error();
  if (!value->has_value()) return std::optional<StoredJob>();
  const std::string_view text = (*value)->text;
  return std::optional(StoredJob{(*value)->revision, std::string(text), ParseRecord(kind, text, guest_id)});
}

Refusal HeldByJob(const JobKind& kind, const StoredJob& job) {
  if (!job.record) return {kBusy, std::string(kind.being) + ", and the record of it is damaged"};
  const JobRecord& record = *job.record;
  const std::string who = record.user.empty() ? "by the host '" + cluster::LogText(record.host_id, kShownName) + "'"
                                              : "by '" + cluster::LogText(record.user, kShownName) + "'";
  return {kBusy, std::string(kind.being) + " " + who + " since " + TimeText(record.since)};
}

}  // namespace vexa::guests
