// The table of guests' states that lists are made of.
#include "host/api/user/guest_states.h"

#include <gtest/gtest.h>

#include <chrono>

#include "host/api/reason.h"
#include "host/api/user/unreachable_host.h"
#include "host/records/environment.h"
#include "host/records/live_state.h"
#include "host/records/request_scope.h"
#include "host/store/key.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::test {
namespace {

namespace states = VexaCCC::State;
using api::GuestLinkStates;
using api::GuestListing;
using api::GuestStates;
using api::GuestView;
using std::chrono::system_clock;

constexpr char kFirst[] = "00000000-0000-4000-8000-000000000001";
constexpr char kSecond[] = "00000000-0000-4000-8000-000000000002";
constexpr char kRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";

class GuestStatesTest : public ::testing::Test {
 protected:
  GuestStatesTest() {
    PutRepository(states::Repo::online, "h2");
    PutGuest(kFirst, "h2", states::Guest::running);
    PutGuest(kSecond, "h3", states::Guest::shutdown);
  }

  void PutRepository(const char* state, const char* host_id) {
    Json::Value record(Json::objectValue);
    record["state"] = state;
    record["host_id"] = host_id;
    host_.Put("repository", kRepository, record);
  }
  void PutGuest(const char* id, const char* host_id, const char* state) {
    Json::Value record(Json::objectValue);
    record["name"] = std::string("name of ") + id[35];
    record["host_id"] = host_id;
    record["repository_id"] = kRepository;
    record["state"] = state;
    record["vnics"].append(std::string("nic of ") + id);
    host_.Put("guest", id, record);
  }
  static void PutSeen(const char* host_id, system_clock::time_point time) {
    const auto count = std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
    (void)Require(records::CurrentEnvironment()->store->Commit(
        {{},
         {{store::MakeKey({"dash", "host", host_id, "object"}), "{}"},
          {store::MakeKey({"dash", "host", host_id, "seen"}), R"({"time":)" + std::to_string(count) + "}"}}}));
  }

  GuestListing List() {
    const records::RequestScope scope;
    return Require(states_.ListWith(links_));
  }
  static std::string Shown(const GuestListing& listing, std::size_t index) {
    const GuestView& guest = *listing.guests->at(index);
    return guest.name + ": " + guest.displayed.state + " " + guest.displayed.type;
  }
  void SetLinks(int bits) {
    GuestLinkStates links;
    links.connected[kFirst] = bits;
    links.origin.asked = GuestLinkStates::Clock::now();
    links.origin.revision = Require(records::CurrentEnvironment()->store->Read())->revision();
    links_ = std::make_shared<const GuestLinkStates>(std::move(links));
  }

  TestHost host_;
  GuestStates states_;
  std::shared_ptr<const GuestLinkStates> links_ = std::make_shared<const GuestLinkStates>();
};

TEST_F(GuestStatesTest, List_NothingChanged_DerivesNothing) {
  const GuestListing first = List();
  EXPECT_EQ(Shown(first, 0), "name of 1: running healthy");
  EXPECT_EQ(Shown(first, 1), "name of 2: shutdown healthy");
  const GuestListing second = List();
  EXPECT_EQ(first.guests, second.guests);
  EXPECT_EQ(first.version, second.version);
}

TEST_F(GuestStatesTest, List_OneGuestChanged_DerivesOnlyIt) {
  const GuestListing first = List();
  PutGuest(kSecond, "h3", states::Guest::crashed);
  const GuestListing second = List();
  EXPECT_EQ(Shown(second, 1), "name of 2: crashed error");
  EXPECT_EQ(first.guests->at(0), second.guests->at(0));
  EXPECT_NE(first.version, second.version);
}

TEST_F(GuestStatesTest, GuestStates_AddedAndRemovedGuests_AreListedInOrder) {
  List();
  constexpr char kBetween[] = "00000000-0000-4000-8000-000000000001a";
  Json::Value record(Json::objectValue);
  record["name"] = "between";
  record["state"] = states::Guest::shutdown;
  host_.Put("guest", kBetween, record);
  GuestListing listing = List();
  ASSERT_EQ(listing.guests->size(), 3u);
  EXPECT_EQ(listing.guests->at(1)->name, "between");
  host_.Remove("guest", kFirst);
  listing = List();
  ASSERT_EQ(listing.guests->size(), 2u);
  EXPECT_EQ(listing.guests->at(0)->name, "between");
  EXPECT_EQ(listing.guests->at(1)->name, "name of 2");
}

TEST_F(GuestStatesTest, List_RepositoryCrashes_UpdatesItsGuests) {
  List();
  PutRepository(states::Repo::crashed, "h2");
  EXPECT_EQ(Shown(List(), 0), "name of 1: crashed error");
  PutRepository(states::Repo::online, "h2");
  EXPECT_EQ(Shown(List(), 0), "name of 1: running healthy");
}

TEST_F(GuestStatesTest, GuestStates_HostGoneAndBack_UpdatesDependentGuests) {
  PutSeen("h2", system_clock::now());
  EXPECT_EQ(Shown(List(), 0), "name of 1: running healthy");
  PutSeen("h2", system_clock::now() - std::chrono::hours(1));
  const GuestListing gone = List();
  EXPECT_EQ(gone.guests->at(0)->displayed.state, "inaccessible");
  Json::Value shown(Json::objectValue);
  AddAge(*gone.guests->at(0), gone, shown);
  EXPECT_GE(shown["age_s"].asInt64(), 3600);
  EXPECT_LE(shown["age_s"].asInt64(), 3700);
  EXPECT_TRUE(shown.isMember("inaccessible_since"));
  EXPECT_EQ(gone.guests->at(1)->displayed.state, "inaccessible") << "its disks are in a repository of that host";
  PutSeen("h2", system_clock::now());
  EXPECT_EQ(Shown(List(), 0), "name of 1: running healthy");
  EXPECT_EQ(Shown(List(), 1), "name of 2: shutdown healthy");
}

TEST_F(GuestStatesTest, List_HostReferencedForFirstTime_IsWatched) {
  List();
  PutSeen("h9", system_clock::now());
  PutGuest(kFirst, "h9", states::Guest::running);
  EXPECT_EQ(Shown(List(), 0), "name of 1: running healthy");
  PutSeen("h9", system_clock::now() - std::chrono::hours(1));
  EXPECT_EQ(List().guests->at(0)->displayed.state, "inaccessible");
}

TEST_F(GuestStatesTest, List_RunningGuest_GetsStateAndAgeFromLinks) {
  EXPECT_EQ(Shown(List(), 0), "name of 1: running healthy") << "nothing is known";
  SetLinks(0);
  EXPECT_EQ(Shown(List(), 0), "name of 1: running warning");
  SetLinks(4);
  EXPECT_EQ(Shown(List(), 0), "name of 1: running healthy");
  SetLinks(0);
  EXPECT_EQ(Shown(List(), 0), "name of 1: running warning");
  (void)Require(records::CurrentEnvironment()->store->Commit(
      {{}, {{records::LiveStateKey(kFirst), "\"" + std::string(states::Guest::running) + "\""}}}));
  EXPECT_EQ(Shown(List(), 0), "name of 1: running healthy") << "it was started after the hosts were asked";
  SetLinks(0);
  EXPECT_EQ(Shown(List(), 0), "name of 1: running warning");
}

TEST_F(GuestStatesTest, GuestStates_StoreFails_ReloadsEverything) {
  List();
  PutGuest(kFirst, "h2", states::Guest::crashed);
  host_.store().FailSnapshots();
  {
    const records::RequestScope scope;
    EXPECT_FALSE(states_.ListWith(links_).ok());
  }
  host_.store().Heal();
  EXPECT_EQ(Shown(List(), 0), "name of 1: crashed error");
}

// The reason that an action on the first guest gives when it is answered with `code`; 0 is a success.
std::string ReasonFor(int code, api::NeededHost needed) {
  const api::Handler handler = api::WithGoneHostReason(
      [code](const api::Call& call) {
        if (code == 0) return call.response->SetSuccess(Json::Value());
        call.response->SetError(code, Json::Value());
      },
      needed);
  Json::Value parameters(Json::objectValue);
  parameters["guest_id"] = kFirst;
  VEXA::APIRequest request = AdministratorRequest(parameters);
  VEXA::APIResponse response;
  Json::Value extra_members(Json::objectValue);
  std::vector<std::pair<std::string, std::string>> headers;
  const api::Caller caller;
  const records::RequestScope scope;
  handler({&request, &response, caller, &headers, &extra_members});
  return extra_members[api::kReason].isString() ? extra_members[api::kReason].asString() : "";
}

TEST_F(GuestStatesTest, Error_NeededHostGone_HasReason) {
  using enum api::NeededHost;
  PutSeen("h2", system_clock::now());
  EXPECT_EQ(ReasonFor(902, kHolderOrAssigned), "") << "it is there";
  PutSeen("h2", system_clock::time_point(std::chrono::seconds(1'000'000'000)));
  const std::string sentence =
      "The guest's host 'h2' has been inaccessible since 2001-09-09T01:46:40Z; when its machine is off, release the "
      "guest with 'vexa guest recover'.";
  EXPECT_EQ(ReasonFor(902, kHolderOrAssigned), sentence);
  EXPECT_EQ(ReasonFor(901, kHolder), "") << "the guest is off";
  EXPECT_EQ(ReasonFor(409, kHolderOrAssigned), "") << "users without rights on the guest learn nothing about it";
  EXPECT_EQ(ReasonFor(0, kHolderOrAssigned), "");
  (void)Require(
      records::CurrentEnvironment()->store->Commit({{}, {{store::MakeKey({"run", kFirst}), R"({"host_id":"h2"})"}}}));
  EXPECT_EQ(ReasonFor(901, kHolder), sentence);
}

}  // namespace
}  // namespace vexa::test
