// The links of guests, which are queried in the background, and the readers that wait for them.
#include "host/api/user/guest_links.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "host/records/environment.h"
#include "host/records/live_state.h"
#include "host/records/reader.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;
using api::GuestLinkStates;
using api::LinkWatcher;
using api::LinkWatcherOptions;
using Clock = GuestLinkStates::Clock;

constexpr char kGuest[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";

bool Eventually(const std::function<bool()>& holds) {
  const auto end = Clock::now() + 30s;
  while (!holds()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

GuestLinkStates Found() {
  GuestLinkStates links;
  links.connected[kGuest] = 1;
  links.origin.asked = Clock::now();
  return links;
}

// Questions that a test holds, lets fail, and counts.
struct Questions {
  std::atomic<int> begun = 0;
  std::atomic<bool> held = false;
  std::atomic<bool> fail = false;

  LinkWatcherOptions Options() {
    LinkWatcherOptions options;
    options.interval = 20ms;
    options.max_wait = 300ms;
    options.query = [this](const GuestLinkStates*) -> std::optional<GuestLinkStates> {
      ++begun;
      GuestLinkStates links = Found();
      while (held) std::this_thread::sleep_for(1ms);
      if (fail) return std::nullopt;
      return links;
    };
    return options;
  }
};

std::chrono::milliseconds TimeOf(const std::function<void()>& work) {
  const auto begun = Clock::now();
  work();
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun);
}

TEST(LinkWatcher, LinkWatcher_FirstReader_WaitsForQuery) {
  Questions questions;
  LinkWatcher watcher(questions.Options());
  EXPECT_EQ(questions.begun, 0) << "nobody wants to know";
  EXPECT_EQ(watcher.Get()->connected.count(kGuest), 1u);
}

TEST(LinkWatcher, LinkWatcher_QueryHangs_DelaysOnlyFirstReader) {
  Questions questions;
  questions.held = true;
  LinkWatcher watcher(questions.Options());
  const auto first = TimeOf([&] { EXPECT_TRUE(watcher.Get()->connected.empty()); });
  EXPECT_GE(first, 290ms);
  EXPECT_LT(first, 10s);
  EXPECT_LT(TimeOf([&] {
              for (int i = 0; i < 50; ++i) watcher.Get();
            }),
            10s);
  EXPECT_EQ(questions.begun, 1);
  questions.held = false;
  EXPECT_TRUE(Eventually([&] { return watcher.Get()->connected.contains(kGuest); }));
}

TEST(LinkWatcher, LinkWatcher_NextQueryHangs_ReturnsKnownLinks) {
  Questions questions;
  LinkWatcher watcher(questions.Options());
  watcher.Get();
  questions.held = true;
  const int before = questions.begun;
  EXPECT_TRUE(Eventually([&] { return questions.begun > before; }));
  EXPECT_LT(TimeOf([&] { EXPECT_TRUE(watcher.Get()->connected.contains(kGuest)); }), 10s);
  questions.held = false;
}

TEST(LinkWatcher, Get_QueryFailed_ReturnsWithoutWaitingForNextQuery) {
  Questions questions;
  questions.fail = true;
  LinkWatcherOptions options = questions.Options();
  options.interval = 1h;
  LinkWatcher watcher(options);
  EXPECT_TRUE(watcher.Get()->connected.empty());
  EXPECT_LT(TimeOf([&] {
              for (int i = 0; i < 50; ++i) watcher.Get();
            }),
            10s);
  EXPECT_EQ(questions.begun, 1);
}

TEST(LinkWatcher, LinkWatcher_NoReaders_MakesNoQueries) {
  Questions questions;
  LinkWatcherOptions options = questions.Options();
  options.idle_after = 50ms;
  LinkWatcher watcher(options);
  watcher.Get();
  std::this_thread::sleep_for(200ms);
  const int after = questions.begun;
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(questions.begun, after);
  watcher.Get();
  EXPECT_TRUE(Eventually([&] { return questions.begun > after; }));
}

// How often the thread of that name has waited.
long TimesWaited(const std::string& thread) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::ifstream(task.path() / "comm") >> name;
    if (name != thread) continue;
    std::ifstream status(task.path() / "status");
    for (std::string word; status >> word;) {
      long times = 0;
      if (word == "voluntary_ctxt_switches:" && status >> times) return times;
    }
  }
  return -1;
}

TEST(LinkWatcher, Get_QueryNotDue_DoesNotWakeTheThread) {
  Questions questions;
  LinkWatcherOptions options = questions.Options();
  options.interval = 1h;
  options.max_age = 1h;
  options.idle_after = 1h;
  LinkWatcher watcher(options);
  watcher.Get();
  std::this_thread::sleep_for(100ms);
  const long before = TimesWaited("links");
  ASSERT_GE(before, 0);
  for (int i = 0; i < 100; ++i) {
    watcher.Get();
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_LT(TimesWaited("links") - before, 10);
}

TEST(LinkWatcher, Stop_DuringQuery_WaitsForItAndReleasesReaders) {
  Questions questions;
  questions.held = true;
  LinkWatcherOptions options = questions.Options();
  options.max_wait = 60s;
  LinkWatcher watcher(options);
  std::thread reader([&] { watcher.Get(); });
  EXPECT_TRUE(Eventually([&] { return questions.begun == 1; }));
  EXPECT_FALSE(watcher.Stop(50ms)) << "the question still hangs";
  reader.join();
  questions.held = false;
  EXPECT_TRUE(watcher.Stop(30s));
  watcher.Stop();
  EXPECT_EQ(questions.begun, 1);
}

class KnownLinksTest : public ::testing::Test {
 protected:
  static void Put(const std::string& key, const std::string& text) {
    (void)Require(records::CurrentEnvironment()->store->Commit({{}, {{key, text}}}));
  }
  static void PutNic() { Put(store::MakeKey({"dash", "vnic", "nic-1", "object"}), "{}"); }

  TestHost host_;
};

TEST_F(KnownLinksTest, KnownLinks_GuestOrNicsChanged_ForgetsMissingLink) {
  Put(records::LiveStateKey(kGuest), "\"running\"");
  PutNic();
  Json::Value record(Json::objectValue);
  record["vnics"].append("nic-1");
  GuestLinkStates links;
  EXPECT_EQ(api::KnownLinks(Require(records::Reader::OpenCurrent()), links, kGuest, record), std::nullopt);
  links.connected[kGuest] = 0;
  links.origin.revision = host_.store().Read().value()->revision();
  EXPECT_EQ(api::KnownLinks(Require(records::Reader::OpenCurrent()), links, kGuest, record), std::optional(0));
  PutNic();
  EXPECT_EQ(api::KnownLinks(Require(records::Reader::OpenCurrent()), links, kGuest, record), std::nullopt)
      << "plugged elsewhere";
  links.origin.revision = host_.store().Read().value()->revision();
  EXPECT_EQ(api::KnownLinks(Require(records::Reader::OpenCurrent()), links, kGuest, record), std::optional(0));
  Put(records::LiveStateKey(kGuest), "\"running\"");
  EXPECT_EQ(api::KnownLinks(Require(records::Reader::OpenCurrent()), links, kGuest, record), std::nullopt)
      << "started after the question";
  links.connected[kGuest] = 2;
  EXPECT_EQ(api::KnownLinks(Require(records::Reader::OpenCurrent()), links, kGuest, record), std::optional(2));
}

TEST_F(KnownLinksTest, KnownLinks_HostSilentAndStateNewer_IsUnknown) {
  Put(records::LiveStateKey(kGuest), "\"running\"");
  GuestLinkStates links;
  links.connected[kGuest] = 0;
  links.origin.revision = host_.store().Read().value()->revision();
  links.older_origins[kGuest].revision = links.origin.revision - 1;
  EXPECT_EQ(api::KnownLinks(Require(records::Reader::OpenCurrent()), links, kGuest, Json::Value(Json::objectValue)),
            std::nullopt);
}

}  // namespace
}  // namespace vexa::test
