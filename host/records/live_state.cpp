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

namespace vexa::cluster {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
namespace states = VexaCCC::State::Guest;
using std::chrono::system_clock;

constexpr char kSequences[] = "sequences";
constexpr char kEpoch[] = "epoch";
constexpr char kCounter[] = "counter";

std::string GuestKey(const std::string& guest_id, std::string_view key) {
  return MemberKey(VexaCCC::DB::DashCate::Guest.name(), guest_id, key);
}

bool IsGuestState(std::string_view text) {
  const std::array<std::string_view, 15> all{
      states::creating, states::importing,      states::running,   states::shutdown,   states::booting,
      states::moving,   states::stor_migrating, states::preparing, states::ha_standby, states::shutting_down,
      states::saved,    states::inaccessible,   states::crashed,   states::unknown,    states::freeze};
  return std::ranges::find(all, text) != all.end();
}

Json::Int64 CountOf(system_clock::duration time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time).count();
}

// Like LoadObject, but a damaged record is loaded as empty, to be replaced.
Result<StoredObject> LoadOrReplace(const store::Snapshot& snapshot, const std::string& key) {
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

// Whether the observation counts, according to the guest's record and earlier observations.
Observed Judge(const Json::Value& guest, const Json::Value& live, const Observation& observation) {
  std::string speaker = json::TextMember(guest, keys::host_id);
  if (speaker.empty()) speaker = json::TextMember(live, keys::host_id);
  if (!speaker.empty() && speaker != observation.host_id) return Observed::kNotOurs;
  return SequenceOf(live, observation.host_id) < observation.sequence ? Observed::kStored : Observed::kOlder;
}

// A guest that is being started may still fail to start, and is then off for the same reason as before.
bool IsBeyondShutdown(const std::string& state) {
  return VexaCCC::Utils::IsGuestStateOnline(state) && state != states::booting;
}

void Note(Json::Value& live, const Observation& observation) {
  if (observation.shutdown) {
    live[kShutdown] = ShutdownJson(*observation.shutdown);
  } else if (IsBeyondShutdown(observation.state)) {
    live.removeMember(kShutdown);
  }
  live[keys::host_id] = observation.host_id;
  live["time"] = CountOf(observation.time.time_since_epoch());
  Json::Value& sequence = json::MakeObject(json::MakeObject(live[kSequences])[observation.host_id]);
  sequence[kEpoch] = static_cast<Json::UInt64>(observation.sequence.epoch);
  sequence[kCounter] = static_cast<Json::UInt64>(observation.sequence.counter);
}

// What to commit; nothing unless `outcome` becomes kStored.
Result<store::Transaction> Plan(const store::Store& store, const std::string& guest_id, const Observation& observation,
                                Observed& outcome) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const std::string guest_key = GuestKey(guest_id, keys::object);
  const Result<StoredObject> guest = LoadObject(**snapshot, guest_key);
  if (!guest) return guest.error();
  if (guest->revision == 0) return Error(ErrorCode::kNotFound, "There is no such guest");
  Result<StoredObject> live = LoadOrReplace(**snapshot, LiveRecordKey(guest_id));
  if (!live) return live.error();
  const auto before = (*snapshot)->Get(LiveStateKey(guest_id));
  if (!before) return before.error();
  store::Transaction transaction;
  outcome = Judge(guest->record, live->record, observation);
  if (outcome != Observed::kStored) return transaction;
  // The record decides which host the guest belongs to, and whether it exists.
  transaction.compares.push_back({guest_key, guest->revision});
  if (observation.guard) {
    const auto guard = (*snapshot)->Get(observation.guard->key);
    if (!guard) return guard.error();
    if (!*guard || (*guard)->revision != observation.guard->revision) {
      return Error(ErrorCode::kDenied, "Other hosts considered this host gone meanwhile");
    }
    transaction.compares.push_back(*observation.guard);
  }
  const Json::Value reason_before = json::Member(live->record, "shutdown");
  Note(live->record, observation);
  PutObject(transaction, LiveRecordKey(guest_id), *live);
  std::string text = json::ToText(observation.state);
  // Watchers of the state are notified only of changes, including changes of the reason.
  const bool is_same =
      before->has_value() && (*before)->text == text && reason_before == json::Member(live->record, "shutdown");
  if (!is_same) transaction.operations.push_back({LiveStateKey(guest_id), std::move(text)});
  return transaction;
}

}  // namespace

Result<Observed> Observe(store::Store& store, const std::string& guest_id, const Observation& observation) {
  if (!IsGuestState(observation.state))
    return Error(ErrorCode::kInvalid, "The observed state is not a state of guests");
  if (observation.host_id.empty() || !IsValidUtf8(observation.host_id)) {
    return Error(ErrorCode::kInvalid, "An observation needs the id of the host that made it");
  }
  Observed outcome = Observed::kStored;
  const Status committed = CommitPlanned(store, [&] { return Plan(store, guest_id, observation, outcome); });
  if (committed) {
    ForgetUnstoredState(guest_id);
    return outcome;
  }
  if (outcome == Observed::kStored && store.health() == store::Health::kInaccessible) {
    NoteUnstoredState(guest_id, observation.state);
  }
  return committed.error();
}

Result<std::uint64_t> StartEpoch(store::Store& store, const std::string& host_id, system_clock::time_point now) {
  const std::string key = store::MakeKey({"live_epoch", host_id});
  const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
  const std::uint64_t clock = since > 0 ? static_cast<std::uint64_t>(since) : 0;
  std::uint64_t epoch = 0;
  const Status committed = CommitPlanned(store, [&]() -> Result<store::Transaction> {
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    Result<StoredObject> stored = LoadOrReplace(**snapshot, key);
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

}  // namespace vexa::cluster
