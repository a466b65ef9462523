#include "host/records/live_state.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "host/base/json_parse.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/unstored_states.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {
namespace {

namespace states = VexaCCC::State::Guest;
using std::chrono::system_clock;

constexpr char kSequences[] = "sequences";
constexpr char kEpoch[] = "epoch";
constexpr char kCounter[] = "counter";

std::string GuestKey(const std::string& guest_id, std::string_view key) {
  return MemberKey(VexaCCC::DB::DashCate::Guest.name(), guest_id, key);
}

bool IsGuestState(std::string_view state) {
  const std::array<std::string_view, 15> all{
      states::creating, states::importing,      states::running,   states::shutdown,   states::booting,
      states::moving,   states::stor_migrating, states::preparing, states::ha_standby, states::shutting_down,
      states::saved,    states::inaccessible,   states::crashed,   states::unknown,    states::freeze};
  return std::ranges::find(all, state) != all.end();
}

Json::Int64 ToSeconds(system_clock::duration time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time).count();
}

// Like LoadObject, but a damaged record is loaded as empty, to be replaced.
Result<StoredObject> LoadOrEmpty(const store::Snapshot& snapshot, const std::string& key) {
  const auto value = snapshot.Get(key);
  if (!value) return value.error();
  StoredObject stored;
  if (!value->has_value()) return stored;
  stored.revision = (*value)->revision;
  Result<Json::Value> parsed = ParseJson((*value)->text);
  if (parsed && parsed->isObject()) stored.record = std::move(*parsed);
  return stored;
}

Sequence SequenceOf(const Json::Value& live, const std::string& host_id) {
  const Json::Value& sequence = json::Member(json::Member(live, kSequences), host_id);
  return {json::UInt64(json::Member(sequence, kEpoch)), json::UInt64(json::Member(sequence, kCounter))};
}

// Whether the observation is to be stored, according to the guest's record and earlier observations.
ObserveResult Classify(const Json::Value& guest, const Json::Value& live, const Observation& observation) {
  std::string reporting_host_id = json::StringMember(guest, keys::host_id);
  if (reporting_host_id.empty()) reporting_host_id = json::StringMember(live, keys::host_id);
  if (!reporting_host_id.empty() && reporting_host_id != observation.host_id) return ObserveResult::kNotOurs;
  return SequenceOf(live, observation.host_id) < observation.sequence ? ObserveResult::kStored
                                                                      : ObserveResult::kOutdated;
}

// Not while the guest is booting: when the start fails, the guest is off again for the same reason as before.
bool ClearsShutdownReason(const std::string& state) {
  return VexaCCC::Utils::IsGuestStateOnline(state) && state != states::booting;
}

void ApplyObservation(Json::Value& live, const Observation& observation) {
  if (observation.shutdown) {
    live[kShutdownMember] = ShutdownToJson(*observation.shutdown);
  } else if (ClearsShutdownReason(observation.state)) {
    live.removeMember(kShutdownMember);
  }
  live[keys::host_id] = observation.host_id;
  live["time"] = ToSeconds(observation.time.time_since_epoch());
  Json::Value& sequence = json::EnsureObject(json::EnsureObject(live[kSequences])[observation.host_id]);
  sequence[kEpoch] = static_cast<Json::UInt64>(observation.sequence.epoch);
  sequence[kCounter] = static_cast<Json::UInt64>(observation.sequence.counter);
}

// The transaction that stores the observation; empty unless `outcome` becomes kStored.
Result<store::Transaction> Plan(const Reader& reader, const std::string& guest_id, const Observation& observation,
                                ObserveResult& outcome) {
  const std::string guest_key = GuestKey(guest_id, keys::object);
  const Result<StoredObject> guest = LoadObject(reader, guest_key);
  if (!guest) return guest.error();
  if (guest->revision == 0) return Error(ErrorCode::kNotFound, "There is no such guest");
  Result<StoredObject> live = LoadOrEmpty(reader, LiveRecordKey(guest_id));
  if (!live) return live.error();
  const auto state_before = reader.Get(LiveStateKey(guest_id));
  if (!state_before) return state_before.error();
  store::Transaction transaction;
  outcome = Classify(guest->record, live->record, observation);
  if (outcome != ObserveResult::kStored) return transaction;
  // The guest's record decides whether the guest exists and which host it belongs to.
  transaction.compares.push_back({guest_key, guest->revision});
  if (observation.guard) {
    const auto guard = reader.Get(observation.guard->key);
    if (!guard) return guard.error();
    if (!*guard || (*guard)->revision != observation.guard->revision) {
      return Error(ErrorCode::kDenied, "Other hosts considered this host gone meanwhile");
    }
    transaction.compares.push_back(*observation.guard);
  }
  const Json::Value reason_before = json::Member(live->record, "shutdown");
  ApplyObservation(live->record, observation);
  PutObject(transaction, LiveRecordKey(guest_id), *live);
  std::string text = json::ToText(observation.state);
  // Watchers of the state are notified only of changes, including changes of the reason.
  const bool is_same = state_before->has_value() && (*state_before)->text == text &&
                       reason_before == json::Member(live->record, "shutdown");
  if (!is_same) transaction.operations.push_back({LiveStateKey(guest_id), std::move(text)});
  return transaction;
}

}  // namespace

Result<ObserveResult> Observe(store::Store& store, const std::string& guest_id, const Observation& observation) {
  if (!IsGuestState(observation.state))
    return Error(ErrorCode::kInvalid, "The observed state is not a state of guests");
  if (observation.host_id.empty() || !IsValidUtf8(observation.host_id)) {
    return Error(ErrorCode::kInvalid, "An observation needs the id of the host that made it");
  }
  ObserveResult outcome = ObserveResult::kStored;
  const Status committed =
      CommitWithRetry(store, [&](const Reader& reader) { return Plan(reader, guest_id, observation, outcome); });
  if (committed) {
    ClearUnstoredState(guest_id);
    return outcome;
  }
  if (outcome == ObserveResult::kStored && store.health() == store::Health::kInaccessible) {
    SetUnstoredState(guest_id, observation.state);
  }
  return committed.error();
}

Result<std::uint64_t> StartEpoch(store::Store& store, const std::string& host_id, system_clock::time_point now) {
  const std::string key = store::MakeKey({"live_epoch", host_id});
  const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
  const std::uint64_t clock = since > 0 ? static_cast<std::uint64_t>(since) : 0;
  std::uint64_t epoch = 0;
  const Status committed = CommitWithRetry(store, [&](const Reader& reader) -> Result<store::Transaction> {
    Result<StoredObject> stored = LoadOrEmpty(reader, key);
    if (!stored) return stored.error();
    epoch = std::max(json::UInt64(json::Member(stored->record, kEpoch)) + 1, clock);
    stored->record[kEpoch] = static_cast<Json::UInt64>(epoch);
    store::Transaction transaction;
    PutObject(transaction, key, *stored);
    return transaction;
  });
  if (!committed) return committed.error();
  return epoch;
}

}  // namespace vexa::records
