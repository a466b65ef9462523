// The cache of all guests' states.
#include <cstring>
#include <optional>
#include <string>
#include <thread>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/state_fixture.h"
#include "webapi/guest/guest_uistate_cache.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::test {
namespace {

using namespace VexaVirtualization;  // NOLINT: nearly all of it is under test
namespace State = VexaCCC::State;
using Strings = std::vector<std::string>;

constexpr const char* kInvalid = "guest_uistate_cache: Invalid cached guest ui status";

class GuestStatusCache : public StateLibrary {
 protected:
  static void AddGuest(const std::string& id, const char* state, const char* repository = "r") {
    Platform().ids["guest"].push_back(id);
    Json::Value& conf = Platform().confs[id];
    conf["state"] = state;
    conf["repository_id"] = repository;
    Platform().records["repository/r/state"] = State::Repo::online;
    Platform().records["repository/lost/state"] = State::Repo::crashed;
  }
  static std::string Default() { return Text(GuestUIStatusCache().GetDefaultValue()); }
  static std::string Updated() {
    Json::Value data = "old";
    EXPECT_TRUE(GuestUIStatusCache().GetUpdatedData(data));
    return Text(data);
  }
  static std::string Status(const std::string& id, const std::string& status, const std::string& type) {
    return R"({"guest_id":")" + id + R"(","status":")" + status + R"(","status_type":")" + type + "\"}";
  }
};

TEST_F(GuestStatusCache, Status_Default_IsRunningAndHealthy) {
  const GuestUIStatus status("g");
  EXPECT_EQ(status.guest_id, "g");
  EXPECT_EQ(status.status, "running");
  EXPECT_EQ(status.status_type, "healthy");
  EXPECT_EQ(Text(status.ToJson()), Status("g", "running", "healthy"));
}

TEST_F(GuestStatusCache, StatusFromJson_NeedsAllThreeTexts) {
  GuestUIStatus status;
  EXPECT_TRUE(status.FromJson(Parsed(R"({"guest_id":"g","status":"s","status_type":"t","more":1})")));
  EXPECT_EQ(status.guest_id + status.status + status.status_type, "gst");
  EXPECT_FALSE(status.FromJson(Json::Value()));
  Json::Value good = Parsed(R"({"guest_id":"g","status":"s","status_type":"t"})");
  ForEachMutation(good, [&] {
    GuestUIStatus fresh;
    const bool is_whole =
        good.isObject() && good["guest_id"].isString() && good["status"].isString() && good["status_type"].isString();
    EXPECT_EQ(fresh.FromJson(good), is_whole);
  });
}

TEST_F(GuestStatusCache, StatusFromJson_StopsAtFirstMissingMember) {
  GuestUIStatus status("old");
  EXPECT_FALSE(status.FromJson(Parsed(R"({"guest_id":"g","status_type":"t"})")));
  EXPECT_EQ(status.guest_id + status.status + status.status_type, "grunninghealthy");
}

TEST_F(GuestStatusCache, Cache_IsNamedAndCurrentForFiveSeconds) {
  const GuestUIStatusCache cache;
  ASSERT_EQ(Platform().caches.size(), 1u);
  EXPECT_EQ(Text(Platform().caches[0]), R"(["virtualization","guest_ui_status",5,0])");
}

TEST_F(GuestStatusCache, DefaultValue_Guests_HaveConfiguredStates) {
  EXPECT_EQ(Default(), R"({"guests":[]})");
  AddGuest("g2", State::Guest::shutdown);
  AddGuest("gone", State::Guest::running);
  AddGuest("failed", State::Guest::running);
  AddGuest("g1", "odd", "lost");
  AddGuest("bare", "");
  Platform().confs["bare"] = Json::Value(Json::objectValue);
  Platform().confs.erase("gone");
  Platform().conf_results["conf/failed"] = 1;
  Platform().reads.clear();
  for (const int result : {0, 2}) {
    Platform().category_results["guest"] = {result};
    EXPECT_EQ(Default(), R"({"guests":[)" + Status("g2", "shutdown", "healthy") + "," + Status("g1", "odd", "error") +
                             "," + Status("bare", "", "error") + "]}");
  }
  // Nothing but the local configuration is asked.
  EXPECT_EQ(Platform().reads, (Strings{"guest", "guest"}));
  EXPECT_TRUE(Platform().sent.empty());
  Platform().category_results["guest"] = {-1};
  EXPECT_EQ(Default(), R"({"guests":[]})");
}

TEST_F(GuestStatusCache, UpdatedData_Guests_HaveDerivedStates) {
  AddGuest("g2", State::Guest::running);
  AddGuest("gone", State::Guest::running);
  Platform().confs.erase("gone");
  AddGuest("g1", State::Guest::running, "lost");
  AddGuest("g3", State::Guest::shutdown);
  Platform().confs["g3"]["shutdownreasonvalue"] = 12;
  AddGuest("g4", State::Guest::running);
  Platform().records["guest/g4/object"] = Parsed(R"({"vnics":["v"]})");
  Platform().ids["vnic"] = {"v"};
  Platform().records["vnic/v/object"] = Parsed(R"({"guest_id":"g4","running":{"h":{"bridge_name":"PN"}}})");
  // A guest without interfaces has no link.
  EXPECT_EQ(Updated(), R"({"guests":[)" + Status("g2", "running", "warning") + "," + Status("g1", "crashed", "error") +
                           "," + Status("g3", "shutdown", "error") + "," + Status("g4", "running", "healthy") + "]}");
}

TEST_F(GuestStatusCache, Update_ConnectedMapFails_GuestsCountAsConnected) {
  AddGuest("g", State::Guest::running);
  Platform().category_results["vnic"] = {-1};
  EXPECT_EQ(Updated(), R"({"guests":[)" + Status("g", "running", "healthy") + "]}");
}

TEST_F(GuestStatusCache, Update_SecondListingFails_KeepsDefault) {
  AddGuest("g", State::Guest::running, "lost");
  const std::string quick = R"({"guests":[)" + Status("g", "running", "healthy") + "]}";
  for (const int result : {-1, 1}) {
    Platform().reads.clear();
    Platform().category_results["guest"] = {0, result};
    EXPECT_EQ(Updated(), quick);
    EXPECT_EQ(Platform().reads, (Strings{"guest", "guest"}));
    // Without the first listing there is no default, but the refresh continues.
    Platform().reads.clear();
    Platform().category_results["guest"] = {result, 0};
    EXPECT_EQ(Updated(), R"({"guests":[)" + Status("g", "crashed", "error") + "]}");
  }
  Platform().category_results["guest"] = {-1};
  EXPECT_EQ(Updated(), R"({"guests":[]})");
}

class WithOwnDefault : public GuestUIStatusCache {
 public:
  Json::Value GetDefaultValue() const override { return default_; }
  Json::Value default_;
};

TEST_F(GuestStatusCache, Update_StartsFromADerivedDefault) {
  WithOwnDefault cache;
  cache.default_ = Parsed(R"({"guests":[1],"more":2})");
  Json::Value data;
  EXPECT_TRUE(cache.GetUpdatedData(data));
  EXPECT_EQ(Text(data), R"({"guests":[],"more":2})");
  Platform().category_results["guest"] = {-1};
  EXPECT_TRUE(cache.GetUpdatedData(data));
  EXPECT_EQ(Text(data), R"({"guests":[1],"more":2})");
  Platform().category_results.clear();
  cache.default_ = "text";
  EXPECT_TRUE(cache.GetUpdatedData(data));
  EXPECT_EQ(Text(data), R"({"guests":[]})");
}

TEST_F(GuestStatusCache, Update_ConfigurationOfAnyType_NeverThrows) {
  AddGuest("g", State::Guest::shutdown);
  Platform().confs["g"]["shutdownreasonvalue"] = 9;
  Platform().confs["g"]["is_forced_shutdown"] = true;
  ForEachMutation(Platform().confs["g"], [&] {
    Default();
    Updated();
  });
}

TEST_F(GuestStatusCache, ValidValue_IsAnObjectWithAnArrayOfGuests) {
  const GuestUIStatusCache cache;
  for (const char* valid : {R"({"guests":[]})", R"({"guests":[5],"more":1})"}) {
    EXPECT_TRUE(GuestUIStatusCache::IsValidData(Parsed(valid)));
    EXPECT_TRUE(cache.IsValid(Parsed(valid)));
  }
  for (const char* invalid : {"null", "{}", R"({"guests":{}})", R"({"guests":null})", R"({"guests":"x"})", "[]", "5",
                              R"("guests")", R"([{"guests":[]}])"}) {
    EXPECT_FALSE(GuestUIStatusCache::IsValidData(Parsed(invalid))) << invalid;
    EXPECT_FALSE(cache.IsValid(Parsed(invalid))) << invalid;
    std::vector<GuestUIStatus> out;
    EXPECT_FALSE(ParseGuestUIStatusCache(Parsed(invalid), out));
    EXPECT_TRUE(out.empty());
    ExpectLines({kInvalid});
  }
}

TEST_F(GuestStatusCache, Dictionary_InvalidElements_AreSkippedSilently) {
  const std::string value = R"({"guests":[5,)" + Status("a", "s", "t") +
                            R"(,null,{"guest_id":"b","status":"s"},[],{"guest_id":1,"status":"s","status_type":"t"},)" +
                            Status("c", "s2", "t2") + "]}";
  std::vector<GuestUIStatus> out(1);
  EXPECT_TRUE(ParseGuestUIStatusCache(Parsed(value), out));
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[1].guest_id, "a");
  EXPECT_EQ(out[2].guest_id + out[2].status + out[2].status_type, "cs2t2");
  ExpectNoLine();
}

TEST_F(GuestStatusCache, Dictionary_ReturnsCachedValueWithoutWaiting) {
  Platform().cached = Parsed(R"({"guests":[)" + Status("a", "s1", "t1") + "," + Status("b", "s2", "t2") + "," +
                             Status("a", "s3", "t3") + "]}");
  std::map<std::string, UIState> dict = {{"b", {"old", "old"}}, {"kept", {"k", "k"}}};
  EXPECT_TRUE(GetCachedGuestUIStateDict(dict));
  EXPECT_EQ(dict.size(), 3u);
  EXPECT_EQ(dict["a"].state + dict["a"].type, "s3t3");
  EXPECT_EQ(dict["b"].state + dict["b"].type, "s2t2");
  EXPECT_EQ(dict["kept"].state, "k");
  EXPECT_EQ(Text(Platform().caches.at(0)), R"(["virtualization","guest_ui_status",5,0])");
  ExpectNoLine();
}

TEST_F(GuestStatusCache, Dictionary_NothingCached_HasDefaults) {
  AddGuest("g", State::Guest::booting);
  std::map<std::string, UIState> dict;
  EXPECT_TRUE(GetCachedGuestUIStateDict(dict));
  EXPECT_EQ(dict["g"].state, "booting");
  Platform().cached = Parsed(R"({"guests":[]})");
  dict.clear();
  EXPECT_TRUE(GetCachedGuestUIStateDict(dict));
  EXPECT_TRUE(dict.empty());
}

TEST_F(GuestStatusCache, Dictionary_CachedValueOfAnyType_IsUsedOrRefusedWithOneLine) {
  Json::Value good = Parsed(R"({"guests":[)" + Status("a", "s", "t") + "]}");
  ForEachMutation(good, [&] {
    Platform().cached = good;
    std::map<std::string, UIState> dict = {{"kept", {}}};
    const bool is_valid = json::Member(good, "guests").isArray();
    EXPECT_EQ(GetCachedGuestUIStateDict(dict), is_valid);
    EXPECT_TRUE(dict.contains("kept"));
    ExpectLines(is_valid ? Strings{} : Strings{kInvalid});
  });
}

// The slot of a virtual operation as the C++ ABI numbers them, a virtual destructor having two.
template <class Operation>
std::size_t SlotOf(Operation operation) {
  std::size_t encoded = 0;
  std::memcpy(&encoded, &operation, sizeof(encoded));
  return (encoded - 1) / sizeof(void*);
}

TEST_F(GuestStatusCache, VirtualTable_Operations_AreInTheirSlots) {
  using VexaDR::Cache::DRCache;
  EXPECT_EQ(SlotOf(&DRCache::GetErr), 0u);
  EXPECT_EQ(SlotOf(&DRCache::GetErrCodeStr), 1u);
  // 2 and 3: the destructor.
  EXPECT_EQ(SlotOf(&DRCache::BlockedRead), 4u);
  EXPECT_EQ(SlotOf(&DRCache::NonBlockedRead), 5u);
  EXPECT_EQ(SlotOf(&DRCache::ReadCachedData), 6u);
  EXPECT_EQ(SlotOf(&DRCache::GetInfo), 7u);
  EXPECT_EQ(SlotOf(&GuestUIStatusCache::GetDefaultValue), 8u);
  EXPECT_EQ(SlotOf(&GuestUIStatusCache::GetUpdatedData), 9u);
  EXPECT_EQ(SlotOf(&GuestUIStatusCache::IsValid), 10u);
  EXPECT_EQ(SlotOf(&DRCache::IsDataTimeout), 11u);
}

TEST_F(GuestStatusCache, Tables_ManyThreads_AreReadSafely) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(GuestUIStatus("g").status, "running");
        EXPECT_EQ(GetHostStateCate(State::Host::inaccessible, State::Version::unknown), 1);
        EXPECT_EQ(CompareVersionStatePriority(State::Version::upgrade_required, "odd"), 1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace vexa::test
