#include "host/guests/jobs/job_record.h"

#include <fmt/format.h>

#include <string_view>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
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
constexpr std::size_t kMaxLoggedNameBytes = 256;

std::optional<JobRecord> ParseRecord(const JobKind& kind, std::string_view text, const std::string& guest_id) {
  const Result<Json::Value> parsed = ParseJson(text);
  if (!parsed) return std::nullopt;
  JobRecord record;
  record.host_id = json::StringMember(*parsed, kHostId);
  record.user = json::StringMember(*parsed, kUser);
  record.request_id = json::StringMember(*parsed, kRequestId);
  record.since = records::TimeFromJson(json::Member(*parsed, kSince));
  const std::string stage = json::StringMember(*parsed, kStage);
  if (record.host_id.empty() || (stage != kind.changing_stage && stage != kPurging)) return std::nullopt;
  record.stage = stage == kPurging ? JobStage::kPurging : JobStage::kChanging;
  std::optional<FileIntent> files = kind.parse_files(*parsed, guest_id);
  if (!files) return std::nullopt;
  record.files = std::move(*files);
  record.files.repository_id = json::StringMember(*parsed, kRepositoryId);
  record.files.storage = storage::FolderChainFromJson(json::Member(*parsed, kStorage));
  return record;
}

}  // namespace

std::string SerializeJob(const JobKind& kind, const JobRecord& record) {
  Json::Value object(Json::objectValue);
  object[kHostId] = record.host_id;
  object[kUser] = record.user;
  object[kRequestId] = record.request_id;
  const auto since = std::chrono::duration_cast<std::chrono::seconds>(record.since.time_since_epoch());
  object[kSince] = static_cast<Json::Int64>(since.count());
  object[kStage] = record.stage == JobStage::kChanging ? kind.changing_stage : kPurging;
  kind.put_files(record.files, object);
  if (!record.files.repository_id.empty()) object[kRepositoryId] = record.files.repository_id;
  if (!record.files.storage.empty()) object[kStorage] = storage::FolderChainJson(record.files.storage);
  return json::ToText(object);
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
  if (!job.record)
    return {host_error::kBusy, fmt::format("{}, but the record of the {} is damaged", kind.busy_sentence, kind.noun)};
  const JobRecord& record = *job.record;
  const std::string since = FormatUtcTime(record.since);
  if (record.user.empty()) {
    return {host_error::kBusy, fmt::format("{} (started by the host '{}' at {})", kind.busy_sentence,
                                           SanitizeForLog(record.host_id, kMaxLoggedNameBytes), since)};
  }
  return {host_error::kBusy, fmt::format("{} (started by '{}' at {})", kind.busy_sentence,
                                         SanitizeForLog(record.user, kMaxLoggedNameBytes), since)};
}

}  // namespace vexa::guests
