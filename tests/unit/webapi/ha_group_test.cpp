// What is shown for a guest's high-availability group.
#include <string>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/state_fixture.h"
#include "webapi/platform/ccc_constants.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

namespace HAGroup = VexaCCC::State::HAGroup;
using VexaVirtualization::GetGuestHAStateType;

class HaGroup : public StateLibrary {
 protected:
  void SetUp() override {
    StateLibrary::SetUp();
    guest_ = Parsed(R"({"ha_group_id":"g"})");
    Platform().ha_states["g"] = HAGroup::normal;
    Platform().ha_warnings["g"] = Json::Value(Json::objectValue);
    Platform().ha_errors["g"] = 0;
  }
  void TearDown() override { ExpectNoLine(); }

  static void Warn() { Platform().ha_warnings["g"] = Parsed(R"({"ha_warn_host_short_cpu":{"elsewhere":1}})"); }
  void Show() {
    info_ = Parsed(R"({"ha":{"hosts":[]},"kept":1})");
    ui_state_ = "old state";
    type_ = "old type";
    reason_ = "old reason";
    GetGuestHAStateType(guest_, info_, ui_state_, type_, reason_);
    EXPECT_EQ(Text(info_), R"({"kept":1})");
  }
  std::string Shown() {
    Show();
    return ui_state_ + ", " + type_ + ", " + reason_;
  }

  Json::Value guest_;
  Json::Value info_;
  std::string ui_state_, type_, reason_;
};

constexpr const char* kUntouched = "old state, old type, old reason";

TEST_F(HaGroup, Guest_WithoutGroup_LosesOnlyMember) {
  for (const char* guest :
       {"{}", R"({"ha_group_id":""})", R"({"ha_group_id":null})", R"({"ha_group_id":["g"]})", "null", "[]", R"("g")"}) {
    guest_ = Parsed(guest);
    EXPECT_EQ(Shown(), kUntouched) << guest;
  }
}

TEST_F(HaGroup, Guest_GroupUnreadable_LosesOnlyMember) {
  for (const int result : {-1, 1, 2}) {
    Platform().ha_results["state"] = result;
    EXPECT_EQ(Shown(), kUntouched);
  }
  Platform().ha_results.clear();
  guest_["ha_group_id"] = "other";
  EXPECT_EQ(Shown(), kUntouched);
}

struct GroupRow {
  const char* state;
  bool is_warned;
  int failure;
  const char* shown;
};

void PrintTo(const GroupRow& row, std::ostream* out) {
  *out << row.state << (row.is_warned ? " warned " : " ") << row.failure;
}

class HaGroupRows : public HaGroup, public testing::WithParamInterface<GroupRow> {};

TEST_P(HaGroupRows, HaGroup_EachSituation_MatchesRules) {
  Platform().ha_states["g"] = GetParam().state;
  Platform().ha_errors["g"] = GetParam().failure;
  if (GetParam().is_warned) Warn();
  EXPECT_EQ(Shown(), GetParam().shown);
}

const GroupRow kGroupRows[] = {
    // Each state alone.
    {HAGroup::normal, false, 0, "enabled, healthy, old reason"},
    {HAGroup::error, false, 0, "error, error, old reason"},
    {HAGroup::failover, false, 0, "failovering, healthy, old reason"},
    {HAGroup::switchover, false, 0, "switchovering, healthy, old reason"},
    {HAGroup::warning, false, 0, "warning, warning, old reason"},
    {HAGroup::pause, false, 0, "pause, warning, old reason"},
    {HAGroup::switchover_waiting, false, 0, "switchover_waiting, healthy, old reason"},
    {"odd", false, 0, "odd, error, old reason"},
    // A pause never changes.
    {HAGroup::pause, true, 100, "pause, warning, old reason"},
    {HAGroup::pause, false, 202, "pause, warning, old reason"},
    // A warning shows on a normal group alone, and before its failure.
    {HAGroup::normal, true, 0, "warning, warning, ha_warn_host_short_cpu"},
    {HAGroup::normal, true, 100, "warning, warning, ha_warn_host_short_cpu"},
    {HAGroup::normal, true, 202, "warning, warning, ha_warn_host_short_cpu"},
    {HAGroup::warning, true, 0, "warning, warning, old reason"},
    {HAGroup::error, true, 0, "error, error, old reason"},
    {HAGroup::failover, true, 0, "failovering, healthy, old reason"},
    {HAGroup::error, true, 103, "error, error, ha_fail_storage_inaccessible"},
    // A switchover that waits shows on a failed group alone.
    {HAGroup::error, false, 202, "switchover_waiting, healthy, old reason"},
    {HAGroup::error, true, 202, "switchover_waiting, healthy, old reason"},
    {HAGroup::warning, false, 202, "warning, warning, old reason"},
    {HAGroup::normal, false, 202, "enabled, healthy, old reason"},
    {HAGroup::switchover, false, 202, "switchovering, healthy, old reason"},
    // Failures.
    {HAGroup::normal, false, 100, "error, error, ha_fail_no_avail_fo_host"},
    {HAGroup::normal, false, 101, "error, error, ha_fail_poweron_guest"},
    {HAGroup::normal, false, 102, "error, error, ha_fail_poweron_guest"},
    {HAGroup::normal, false, 103, "error, error, ha_fail_storage_inaccessible"},
    {HAGroup::normal, false, 200, "error, error, ha_fail_move_guest"},
    {HAGroup::normal, false, 201, "error, error, ha_fail_move_guest"},
    {HAGroup::failover, false, 100, "error, error, ha_fail_no_avail_fo_host"},
    {HAGroup::switchover_waiting, true, 200, "error, error, ha_fail_move_guest"},
    // Failures that have no keyword.
    {HAGroup::normal, false, 104, "error, error, unknown"},
    {HAGroup::normal, false, 203, "error, error, unknown"},
    {HAGroup::normal, false, 1, "error, error, unknown"},
    {HAGroup::normal, false, 99, "error, error, unknown"},
    {HAGroup::normal, false, 199, "error, error, unknown"},
    {HAGroup::normal, false, -1, "error, error, unknown"},
    {HAGroup::normal, false, -202, "error, error, unknown"},
};

INSTANTIATE_TEST_SUITE_P(All, HaGroupRows, testing::ValuesIn(kGroupRows));

TEST_F(HaGroup, Group_WarningsOrFailureUnreadable_CountAsNone) {
  Warn();
  Platform().ha_errors["g"] = 100;
  for (const int result : {-1, 1}) {
    Platform().ha_results = {{"warn", result}};
    EXPECT_EQ(Shown(), "error, error, ha_fail_no_avail_fo_host");
    Platform().ha_results = {{"warn", result}, {"error", result}};
    EXPECT_EQ(Shown(), "enabled, healthy, old reason");
    Platform().ha_results = {{"error", result}};
    EXPECT_EQ(Shown(), "warning, warning, ha_warn_host_short_cpu");
  }
}

TEST_F(HaGroup, Group_HostsOfInformation_AreRated) {
  info_ = Parsed(R"({"ha":{"hosts":[{"host_id":"h","ha_warn_host_rocky":-1}]}})");
  GetGuestHAStateType(guest_, info_, ui_state_, type_, reason_);
  EXPECT_EQ(reason_, "ha_warn_host_inaccessible");
  EXPECT_EQ(Text(info_), "{}");
}

TEST_F(HaGroup, Group_InformationOfAnyType_NeverThrows) {
  Json::Value good = Parsed(R"({"ha":{"hosts":[{"host_id":"h"}]},"kept":1})");
  ForEachMutation(good, [&] {
    info_ = good;
    GetGuestHAStateType(guest_, info_, ui_state_, type_, reason_);
    EXPECT_FALSE(info_.isObject() && info_.isMember("ha"));
    EXPECT_TRUE(good.isObject() || Text(info_) == Text(good));
  });
  ForEachMutation(guest_, [&] { Show(); });
  Warn();
  ForEachMutation(Platform().ha_warnings["g"], [&] { Show(); });
}

}  // namespace
}  // namespace vexa::test
