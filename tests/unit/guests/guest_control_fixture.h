// A host with guests on libvirt's test driver and a real store, for tests.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "host/guests/guest_control.h"
#include "host/records/environment.h"
#include "host/records/run_record.h"
#include "tests/support/matchers.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
using namespace std::chrono_literals;
namespace states = VexaCCC::State::Guest;
using RunRecord = records::Run;  // a test has a member of that name

inline constexpr char kGuest[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
inline constexpr char kOther[] = "c4a9e7d2-5b31-4f86-a07c-1e2d3f4a5b6c";
inline const Requester kAlice{"alice", "nas-1", "request-1"};

class GuestControlTest : public ::testing::Test {
 protected:
  GuestControlTest() {
    PutGuest(kGuest, "web-1");
    host_.Put("host", HostId(), Parsed(R"({"name":"nas-1"})"));
    host_.Put("host", "host-2", Parsed(R"({"name":"nas-2"})"));
  }

  static std::string HostId() { return records::CurrentEnvironment()->host_id; }

  void PutGuest(const std::string& id, const std::string& name, const Json::Value& changes = {}) {
    Json::Value guest = Parsed(R"({"vcpu_num":1,"vram_size":64,"vdisks":[],"vnics":[],"state":"guest_shutdown"})");
    guest["name"] = name;
    guest["host_id"] = HostId();
    for (const std::string& member : changes.getMemberNames()) guest[member] = changes[member];
    host_.Put("guest", id, guest);
  }

  GuestControlOptions Options() {
    GuestControlOptions options;
    options.store = records::CurrentEnvironment()->store;  // host_.store()
    options.host_id = HostId();
    options.image_roots = {host_.folder().path()};
    options.press_interval = 20ms;
    options.shut_down_wait = 10s;
    return options;
  }

  void Start() { Start(Options()); }
  void Start(GuestControlOptions options) {
    auto started = GuestControl::Start(std::move(options));
    ASSERT_TRUE(started) << started.error().ToString();
    control_ = std::move(*started);
  }
  // With two guests; kGuest needs all processors.
  void StartWithLargeGuest() {
    GuestControlOptions options = Options();
    options.vcpus_per_cpu = 1;
    const auto cpus = std::thread::hardware_concurrency();
    PutGuest(kGuest, "web-1", Parsed(R"({"vcpu_num":)" + std::to_string(cpus) + "}"));
    PutGuest(kOther, "web-2");
    Start(std::move(options));
  }
  // What a kill leaves: nothing is cleaned up or reported.
  void Kill() { control_.reset(); }

  static std::string State(const std::string& id = kGuest) {
    std::string state;
    return vgConfStateGet(id, state) == 0 ? state : "";
  }
  std::optional<RunRecord> RunOf(const std::string& id = kGuest) {
    const auto run = records::ReadRun(host_.store(), id);
    EXPECT_TRUE(run);
    if (!run || !*run) return std::nullopt;
    return (*run)->run;
  }
  void PutRun(const RunRecord& run, const std::string& id = kGuest) {
    ASSERT_TRUE(host_.store().Commit({{}, {{records::RunKey(id), records::SerializeRun(run)}}}));
  }
  RunRecord RunHere() {
    RunRecord run;
    run.host_id = HostId();
    run.since = std::chrono::system_clock::now() - 100s;
    return run;
  }

  std::optional<std::string> StoredGuest() {
    const auto snapshot = test::Require(host_.store().Read());
    const auto value = test::Require(snapshot->Get(test::TestHost::ObjectKey("guest", kGuest)));
    if (!value) return std::nullopt;
    return std::string(value->text);
  }

  // A state that comes with an event.
  static void ExpectState(const std::string& expected, const std::string& id = kGuest) {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (State(id) != expected && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
    EXPECT_EQ(State(id), expected);
  }

  // The same for what an event cleans up.
  void ExpectNoRun() {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (RunOf() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
    EXPECT_EQ(RunOf(), std::nullopt);
  }

  test::TestHost host_;
  std::unique_ptr<GuestControl> control_;
};

#define EXPECT_DONE(expression)                                                                      \
  do {                                                                                               \
    const auto expect_done = (expression);                                                           \
    EXPECT_TRUE(expect_done.ok()) << expect_done.error().code << ": " << expect_done.error().reason; \
  } while (false)

#define EXPECT_REFUSED(expression, expected_code, words)          \
  do {                                                            \
    const auto expect_refused = (expression);                     \
    EXPECT_FALSE(expect_refused.ok());                            \
    if (expect_refused.ok()) break;                               \
    EXPECT_EQ(expect_refused.error().code, expected_code);        \
    EXPECT_THAT(expect_refused.error().reason, HasSubstr(words)); \
  } while (false)

}  // namespace vexa::guests
