// The tables of states, row by row, and the look-ups in them.
#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "webapi/platform/ccc_constants.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using namespace VexaVirtualization;  // NOLINT: nearly all of it is under test
namespace State = VexaCCC::State;

struct StateRow {
  int number;
  int cate;
  const char* state;
  const char* ui_state;
  const char* type;
};

const StateRow kStateRows[] = {
    {1, 1, State::Host::running, "running", "healthy"},
    {2, 1, State::Host::inaccessible, "inaccessible", "error"},
    {3, 1, State::Host::network_warn, "network_warn", "warning"},
    {4, 1, State::Host::control_unavail, "control_unavail", "error"},
    {5, 2, State::Version::version_matched, "version_matched", "healthy"},
    {6, 2, State::Version::upgrade_suggested, "upgrade_suggested", "healthy"},
    {7, 2, State::Version::upgrade_required, "upgrade_required", "warning"},
    {8, 2, State::Version::package_upgrade_suggested, "package_upgrade_suggested", "healthy"},
    {9, 2, State::Version::package_upgrade_required, "package_upgrade_required", "warning"},
    {10, 3, State::Repo::online, "online", "healthy"},
    {11, 3, State::Repo::inaccessible, "missing", "error"},
    {12, 3, State::Repo::unavailable, "unavailable", "error"},
    {13, 3, State::Repo::degraded, "degraded", "warning"},
    {14, 3, State::Repo::crashed, "crashed", "error"},
    {15, 3, State::Repo::full, "full", "error"},
    {16, 3, State::Repo::provision_warning, "provision_warning", "warning"},
    {17, 4, State::Guest::creating, "creating", "healthy"},
    {18, 4, State::Guest::importing, "importing", "healthy"},
    {19, 4, State::Guest::running, "running", "healthy"},
    {20, 4, State::Guest::shutdown, "shutdown", "healthy"},
    {21, 4, State::Guest::booting, "booting", "healthy"},
    {22, 4, State::Guest::shutting_down, "shutting_down", "healthy"},
    {23, 4, State::Guest::moving, "moving", "healthy"},
    {24, 4, State::Guest::stor_migrating, "stor_migrating", "healthy"},
    {25, 4, State::Guest::preparing, "preparing", "healthy"},
    {26, 4, State::Guest::ha_standby, "ha_standby", "healthy"},
    {27, 4, State::Guest::saved, "saved", "healthy"},
    {28, 4, State::Guest::inaccessible, "inaccessible", "error"},
    {29, 4, State::Guest::crashed, "crashed", "error"},
    {30, 4, State::Guest::unknown, "unknown", "error"},
    {31, 4, State::Guest::freeze, "freeze", "error"},
    {32, 5, State::vDisk::online, "online", "healthy"},
    {33, 5, State::vDisk::inaccessible, "missing", "error"},
    {34, 5, State::vDisk::unavailable, "unavailable", "error"},
    {35, 5, State::vDisk::degraded, "degraded", "warning"},
    {36, 5, State::vDisk::crashed, "crashed", "error"},
    {37, 5, State::vDisk::provision_warning, "provision_warning", "warning"},
    {38, 5, State::vDisk::full, "full", "error"},
    {39, 7, State::HAGroup::normal, "enabled", "healthy"},
    {40, 7, State::HAGroup::error, "error", "error"},
    {41, 7, State::HAGroup::failover, "failovering", "healthy"},
    {42, 7, State::HAGroup::switchover, "switchovering", "healthy"},
    {43, 7, State::HAGroup::warning, "warning", "warning"},
    {44, 7, State::HAGroup::pause, "pause", "warning"},
    {45, 7, State::HAGroup::switchover_waiting, "switchover_waiting", "healthy"},
};

void PrintTo(const StateRow& row, std::ostream* out) { *out << row.cate << " " << row.state; }

class StateRows : public testing::TestWithParam<StateRow> {};

TEST_P(StateRows, StateTable_EachRow_IsAtItsIndexAndDisplayed) {
  const StateRow& expected = GetParam();
  const VirtualizationState& row = StateTable[expected.number - 1];
  EXPECT_EQ(row.cate, expected.cate);
  EXPECT_EQ(row.state, expected.state);
  EXPECT_EQ(row.ui_state, expected.ui_state);
  EXPECT_EQ(row.type, expected.type);
  EXPECT_EQ(row.detail, "");

  const auto cate = static_cast<STATE_CATE>(expected.cate);
  std::string ui_state = "old";
  std::string type = "old";
  std::string detail = "kept";
  GetStateType(cate, expected.state, ui_state, type, detail);
  EXPECT_EQ(ui_state, expected.ui_state);
  EXPECT_EQ(type, expected.type);
  EXPECT_EQ(detail, "kept");
  ui_state = type = "old";
  GetStateType(cate, expected.state, ui_state, type);
  EXPECT_EQ(ui_state, expected.ui_state);
  EXPECT_EQ(type, expected.type);
  UIState ui{"old", "old"};
  GetStateType(cate, expected.state, ui);
  EXPECT_EQ(ui.state, expected.ui_state);
  EXPECT_EQ(ui.type, expected.type);
}

TEST_P(StateRows, State_OfAnotherKind_IsShownUnchangedWithError) {
  for (int cate = -1; cate <= 8; ++cate) {
    if (cate == GetParam().cate) continue;
    UIState ui;
    GetStateType(static_cast<STATE_CATE>(cate), GetParam().state, ui);
    EXPECT_EQ(ui.state, GetParam().state) << cate;
    EXPECT_EQ(ui.type, "error") << cate;
  }
}

INSTANTIATE_TEST_SUITE_P(All, StateRows, testing::ValuesIn(kStateRows));

TEST(States, StateTable_Rows_AreTheseWithEndMarker) {
  ASSERT_EQ(std::size(StateTable), std::size(kStateRows) + 1);
  const VirtualizationState& end = StateTable[std::size(kStateRows)];
  EXPECT_EQ(end.cate, 0);
  EXPECT_EQ(end.state + end.ui_state + end.type + end.detail, "");
}

TEST(States, State_UnknownOrEmpty_IsShownUnchangedWithError) {
  const std::string with_nul("guest_running\0", 14);
  for (const std::string& state : {std::string("odd"), std::string("Guest_running"), std::string(), with_nul}) {
    for (int cate = 0; cate <= 7; ++cate) {
      std::string ui_state = "old";
      std::string type = "old";
      std::string detail = "kept";
      GetStateType(static_cast<STATE_CATE>(cate), state, ui_state, type, detail);
      EXPECT_EQ(ui_state, state);
      EXPECT_EQ(type, "error");
      EXPECT_EQ(detail, "kept");
    }
  }
}

TEST(States, StateTable_DisplayedStateAliasesInput_IsFound) {
  std::string state = State::Repo::inaccessible;
  std::string type;
  GetStateType(STATE_CATE_REPOSITORY, state, state, type);
  // The state is overwritten only once its row is found.
  EXPECT_EQ(state, "missing");
  EXPECT_EQ(type, "error");
}

struct HostRow {
  int number;
  const char* host;
  const char* version;
  int cate;
};

const HostRow kHostRows[] = {
    {1, State::Host::running, State::Version::version_matched, 1},
    {2, State::Host::running, State::Version::upgrade_suggested, 2},
    {3, State::Host::running, State::Version::upgrade_required, 2},
    {4, State::Host::running, State::Version::package_upgrade_suggested, 2},
    {5, State::Host::running, State::Version::package_upgrade_required, 2},
    {6, State::Host::running, State::Version::unknown, 1},
    {7, State::Host::network_warn, State::Version::version_matched, 1},
    {8, State::Host::network_warn, State::Version::upgrade_suggested, 1},
    {9, State::Host::network_warn, State::Version::upgrade_required, 1},
    {10, State::Host::network_warn, State::Version::package_upgrade_suggested, 1},
    {11, State::Host::network_warn, State::Version::package_upgrade_required, 1},
    {12, State::Host::network_warn, State::Version::unknown, 1},
    {13, State::Host::control_unavail, State::Version::version_matched, 1},
    {14, State::Host::control_unavail, State::Version::upgrade_suggested, 1},
    {15, State::Host::control_unavail, State::Version::upgrade_required, 1},
    {16, State::Host::control_unavail, State::Version::package_upgrade_suggested, 1},
    {17, State::Host::control_unavail, State::Version::package_upgrade_required, 1},
    {18, State::Host::control_unavail, State::Version::unknown, 1},
    {19, State::Host::inaccessible, State::Version::version_matched, 1},
    {20, State::Host::inaccessible, State::Version::upgrade_suggested, 1},
    {21, State::Host::inaccessible, State::Version::upgrade_required, 1},
    {22, State::Host::inaccessible, State::Version::unknown, 1},
};

void PrintTo(const HostRow& row, std::ostream* out) { *out << row.host << " " << row.version; }

class HostRows : public testing::TestWithParam<HostRow> {};

TEST_P(HostRows, HostStateTable_EachRow_IsAtItsIndexAndFound) {
  const HostState& row = HostStateTable[GetParam().number - 1];
  EXPECT_EQ(row.host_state, GetParam().host);
  EXPECT_EQ(row.version_state, GetParam().version);
  EXPECT_EQ(row.cate, GetParam().cate);
  EXPECT_EQ(GetHostStateCate(GetParam().host, GetParam().version), GetParam().cate);
}

INSTANTIATE_TEST_SUITE_P(All, HostRows, testing::ValuesIn(kHostRows));

TEST(States, HostStateTable_Rows_Are22WithEndMarker) {
  EXPECT_EQ(std::size(HostStateTable), std::size(kHostRows) + 1);
  EXPECT_EQ(HostStateTable[22].host_state + HostStateTable[22].version_state, "");
  EXPECT_EQ(HostStateTable[22].cate, 0);
}

TEST(States, HostState_CombinationWithoutRow_HasNoCategory) {
  EXPECT_EQ(GetHostStateCate(State::Host::inaccessible, State::Version::package_upgrade_suggested), 0);
  EXPECT_EQ(GetHostStateCate(State::Host::inaccessible, State::Version::package_upgrade_required), 0);
  EXPECT_EQ(GetHostStateCate("", ""), 0);
  EXPECT_EQ(GetHostStateCate("", State::Version::unknown), 0);
  EXPECT_EQ(GetHostStateCate(State::Host::running, ""), 0);
  EXPECT_EQ(GetHostStateCate(State::Version::version_matched, State::Host::running), 0);
  EXPECT_EQ(GetHostStateCate(std::string(State::Host::running) + " ", State::Version::version_matched), 0);
}

TEST(States, VersionPriority_Table_IsAscending) {
  // The unknown one first.
  const std::string rising[] = {
      "odd",
      State::Version::version_matched,
      State::Version::package_upgrade_suggested,
      State::Version::upgrade_suggested,
      State::Version::package_upgrade_required,
      State::Version::upgrade_required,
  };
  ASSERT_EQ(std::size(VersionStatePriorityTable), 5u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(VersionStatePriorityTable[i], rising[i + 1]);
  for (int a = 0; a < 6; ++a) {
    for (int b = 0; b < 6; ++b) {
      EXPECT_EQ(CompareVersionStatePriority(rising[a], rising[b]), a < b ? -1 : a == b ? 0 : 1) << a << " " << b;
    }
  }
  EXPECT_EQ(CompareVersionStatePriority("odd", ""), 0);
  EXPECT_EQ(CompareVersionStatePriority(State::Version::unknown, "odd"), 0);
}

}  // namespace
}  // namespace vexa::test
