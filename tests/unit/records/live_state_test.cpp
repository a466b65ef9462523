// Live states: what a host observes becomes the stored state of its guests, in the order it was observed.
#include "host/records/live_state.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "host/records/request_scope.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/process.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::records {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::system_clock;
using test::TestHost;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;
namespace states = VexaCCC::State::Guest;

constexpr const char* kStoreVariable = "VEXA_TEST_LIVE_STORE";
constexpr const char* kWorkerVariable = "VEXA_TEST_LIVE_WORKER";
constexpr std::uint64_t kPerWorker = 60;

Observation Seen(const std::string& state, Sequence sequence, const std::string& host = "a") {
  return {state, sequence, host, system_clock::time_point(seconds(1'700'000'000))};
}

// Calls what a test says once, just before the next commit.
class RacedStore : public store::Store {
 public:
  RacedStore(store::Store& real, std::function<void()> race) : real_(real), race_(std::move(race)) {}

  Result<std::unique_ptr<store::Snapshot>> Read() const override { return real_.Read(); }
  Result<store::Revision> Commit(const store::Transaction& transaction) override {
    if (const auto race = std::exchange(race_, nullptr)) race();
    return real_.Commit(transaction);
  }
  Result<store::ChangeBatch> Watch(std::string_view prefix, store::Revision from, milliseconds timeout) override {
    return real_.Watch(prefix, from, timeout);
  }
  store::Health health() const override { return real_.health(); }

 private:
  store::Store& real_;
  std::function<void()> race_;
};

class LiveState : public testing::Test {
 protected:
  LiveState() { host_.PutText("guest", "g", R"({"name":"web","host_id":"a","state":"guest_saved"})"); }

  ObserveResult Report(const Observation& observation) {
    return test::Require(Observe(host_.store(), "g", observation));
  }

  ErrorCode Refusal(const std::string& guest, const Observation& observation) {
    const auto result = Observe(host_.store(), guest, observation);
    EXPECT_FALSE(result.ok());
    return result ? ErrorCode::kInternal : result.error().code();
  }

  std::string State(const std::string& guest = "g") {
    std::string state = "none";
    Dashboard(DashCate::Guest, guest).Get(state, VexaCCC::DB::_k::state);
    return state;
  }

  std::string Text(const std::string& key) {
    const auto snapshot = test::Require(host_.store().Read());
    const auto value = test::Require(snapshot->Get(key));
    return value ? std::string(value->text) : "absent";
  }

  TestHost host_;
};

TEST_F(LiveState, State_NothingObserved_ComesFromRecord) { EXPECT_EQ(State(), states::saved); }

TEST_F(LiveState, Observe_StoresStateBesideUnchangedRecord) {
  const std::string record = Text(TestHost::ObjectKey("guest", "g"));
  EXPECT_EQ(Report(Seen(states::running, {1, 1})), ObserveResult::kStored);
  EXPECT_EQ(State(), states::running);
  std::string local;
  EXPECT_EQ(vgConfStateGet("g", local), 0);
  EXPECT_EQ(local, states::running);
  Json::Value value;
  EXPECT_EQ(Dashboard(DashCate::Guest, "g").Get(value, VexaCCC::DB::_k::state), 0);
  EXPECT_EQ(value, states::running);
  EXPECT_EQ(Text(TestHost::ObjectKey("guest", "g")), record);
  EXPECT_EQ(test::Parsed(Text(LiveRecordKey("g"))),
            test::Parsed(R"({"host_id":"a","time":1700000000,"sequences":{"a":{"epoch":1,"counter":1}}})"));
}

TEST_F(LiveState, Observe_OlderSequence_IsIgnored) {
  struct Row {
    const char* state;
    Sequence sequence;
    ObserveResult outcome;
  };
  const Row rows[] = {{states::booting, {5, 10}, ObserveResult::kStored},
                      {states::running, {5, 11}, ObserveResult::kStored},
                      {states::crashed, {5, 11}, ObserveResult::kOutdated},
                      {states::crashed, {5, 10}, ObserveResult::kOutdated},
                      {states::crashed, {4, 99}, ObserveResult::kOutdated},
                      {states::shutdown, {6, 1}, ObserveResult::kStored},
                      {states::crashed, {5, 1000}, ObserveResult::kOutdated},
                      {states::crashed, {6, 0}, ObserveResult::kOutdated},
                      {states::running, {6, 1000}, ObserveResult::kStored},
                      {states::saved, {~std::uint64_t{0}, 1}, ObserveResult::kStored}};
  std::string last;
  for (const Row& row : rows) {
    EXPECT_EQ(Report(Seen(row.state, row.sequence)), row.outcome) << row.sequence.epoch << "." << row.sequence.counter;
    if (row.outcome == ObserveResult::kStored) last = row.state;
    EXPECT_EQ(State(), last);
  }
}

TEST_F(LiveState, Observe_SameState_AdvancesSequenceOnly) {
  Report(Seen(states::running, {1, 1}));
  const auto before = test::Require(host_.store().Read())->revision();
  EXPECT_EQ(Report(Seen(states::running, {1, 5})), ObserveResult::kStored);
  EXPECT_EQ(Report(Seen(states::shutdown, {1, 4})), ObserveResult::kOutdated);
  const auto changes = test::Require(host_.store().Watch(LiveStateKey("g"), before, milliseconds(0)));
  EXPECT_TRUE(changes.changes.empty());
}

TEST_F(LiveState, Observe_ByFormerHost_ChangesNothing) {
  EXPECT_EQ(Report(Seen(states::running, {1, 1}, "b")), ObserveResult::kNotOurs) << "never had it";
  EXPECT_EQ(Report(Seen(states::moving, {1, 1}, "a")), ObserveResult::kStored);
  EXPECT_EQ(Report(Seen(states::running, {9, 9}, "b")), ObserveResult::kNotOurs);
  host_.PutText("guest", "g", R"({"host_id":"b"})");
  EXPECT_EQ(Report(Seen(states::shutdown, {1, 2}, "a")), ObserveResult::kNotOurs) << "although it spoke last";
  EXPECT_EQ(State(), states::moving);
  EXPECT_EQ(Report(Seen(states::running, {1, 1}, "b")), ObserveResult::kStored) << "its own sequence begins";
  EXPECT_EQ(State(), states::running);
  host_.PutText("guest", "g", R"({"host_id":"a"})");
  EXPECT_EQ(Report(Seen(states::shutdown, {1, 1}, "a")), ObserveResult::kOutdated)
      << "late, from its first time with the guest";
  EXPECT_EQ(State(), states::running);
  EXPECT_EQ(Report(Seen(states::shutdown, {1, 2}, "a")), ObserveResult::kStored);
}

TEST_F(LiveState, Observe_GuestLostBeforeCommit_ChangesNothing) {
  RacedStore moved(host_.store(), [&] { host_.PutText("guest", "g", R"({"host_id":"b","state":"guest_moving"})"); });
  EXPECT_EQ(test::Require(Observe(moved, "g", Seen(states::shutdown, {1, 1}))), ObserveResult::kNotOurs);
  EXPECT_EQ(State(), states::moving);
  RacedStore deleted(host_.store(), [&] { host_.Remove("guest", "g"); });
  EXPECT_FALSE(Observe(deleted, "g", Seen(states::shutdown, {1, 1}, "b")).ok());
  EXPECT_EQ(Text(LiveStateKey("g")), "absent") << "no state of a guest that is not there";
}

TEST_F(LiveState, Observe_GuestWithoutHost_StaysWithLastReporter) {
  for (const char* record : {"{}", R"({"host_id":""})", R"({"host_id":null})", R"({"host_id":["b"]})"}) {
    host_.PutText("guest", "free", record);
    EXPECT_EQ(*Observe(host_.store(), "free", Seen(states::shutdown, {1, 1}, "a")), ObserveResult::kStored) << record;
    EXPECT_EQ(*Observe(host_.store(), "free", Seen(states::running, {2, 1}, "b")), ObserveResult::kNotOurs) << record;
    EXPECT_EQ(*Observe(host_.store(), "free", Seen(states::running, {1, 2}, "a")), ObserveResult::kStored) << record;
    EXPECT_EQ(State("free"), states::running);
    ASSERT_TRUE(host_.store().Commit({{}, {{LiveRecordKey("free"), std::nullopt}}}).ok());
  }
}

TEST_F(LiveState, Observe_ImpossibleState_IsRefusedAndStoresNothing) {
  const std::string texts[] = {"",
                               "running",
                               "host_running",
                               "guest_running\n",
                               {"guest_running\0", 14},
                               std::string(1 << 20, 'x'),
                               "../guest_running",
                               "%s"};
  for (const std::string& text : texts) EXPECT_EQ(Refusal("g", Seen(text, {1, 1})), ErrorCode::kInvalid);
  EXPECT_EQ(Refusal("g", Seen(states::running, {1, 1}, "")), ErrorCode::kInvalid);
  EXPECT_EQ(Refusal("g", Seen(states::running, {1, 1}, "\xff")), ErrorCode::kInvalid);
  const std::string guests[] = {
      "none", "", "..", "g/object", "../guest/g", {"g\0", 2}, "%67", "g\n", std::string(1 << 20, 'g')};
  for (const std::string& guest : guests) {
    EXPECT_EQ(Refusal(guest, Seen(states::running, {1, 1})), ErrorCode::kNotFound);
  }
  std::vector<std::string> ids;
  ASSERT_EQ(DashCate::Guest.List(ids), 0);
  EXPECT_EQ(ids, std::vector<std::string>{"g"}) << "no guest is made of a state";
  EXPECT_EQ(State(), states::saved);
  for (const char* damaged : {"{", "[]", "7", ""}) {
    host_.PutText("guest", "g", damaged);
    EXPECT_EQ(Refusal("g", Seen(states::running, {1, 1})), ErrorCode::kCorrupt);
  }
  EXPECT_EQ(Text(LiveRecordKey("g")), "absent");
}

TEST_F(LiveState, LiveState_UnusualGuestIds_HaveSeparateStates) {
  for (const std::string& id : std::vector<std::string>{"a/b", "..", ".", "%", "x\ny", {"x\0y", 3}, "ü"}) {
    host_.PutText("guest", id, R"({"host_id":"a"})");
    EXPECT_EQ(*Observe(host_.store(), id, Seen(states::running, {1, 1})), ObserveResult::kStored);
    EXPECT_EQ(State(id), states::running);
  }
  EXPECT_EQ(State(), states::saved);
}

TEST_F(LiveState, Observe_UnusualHostId_HasItsOwnSequence) {
  const std::string odd("a\"\\/..%\n\0b", 10);
  Json::Value guest(Json::objectValue);
  guest["host_id"] = odd;
  host_.Put("guest", "g", guest);
  EXPECT_EQ(Report(Seen(states::running, {1, 2}, odd)), ObserveResult::kStored);
  EXPECT_EQ(Report(Seen(states::crashed, {1, 2}, odd)), ObserveResult::kOutdated);
}

TEST_F(LiveState, Observe_DamagedRecord_IsReplaced) {
  for (const char* damaged :
       {"{", "[]", "null", R"({"sequences":[1],"host_id":7})", R"({"sequences":{"a":"x"},"host_id":{}})",
        R"({"sequences":{"a":{"epoch":"9","counter":-1}}})"}) {
    ASSERT_TRUE(host_.store().Commit({{}, {{LiveRecordKey("g"), damaged}}}).ok());
    EXPECT_EQ(Report(Seen(states::running, {1, 1})), ObserveResult::kStored) << damaged;
    EXPECT_EQ(Report(Seen(states::crashed, {1, 1})), ObserveResult::kOutdated) << damaged;
  }
}

TEST_F(LiveState, Observe_StoreFails_IsReported) {
  host_.store().ConflictCommits(5);
  EXPECT_EQ(Report(Seen(states::running, {1, 1})), ObserveResult::kStored) << "tried again";
  host_.store().ConflictCommits(1'000'000);
  EXPECT_EQ(Refusal("g", Seen(states::shutdown, {1, 2})), ErrorCode::kConflict);
  host_.store().Heal();
  host_.store().FailCommits();
  EXPECT_EQ(Refusal("g", Seen(states::shutdown, {1, 2})), ErrorCode::kNoSpace);
  for (const std::string& key : {TestHost::ObjectKey("guest", "g"), LiveRecordKey("g"), LiveStateKey("g")}) {
    host_.store().Heal();
    host_.store().FailReadsOf(key);
    EXPECT_EQ(Refusal("g", Seen(states::shutdown, {1, 2})), ErrorCode::kInternal) << key;
  }
  host_.store().Heal();
  host_.store().FailSnapshots();
  EXPECT_EQ(Refusal("g", Seen(states::shutdown, {1, 2})), ErrorCode::kUnavailable);
  host_.store().Heal();
  EXPECT_EQ(State(), states::running);
}

TEST_F(LiveState, Observe_InRequest_IsVisibleToIt) {
  const RequestScope scope;
  EXPECT_EQ(State(), states::saved);
  EXPECT_EQ(Report(Seen(states::running, {1, 1})), ObserveResult::kStored);
  EXPECT_EQ(State(), states::running);
}

TEST_F(LiveState, Remove_DeletedGuest_LeavesNothing) {
  Report(Seen(states::running, {1, 1}));
  store::Transaction transaction;
  transaction.operations.push_back({TestHost::ObjectKey("guest", "g"), std::nullopt});
  AddLiveStateRemoval(transaction, "g");
  ASSERT_TRUE(host_.store().Commit(transaction).ok());
  std::vector<std::string> ids;
  ASSERT_EQ(DashCate::Guest.List(ids), 0);
  EXPECT_TRUE(ids.empty());
  EXPECT_EQ(Text(LiveRecordKey("g")), "absent");
  EXPECT_EQ(Refusal("g", Seen(states::running, {1, 2})), ErrorCode::kNotFound);
}

TEST_F(LiveState, StartEpoch_EachStart_IsHigher) {
  const system_clock::time_point now{milliseconds(5000)};
  EXPECT_EQ(*StartEpoch(host_.store(), "a", now), 5000u);
  EXPECT_EQ(*StartEpoch(host_.store(), "a", now), 5001u);
  EXPECT_EQ(*StartEpoch(host_.store(), "a", now - seconds(4)), 5002u) << "the clock was put back";
  EXPECT_EQ(*StartEpoch(host_.store(), "b", now - seconds(60)), 1u) << "before the first second";
  const std::string key = store::MakeKey({"live_epoch", "a"});
  for (const char* damaged : {"{", "[]", R"({"epoch":"x"})", R"({"epoch":-5})"}) {
    ASSERT_TRUE(host_.store().Commit({{}, {{key, damaged}}}).ok());
    EXPECT_EQ(*StartEpoch(host_.store(), "a", now + seconds(9)), 14'000u) << damaged;
  }
  host_.store().FailCommits();
  EXPECT_EQ(StartEpoch(host_.store(), "a", now).error().code(), ErrorCode::kNoSpace);
  EXPECT_EQ(StartEpoch(host_.store(), std::string(1 << 20, 'h'), now).error().code(), ErrorCode::kNoSpace);
  host_.store().Heal();
  EXPECT_EQ(StartEpoch(host_.store(), std::string(1 << 20, 'h'), now).error().code(), ErrorCode::kInvalid);
}

TEST_F(LiveState, Observe_EightConcurrent_NewestWins) {
  constexpr int kEach = 25;
  Sequencer sequencer(3);
  std::atomic<int> errors{0};
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        for (int n = 0; n < kEach; ++n) {
          const Sequence sequence = sequencer.Next();
          // The state follows from the sequence, so that the stored one shows which observation it was.
          const char* state = sequence.counter % 2 == 0 ? states::running : states::shutdown;
          if (!Observe(host_.store(), "g", Seen(state, sequence))) ++errors;
        }
      });
    }
  }
  EXPECT_EQ(errors, 0);
  const Json::Value live = test::Parsed(Text(LiveRecordKey("g")));
  EXPECT_EQ(live["sequences"]["a"]["counter"].asUInt64(), 8u * kEach);
  EXPECT_EQ(State(), states::running) << "200 is even";
}

// What a worker process of the next test does: it observes with every second sequence, the newest first in pairs, so
// that older ones keep coming late.
void ObserveInWorker(const char* folder, std::uint64_t worker) {
  store::LmdbOptions options;
  options.directory = folder;
  const auto store = test::Require(store::OpenLmdbStore(options));
  for (std::uint64_t i = 0; i < kPerWorker; ++i) {
    const std::uint64_t counter = 2 * (i ^ 1) + worker + 1;
    const char* state = counter % 2 == 0 ? states::running : states::shutdown;
    ASSERT_TRUE(Observe(*store, "g", Seen(state, {1, counter})).ok());
  }
}

// Each process runs this test as well, with the store in its environment.
TEST(LiveStateProcesses, Observe_TwoProcesses_NewestWinsAndStateNeverRegresses) {
  if (const char* folder = std::getenv(kStoreVariable)) {
    return ObserveInWorker(folder, std::strtoull(std::getenv(kWorkerVariable), nullptr, 10));
  }
  TestHost host;
  host.PutText("guest", "g", R"({"host_id":"a"})");
  std::vector<std::unique_ptr<test::Process>> workers;
  for (const char* number : {"0", "1"}) {
    test::ProcessOptions options;
    options.argv = {"/proc/self/exe", "--gtest_filter=LiveStateProcesses.*"};
    options.environment[kStoreVariable] = host.folder().File("store");
    options.environment[kWorkerVariable] = number;
    workers.push_back(std::make_unique<test::Process>(options));
  }
  std::uint64_t last = 0;
  int looked = 0;
  const auto look = [&] {
    const auto snapshot = test::Require(host.store().Read());
    const auto live = test::Require(snapshot->Get(LiveRecordKey("g")));
    if (!live) return;
    const Json::Value record = test::Parsed(std::string(live->text));
    const std::uint64_t counter = record["sequences"]["a"]["counter"].asUInt64();
    EXPECT_GE(counter, last);
    const auto state = test::Require(snapshot->Get(LiveStateKey("g")));
    ASSERT_TRUE(state.has_value());
    EXPECT_EQ(state->text, counter % 2 == 0 ? "\"guest_running\"" : "\"guest_shutdown\"");
    last = counter;
    ++looked;
  };
  while (workers[0]->IsRunning() || workers[1]->IsRunning()) look();
  for (auto& worker : workers) {
    const auto status = worker->Wait(seconds(120));
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0) << worker->output() << worker->errors();
  }
  look();
  EXPECT_EQ(last, 2 * kPerWorker);
  EXPECT_GT(looked, 1);
}

}  // namespace
}  // namespace vexa::records
