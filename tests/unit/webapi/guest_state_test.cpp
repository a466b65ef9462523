// A guest's state, case by case. guest_state_all_test.cpp covers all combinations.
#include <string>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/state_fixture.h"
#include "webapi/platform/ccc_constants.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using namespace VexaVirtualization;  // NOLINT: nearly all of it is under test
namespace Guest = VexaCCC::State::Guest;
namespace Repo = VexaCCC::State::Repo;
using Strings = std::vector<std::string>;

class GuestState : public StateLibrary {
 protected:
  void SetUp() override {
    StateLibrary::SetUp();
    SetRepository(Repo::online);
    Platform().repo_hosts["g"] = "local";
  }
  void TearDown() override { ExpectNoLine(); }

  static void SetRepository(const char* state) { Platform().records["repository/r/state"] = state; }
  static void SetHost(const char* state) { Platform().records["host/h/state"] = state; }
  static void SetDashboard(const char* state) { Platform().cluster_status["state"] = state; }

  static Json::Value Record(const char* state, const char* host_id = "h") {
    Json::Value record(Json::objectValue);
    record["state"] = state;
    record["host_id"] = host_id;
    record["repository_id"] = "r";
    return record;
  }
  static Json::Value ShutDown(int value, bool is_forced) {
    Json::Value record = Record(Guest::shutdown);
    record["shutdownreasonvalue"] = value;
    record["is_forced_shutdown"] = is_forced;
    return record;
  }
  void Derive(const Json::Value& record) {
    state_ = record["state"].asString();
    reason_.clear();
    GetGuestStateType(record, connected_, "g", state_, ui_state_, type_, reason_);
  }
  void ExpectShown(const std::string& ui_state, const std::string& type, const std::string& reason) const {
    EXPECT_EQ(ui_state_, ui_state);
    EXPECT_EQ(type_, type);
    EXPECT_EQ(reason_, reason);
  }
  static std::string Frozen(const Json::Value& record, std::string state = "given") {
    GetGuestStateFreeze(record, "g", state);
    return state;
  }

  std::map<std::string, int> connected_;
  std::string state_, ui_state_, type_, reason_;
};

TEST_F(GuestState, Dashboard_StatusInaccessible_IsNotReady) {
  EXPECT_TRUE(IsDashboardReady());
  SetDashboard("etcd_healthy");
  EXPECT_TRUE(IsDashboardReady());
  SetDashboard(VexaCCC::State::Etcd::inaccessible);
  EXPECT_FALSE(IsDashboardReady());
  // The result of loading is not looked at, only what was loaded.
  Platform().load_result = -1;
  EXPECT_FALSE(IsDashboardReady());
  Platform().cluster_status = Json::Value(Json::objectValue);
  EXPECT_TRUE(IsDashboardReady());
  const std::vector<std::pair<int, int>> loads(5, {0, 10});
  EXPECT_EQ(Platform().loads, loads);
}

TEST_F(GuestState, Dashboard_StatusOfAnyType_NeverThrows) {
  Json::Value status = Parsed(R"({"state":"etcd_inaccessible"})");
  ForEachMutation(status, [&] {
    Platform().cluster_status = status;
    EXPECT_TRUE(IsDashboardReady());
  });
}

TEST_F(GuestState, State_DashboardNotReady_IsFrozenWithoutUpgradeCheck) {
  SetDashboard(VexaCCC::State::Etcd::inaccessible);
  Derive(Record(Guest::running));
  ExpectShown("freeze", "error", "");
  EXPECT_EQ(state_, Guest::freeze);
  EXPECT_EQ(Platform().upgrade_calls, 0);
  EXPECT_TRUE(Platform().reads.empty());
}

TEST_F(GuestState, State_UpgradeFlagExactlyOne_IsFrozen) {
  for (const int answer : {-1, 0, 2, 256}) {
    Platform().upgrading = answer;
    Derive(Record(Guest::running));
    ExpectShown("running", "healthy", "");
  }
  Platform().upgrading = 1;
  Derive(Record(Guest::running));
  ExpectShown("freeze", "error", "");
  EXPECT_EQ(Platform().upgrade_calls, 5);
}

TEST_F(GuestState, FrozenGuest_ReasonGiven_KeepsIt) {
  Platform().upgrading = 1;
  reason_ = "given";
  state_ = Guest::running;
  GetGuestStateType(ShutDown(5, true), connected_, "g", state_, ui_state_, type_, reason_);
  ExpectShown("freeze", "error", "given");
}

TEST_F(GuestState, State_RepositoryHostResultNegative_IsUnknown) {
  Platform().conf_states["g"] = Guest::running;
  for (const int result : {-1, -2}) {
    Platform().conf_results["repo_host/g"] = result;
    EXPECT_EQ(Frozen(Record(Guest::running, "local")), Guest::unknown);
  }
  for (const int result : {0, 1, 2}) {
    Platform().conf_results["repo_host/g"] = result;
    EXPECT_EQ(Frozen(Record(Guest::running, "local")), Guest::running);
  }
}

TEST_F(GuestState, State_RepositoryOnOtherHost_IsFrozenWithoutSecondCheck) {
  for (const char* host : {"other", "", "Local"}) {
    Platform().repo_hosts["g"] = host;
    Platform().conf_states["g"] = Guest::running;
    EXPECT_EQ(Frozen(Record(Guest::running, "local")), Guest::freeze);
  }
  EXPECT_EQ(Platform().conf_reads, Strings(3, "repo_host/g"));
}

TEST_F(GuestState, State_GuestOnOtherHost_IsFrozenButWithoutHostIsNot) {
  Platform().conf_states["g"] = Guest::running;
  EXPECT_EQ(Frozen(Record(Guest::running, "other")), Guest::freeze);
  EXPECT_EQ(Frozen(Record(Guest::running, "local")), Guest::running);
  EXPECT_EQ(Frozen(Record(Guest::running, "")), Guest::running);
  EXPECT_EQ(Frozen(Parsed("{}")), Guest::running);
}

TEST_F(GuestState, FrozenLocalGuest_State_IsLocalOrFromRecord) {
  Platform().conf_states["g"] = Guest::booting;
  EXPECT_EQ(Frozen(Record(Guest::running, "local")), Guest::booting);
  // What a failed call hands out does not count.
  for (const int result : {-1, 1}) {
    Platform().conf_results["state/g"] = result;
    EXPECT_EQ(Frozen(Record(Guest::running, "local")), Guest::running);
    EXPECT_EQ(Frozen(Parsed("{}")), "");
    EXPECT_EQ(Frozen(Record(Guest::shutdown, "local")), Guest::freeze);
  }
  Platform().conf_results["state/g"] = 0;
  Platform().conf_states["g"] = Guest::shutdown;
  EXPECT_EQ(Frozen(Record(Guest::running, "local")), Guest::freeze);
}

TEST_F(GuestState, State_LocalHostId_IsReadOnce) {
  Platform().conf_states["g"] = Guest::running;
  EXPECT_EQ(Frozen(Record(Guest::running, "local")), Guest::running);
  Platform().local_host_id = "renamed";
  EXPECT_EQ(Frozen(Record(Guest::running, "local")), Guest::running);
  EXPECT_EQ(Frozen(Record(Guest::running, "renamed")), Guest::freeze);
}

TEST_F(GuestState, FrozenGuest_RecordOfAnyType_NeverThrows) {
  Json::Value record = Record(Guest::running, "local");
  Platform().conf_results["state/g"] = -1;
  ForEachMutation(record, [&] { Frozen(record); });
}

TEST_F(GuestState, FrozenHost_Reachable_IsRunning) {
  Platform().versions_of_all_hosts = {{"h1", "v"}, {"h2", "v"}};
  Platform().versions_of_reachable = {{"h2", ""}};
  for (const int result : {0, -1}) {
    Platform().versions_result = result;
    EXPECT_EQ(GetHostFreezeState("h1"), VexaCCC::State::Host::inaccessible);
    EXPECT_EQ(GetHostFreezeState("h2"), VexaCCC::State::Host::running);
    EXPECT_EQ(GetHostFreezeState(""), VexaCCC::State::Host::inaccessible);
  }
}

TEST_F(GuestState, RunningGuest_RepositoryLost_IsLost) {
  SetRepository(Repo::crashed);
  connected_["g"] = 0;
  Derive(Record(Guest::running));
  ExpectShown("crashed", "error", "");
  EXPECT_EQ(state_, Guest::crashed);
  SetRepository(Repo::inaccessible);
  Derive(ShutDown(12, true));
  ExpectShown("inaccessible", "error", "");
  EXPECT_EQ(state_, Guest::inaccessible);
}

TEST_F(GuestState, State_RepositoryUnreadable_CountsAsStateless) {
  for (const int result : {-1, 1, 2}) {
    SetRepository(Repo::crashed);
    Platform().read_results["repository/r/state"] = result;
    Derive(Record(Guest::running));
    ExpectShown("running", "healthy", "");
    Derive(ShutDown(5, false));
    ExpectShown("shutdown", "error", "shutdown_repo_full");
  }
}

TEST_F(GuestState, LostGuest_RepositoryUnreadable_LinksAreStillChecked) {
  connected_["g"] = 0;
  // A platform that considers lost guests live shows whether anything else is checked.
  Platform().extra_online_states = {Guest::crashed, Guest::inaccessible};
  for (const char* lost : {Guest::crashed, Guest::inaccessible}) {
    SetRepository(Repo::online);
    Derive(Record(lost));
    EXPECT_EQ(type_ + ", " + reason_, "error, ");
    Platform().records.erase("repository/r/state");
    Derive(Record(lost));
    EXPECT_EQ(type_ + ", " + reason_, "warning, network_unconnectable");
  }
}

TEST_F(GuestState, State_RepositoryFull_HasRepositoryTypeButNeverHealthy) {
  const std::pair<const char*, const char*> kTypes[] = {
      {Repo::online, "warning"},
      {Repo::degraded, "warning"},
      {Repo::provision_warning, "warning"},
      {Repo::full, "error"},
      {Repo::unavailable, "error"},
      {"odd", "error"},
      {"", "error"},
  };
  for (const auto& [repository, type] : kTypes) {
    SetRepository(repository);
    for (const bool is_forced : {false, true}) {
      Derive(ShutDown(5, is_forced));
      ExpectShown("shutdown", type, "shutdown_repo_full");
    }
  }
}

TEST_F(GuestState, State_FrozenButNotForced_ReadsHostAndChangesNothing) {
  SetHost(VexaCCC::State::Host::inaccessible);
  for (const int value : {9, 10}) {
    Platform().reads.clear();
    Derive(ShutDown(value, false));
    ExpectShown("shutdown", "healthy", "");
    EXPECT_EQ(Platform().reads, (Strings{"repository/r/state", "host/h/state"}));
  }
}

TEST_F(GuestState, State_ForcedByUnreadableOrMissingHost_KeepsTypeOrIsError) {
  Derive(ShutDown(10, true));
  ExpectShown("shutdown", "healthy", "shutdown_host_offline");
  Json::Value without_host = ShutDown(9, true);
  without_host["host_id"] = "";
  Platform().reads.clear();
  Derive(without_host);
  ExpectShown("shutdown", "error", "shutdown_cluster_is_frozen");
  EXPECT_EQ(Platform().reads, Strings{"repository/r/state"});
  SetHost(VexaCCC::State::Host::running);
  Derive(ShutDown(9, true));
  ExpectShown("shutdown", "warning", "shutdown_cluster_is_frozen");
}

TEST_F(GuestState, State_NoResource_IsErrorWhateverTheRepository) {
  for (const char* repository : {Repo::online, Repo::full, Repo::degraded}) {
    SetRepository(repository);
    Derive(ShutDown(12, false));
    ExpectShown("shutdown", "error", "booting_failed_no_resource");
  }
}

TEST_F(GuestState, State_GuestNotInConnectedMap_IsNeverUnconnectable) {
  connected_["other"] = 0;
  Derive(Record(Guest::running));
  ExpectShown("running", "healthy", "");
  connected_["g"] = 0;
  Derive(Record(Guest::running));
  ExpectShown("running", "warning", "network_unconnectable");
  // Bit 31 alone is a negative number.
  connected_["g"] = -2147483647 - 1;
  Derive(Record(Guest::running));
  ExpectShown("running", "healthy", "");
}

TEST_F(GuestState, Overloads_ReturnSameState) {
  connected_["g"] = 0;
  std::string state = Guest::running;
  GetGuestStateType(Record(Guest::shutdown), connected_, "g", state, ui_state_, type_);
  EXPECT_EQ(ui_state_ + " " + type_, "running warning");
  SetRepository(Repo::crashed);
  GetGuestStateType(Record(Guest::shutdown), connected_, "g", state, ui_state_, type_);
  EXPECT_EQ(state, Guest::crashed);
  EXPECT_EQ(ui_state_ + " " + type_, "crashed error");
  SetRepository(Repo::online);
  GetGuestStateType(Record(Guest::moving), connected_, "g", ui_state_, type_);
  EXPECT_EQ(ui_state_ + " " + type_, "moving warning");
  GetGuestStateType(Parsed("{}"), connected_, "g", ui_state_, type_);
  EXPECT_EQ(ui_state_ + " " + type_, " error");
}

TEST_F(GuestState, State_RecordOfAnyType_NeverThrows) {
  SetHost(VexaCCC::State::Host::running);
  for (const int value : {5, 9, 12}) {
    Json::Value record = ShutDown(value, true);
    ForEachMutation(record, [&] {
      GetGuestStateType(record, connected_, "g", ui_state_, type_);
      state_ = Guest::shutdown;
      GetGuestStateType(record, connected_, "g", state_, ui_state_, type_, reason_);
      EXPECT_EQ(ui_state_, "shutdown");
    });
  }
  Platform().records["repository/r/state"] = Parsed("[]");
  Derive(ShutDown(5, true));
  ExpectShown("shutdown", "error", "shutdown_repo_full");
}

TEST_F(GuestState, State_ReasonAndForceOfOtherTypes_AreConverted) {
  Json::Value record = ShutDown(0, false);
  record["shutdownreasonvalue"] = 6.9;
  record["is_forced_shutdown"] = 1;
  Derive(record);
  ExpectShown("shutdown", "warning", "shutdown_abnormal_storage_state");
  record["is_forced_shutdown"] = "true";
  Derive(record);
  ExpectShown("shutdown", "warning", "");
  record["shutdownreasonvalue"] = "6";
  Derive(record);
  ExpectShown("shutdown", "healthy", "");
}

}  // namespace
}  // namespace vexa::test
