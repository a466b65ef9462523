#include "host/guests/creation/request_record.h"

#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>
#include <vector>

#include "host/base/json_parse.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

using std::chrono::system_clock;

constexpr std::size_t kMaxIdBytes = 64;
constexpr char kMethod[] = "method";
constexpr char kDigest[] = "digest";
constexpr char kGuestId[] = "guest_id";
constexpr char kState[] = "state";
constexpr char kSince[] = "since";
constexpr char kAnswer[] = "answer";
constexpr char kCode[] = "code";
constexpr char kReasonMember[] = "reason";

constexpr std::array<std::pair<RequestState, std::string_view>, 3> kStates{
    {{RequestState::kDoing, "doing"}, {RequestState::kDone, "done"}, {RequestState::kFailed, "failed"}}};

std::optional<RequestRecord> Parse(std::string_view text) {
  const Result<Json::Value> parsed = ParseJson(text);
  if (!parsed) return std::nullopt;
  RequestRecord record;
  const std::string state = json::StringMember(*parsed, kState);
  const auto* const known = std::ranges::find(kStates, state, &std::pair<RequestState, std::string_view>::second);
  if (known == kStates.end()) return std::nullopt;
  record.state = known->first;
  record.method = json::StringMember(*parsed, kMethod);
  record.digest = json::StringMember(*parsed, kDigest);
  record.guest_id = json::StringMember(*parsed, kGuestId);
  record.since = records::TimeFromJson(json::Member(*parsed, kSince));
  record.answer = json::Member(*parsed, kAnswer);
  record.refusal = Refusal{json::Int(json::Member(*parsed, kCode)), json::StringMember(*parsed, kReasonMember)};
  if (record.state == RequestState::kFailed && record.refusal.code == 0) return std::nullopt;
  return record;
}

// A time in the future counts as now: the clock may have been set back.
bool IsOld(const RequestRecord& record, system_clock::time_point now) { return now - record.since > kRequestLifetime; }

}  // namespace

bool IsRequestId(const std::string& text) {
  return !text.empty() && text.size() <= kMaxIdBytes && std::ranges::all_of(text, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
  });
}

std::string RequestKey(const std::string& owner, const std::string& id) {
  return store::MakeKey({"request", owner, id});
}

std::string SerializeRequest(const RequestRecord& record) {
  Json::Value object(Json::objectValue);
  object[kMethod] = record.method;
  object[kDigest] = record.digest;
  object[kGuestId] = record.guest_id;
  object[kState] = std::string(kStates[static_cast<std::size_t>(record.state)].second);
  const auto since = std::chrono::duration_cast<std::chrono::seconds>(record.since.time_since_epoch());
  object[kSince] = static_cast<Json::Int64>(since.count());
  if (record.state == RequestState::kDone) object[kAnswer] = record.answer;
  if (record.state == RequestState::kFailed) {
    object[kCode] = record.refusal.code;
    object[kReasonMember] = record.refusal.reason;
  }
  return json::ToText(object);
}

Result<StoredRequest> ReadRequest(const store::Snapshot& snapshot, const std::string& owner, const std::string& id,
                                  system_clock::time_point now) {
  const auto value = snapshot.Get(RequestKey(owner, id));
  if (!value) return value.error();
  if (!value->has_value()) return StoredRequest();
  StoredRequest stored{(*value)->revision, Parse((*value)->text)};
  // A job in progress may take longer than a day.
  if (stored.record && stored.record->state != RequestState::kDoing && IsOld(*stored.record, now)) {
    stored.record.reset();
  }
  return stored;
}

FirstOutcome OutcomeOf(const NumberedRequest& request, const StoredRequest& stored) {
  if (!stored.record) return std::nullopt;
  if (stored.record->digest != request.digest) {
    return Result<Json::Value, Refusal>(
        Refusal{host_error::kBadParameter,
                fmt::format("The parameter 'request_id' is '{}', which was used for a request with other parameters",
                            request.id)});
  }
  switch (stored.record->state) {
    case RequestState::kDone:
      return Result<Json::Value, Refusal>(stored.record->answer);
    case RequestState::kFailed:
      return Result<Json::Value, Refusal>(stored.record->refusal);
    case RequestState::kDoing:
      break;
  }
  return std::nullopt;
}

Result<bool> AddNewRequest(const store::Snapshot& snapshot, const NumberedRequest& request, const StoredRequest& stored,
                           const RequestRecord& record, store::Transaction& transaction) {
  struct Other {
    std::string key;
    store::Revision revision = 0;
    bool is_removable = true;
    system_clock::time_point since;
  };
  const std::string own_key = RequestKey(request.owner, request.id);
  const std::string prefix = store::MakeKey({"request", request.owner});
  std::vector<Other> others;
  const Status scanned = snapshot.Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
    if (key == own_key || !key.starts_with(prefix + "/")) return true;
    const std::optional<RequestRecord> parsed = Parse(value.text);
    const bool is_doing = parsed && parsed->state == RequestState::kDoing;
    others.push_back(
        {std::string(key), value.revision, !is_doing, parsed ? parsed->since : system_clock::time_point()});
    return true;
  });
  if (!scanned) return scanned.error();
  // Those in progress first, then the newest first: what is at the end is removed.
  std::ranges::sort(others, [](const Other& a, const Other& b) {
    return std::pair(a.is_removable, b.since) < std::pair(b.is_removable, a.since);
  });
  std::size_t kept = 0;
  for (const Other& other : others) {
    const bool is_old = record.since - other.since > kRequestLifetime;
    if (!other.is_removable && kept + 1 >= kMaxRequestsOfCaller) return false;
    if (!other.is_removable || (kept + 1 < kMaxRequestsOfCaller && !is_old)) {
      ++kept;
      continue;
    }
    transaction.compares.push_back({other.key, other.revision});
    transaction.operations.push_back({other.key, std::nullopt});
  }
  transaction.compares.push_back({own_key, stored.revision});
  transaction.operations.push_back({own_key, SerializeRequest(record)});
  return true;
}

void ReplaceAnswer(store::Store& store, const NumberedRequest& request, const Json::Value& answer) {
  const Status replaced =
      records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
        const auto stored = ReadRequest(reader, request.owner, request.id, system_clock::now());
        if (!stored) return stored.error();
        store::Transaction transaction;
        if (!stored->record || stored->record->state != RequestState::kDone) return transaction;
        RequestRecord record = *stored->record;
        record.answer = answer;
        const std::string key = RequestKey(request.owner, request.id);
        transaction.compares.push_back({key, stored->revision});
        transaction.operations.push_back({key, SerializeRequest(record)});
        return transaction;
      });
  if (replaced) return;
  ::syslog(LOG_WARNING, "The answer of the request[%s] could not be updated: %s", request.id.c_str(),
           replaced.error().ToString().c_str());
}

}  // namespace vexa::guests
