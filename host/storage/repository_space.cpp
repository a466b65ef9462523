#include "host/storage/repository_space.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/base/byte_text.h"
#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::storage {
namespace {

using VexaCCC::DB::DashCate;

constexpr char kTotal[] = "total";
constexpr char kUsed[] = "used";
constexpr char kFree[] = "free";
constexpr char kSoft[] = "soft_percent";
constexpr char kHard[] = "hard_percent";
constexpr char kHeadroom[] = "headroom_gib";
constexpr unsigned kMaxPercent = 100;
constexpr std::uint64_t kGib = std::uint64_t{1} << 30;
constexpr std::uint64_t kSmallestChange = std::uint64_t{1} << 20;

std::string Key(const std::string& repository_id, const char* member) {
  return records::MemberKey(DashCate::Repository.name(), repository_id, member);
}

Json::Value Parsed(const std::optional<store::ValueView>& value) {
  if (!value) return Json::Value();
  const Result<Json::Value> parsed = ParseJson(value->text);
  return parsed && parsed->isObject() ? *parsed : Json::Value();
}

std::optional<unsigned> PercentAt(const Json::Value& record, const char* name) {
  const Json::Value& value = json::Member(record, name);
  if (!value.isUInt64() || json::UInt64(value) > kMaxPercent) return std::nullopt;
  return static_cast<unsigned>(json::UInt64(value));
}

Json::Value ToRecord(const RepositorySpace& space) {
  Json::Value record(Json::objectValue);
  record[keys::host_id] = space.host_id;
  record[kTotal] = Json::UInt64{space.total};
  record[kUsed] = Json::UInt64{space.used};
  record[kFree] = Json::UInt64{space.free};
  record[kSoft] = space.limits.warning_percent;
  record[kHard] = space.limits.full_percent;
  record[kHeadroom] = Json::UInt64{space.limits.headroom_gib};
  return record;
}

RepositorySpace FromRecord(const Json::Value& record) {
  RepositorySpace space;
  space.host_id = json::StringMember(record, keys::host_id);
  space.total = json::UInt64(json::Member(record, kTotal));
  space.used = json::UInt64(json::Member(record, kUsed));
  space.free = json::UInt64(json::Member(record, kFree));
  space.limits.warning_percent = PercentAt(record, kSoft).value_or(0);
  space.limits.full_percent = PercentAt(record, kHard).value_or(0);
  space.limits.headroom_gib = json::UInt64(json::Member(record, kHeadroom));
  return space;
}

bool IsNearlySame(const RepositorySpace& one, const RepositorySpace& other) {
  const std::uint64_t allowed = std::max(kSmallestChange, other.total / 1000);
  const auto is_near = [&](std::uint64_t a, std::uint64_t b) { return (a > b ? a - b : b - a) < allowed; };
  // Where file systems share a pool of disks, the total of one changes with what is written to others.
  return one.host_id == other.host_id && is_near(one.total, other.total) && is_near(one.used, other.used) &&
         is_near(one.free, other.free) && one.limits.warning_percent == other.limits.warning_percent &&
         one.limits.full_percent == other.limits.full_percent && one.limits.headroom_gib == other.limits.headroom_gib;
}

}  // namespace

std::string SpaceKey(const std::string& repository_id) { return Key(repository_id, "space"); }
std::string LimitsKey(const std::string& repository_id) { return Key(repository_id, "limits"); }

std::optional<RepositorySpace> SumOf(const std::vector<FolderCondition>& conditions) {
  std::optional<RepositorySpace> sum;
  for (const FolderCondition& condition : conditions) {
    if (condition.error_number != 0) continue;
    if (!sum) sum.emplace();
    sum->used += condition.used;
    sum->free += condition.available;
    sum->total += condition.used + condition.available;
  }
  return sum;
}

Result<std::optional<RepositorySpace>> ReadSpace(const store::Snapshot& snapshot, const std::string& repository_id,
                                                 const std::string& host_id) {
  const auto value = snapshot.Get(SpaceKey(repository_id));
  if (!value) return value.error();
  const RepositorySpace space = FromRecord(Parsed(*value));
  if (space.total == 0 || space.host_id != host_id) return std::optional<RepositorySpace>();
  return std::optional(space);
}

Status WriteSpace(store::Store& store, const std::string& repository_id, const RepositorySpace& space) {
  return records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    store::Transaction transaction;
    const std::string object_key = records::ObjectKey(DashCate::Repository.name(), repository_id);
    const auto object = reader.Get(object_key);
    if (!object) return object.error();
    const auto value = reader.Get(SpaceKey(repository_id));
    if (!value) return value.error();
    if (!object->has_value() || IsNearlySame(FromRecord(Parsed(*value)), space)) return transaction;
    transaction.compares.push_back({object_key, (*object)->revision});
    transaction.operations.push_back({SpaceKey(repository_id), json::ToText(ToRecord(space))});
    return transaction;
  });
}

Result<SpaceLimits> LimitsOf(const store::Snapshot& snapshot, const std::string& repository_id,
                             const SpaceLimits& defaults) {
  const auto value = snapshot.Get(LimitsKey(repository_id));
  if (!value) return value.error();
  const Json::Value record = Parsed(*value);
  const std::optional<unsigned> soft = PercentAt(record, kSoft);
  const std::optional<unsigned> hard = PercentAt(record, kHard);
  SpaceLimits limits = defaults;
  if (soft) limits.warning_percent = *soft;
  if (hard) limits.full_percent = *hard;
  limits.is_own_warning = soft.has_value();
  limits.is_own_full = hard.has_value();
  if (soft && hard) limits.headroom_gib = 0;
  return limits;
}

Result<void, Refusal> SetLimits(store::Store& store, const std::string& id, const NewLimits& limits,
                                std::string& name) {
  name.clear();
  const unsigned soft = limits.soft_percent.value_or(0);
  const unsigned hard = limits.hard_percent.value_or(0);
  if (soft > kMaxPercent || hard > kMaxPercent || (hard != 0 && soft > hard)) {
    return Refusal{user_error::kBadParameter,
                   "Limits are percentages from 0 to 100, and the soft one is not above the hard one"};
  }
  return records::CommitRecord(
      store, [&](const records::Reader& reader, std::optional<Refusal>& refused) -> Result<store::Transaction> {
        store::Transaction transaction;
        const auto repository = records::ReadNamedRecord(reader, DashCate::Repository.name(), id);
        if (!repository) return repository.error();
        if (!*repository) {
          refused = Refusal{host_error::kNotFoundOrUnreadable,
                            fmt::format("There is no repository '{}'", SanitizeForLog(id, records::kMaxRecordName))};
          return transaction;
        }
        name = records::DisplayName(**repository);
        Json::Value record(Json::objectValue);
        if (limits.soft_percent) record[kSoft] = soft;
        if (limits.hard_percent) record[kHard] = hard;
        transaction.compares.push_back({records::ObjectKey(DashCate::Repository.name(), id), (*repository)->revision});
        std::optional<std::string> text;
        if (!record.empty()) text = json::ToText(record);
        transaction.operations.push_back({LimitsKey(id), std::move(text)});
        return transaction;
      });
}

std::optional<std::string> WhyFull(const FolderCondition& condition, const SpaceLimits& limits) {
  if (condition.error_number != 0 || limits.full_percent == 0) return std::nullopt;
  const auto used = static_cast<double>(condition.used);
  const auto available = static_cast<double>(condition.available);
  const std::uint64_t headroom_gib = limits.full_headroom_gib();
  const bool has_headroom = headroom_gib != 0 && available > static_cast<double>(headroom_gib * kGib);
  if (has_headroom || used * kMaxPercent < (used + available) * limits.full_percent) return std::nullopt;
  return fmt::format("{} of {} are used in the file system of the folder {}, and its limit is {} %",
                     ByteText(condition.used), ByteText(condition.used + condition.available),
                     QuotedPath(condition.folder), limits.full_percent);
}

}  // namespace vexa::storage
