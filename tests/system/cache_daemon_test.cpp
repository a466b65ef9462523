// A running daemon refreshes the cache of guests' states for whoever reads it.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "tests/support/test_daemon.h"
#include "webapi/guest/guest_uistate_cache.h"

namespace vexa::test {
namespace {

TEST(CacheDaemon, GuestsStates_AreFoundOutInTheBackgroundAndKept) {
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

}  // namespace
}  // namespace vexa::test
