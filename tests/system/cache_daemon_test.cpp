// A running daemon refreshes the cache of guests' states for its readers.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <thread>

#include "host/records/environment.h"
#include "host/store/key.h"
#include "tests/support/test_daemon.h"
#include "webapi/guest/guest_uistate_cache.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::test {
namespace {

TEST(CacheDaemon, GuestStates_Read_AreRefreshedInBackgroundAndCached) {
  TestDaemon daemon;
  const std::string path = daemon.config().data_directory + "/cache/virtualization/guest_ui_status.json";
  EXPECT_FALSE(std::filesystem::exists(path));
  std::map<std::string, VexaVirtualization::UIState> states;
  EXPECT_TRUE(VexaVirtualization::GetCachedGuestUIStateDict(states)) << "the quick fill";
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!std::filesystem::exists(path) && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_TRUE(std::filesystem::exists(path));
  states.clear();
  EXPECT_TRUE(VexaVirtualization::GetCachedGuestUIStateDict(states));
  EXPECT_EQ(states.count(kTestGuest), 1u);
  EXPECT_TRUE(daemon.daemon().Stop(std::chrono::seconds(30)));
}

TEST(CacheDaemon, CachedStates_GuestChanged_AreRefreshedWithoutRead) {
  TestDaemon daemon;
  std::map<std::string, VexaVirtualization::UIState> states;
  EXPECT_TRUE(VexaVirtualization::GetCachedGuestUIStateDict(states));
  const std::string path = daemon.config().data_directory + "/cache/virtualization/guest_ui_status.json";
  const auto kept = [&path] {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  const auto within = [](std::chrono::seconds limit, const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!holds() && std::chrono::steady_clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return holds();
  };
  ASSERT_TRUE(within(std::chrono::seconds(30), [&] { return kept().find(kTestGuest) != std::string::npos; }));
  const store::Transaction change{
      {},
      {{store::MakeKey({"dash", "guest", kTestGuest, "object"}),
        R"({"name":"test","state":")" + std::string(VexaCCC::State::Guest::crashed) + "\"}"}}};
  ASSERT_TRUE(records::CurrentEnvironment()->store->Commit(change).ok());
  EXPECT_TRUE(within(std::chrono::seconds(30), [&] { return kept().find("crashed") != std::string::npos; })) << kept();
}

}  // namespace
}  // namespace vexa::test
