// The warnings of a high-availability group's hosts.
#include <string>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/state_fixture.h"
#include "webapi/platform/ccc_constants.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

namespace Host = VexaCCC::State::Host;
namespace json = VexaVirtualization::json;
using VexaVirtualization::GetHAWarnReason;
using Strings = std::vector<std::string>;

constexpr const char* kStorageOnly = R"(["repo_host"])";
constexpr const char* kRunning = R"(["repo_host","running_host"])";

class HaWarnings : public StateLibrary {
 protected:
  void SetUp() override {
    StateLibrary::SetUp();
    for (const char* id : {"h1", "h2"}) {
      Platform().records[std::string("host/") + id + "/state"] = Host::running;
      Platform().names[std::string("host/") + id] = std::string("name of ") + id;
    }
    ha_ = Parsed(R"({"hosts":[{"host_id":"h1","ha_host_role":["running_host"]},)"
                 R"({"host_id":"h2","ha_host_role":["recovery_host"]}]})");
  }

  Json::Value& Item(int i) { return ha_["hosts"][i]; }
  void Judge() {
    reason_ = "old";
    hosts_ = Json::Value(Json::arrayValue);
    GetHAWarnReason(ha_, warn_, reason_, hosts_);
  }
  static Strings DetailsOf(const Json::Value& record) {
    Strings details;
    for (const Json::Value& detail : record["ha_host_status_detail"]) details.push_back(detail.asString());
    return details;
  }
  Strings Details(int i) const { return DetailsOf(hosts_[i]); }
  // Judges one host with these problems.
  Strings DetailsFor(const char* roles, int problems) {
    ha_ = Parsed(R"({"hosts":[{"host_id":"h1"}]})");
    Item(0)["ha_host_role"] = Parsed(roles);
    Item(0)["ha_warn_host_rocky"] = problems;
    Judge();
    return Details(0);
  }

  Json::Value ha_;
  Json::Value warn_;
  std::string reason_;
  Json::Value hosts_;
};

TEST_F(HaWarnings, Warnings_HealthyHosts_HaveRecordsWithoutReason) {
  Item(0)["more"] = 1;
  Judge();
  EXPECT_EQ(reason_, "");
  EXPECT_EQ(Text(hosts_), R"([{"ha_host_role":["running_host"],"ha_host_status":"host_running",)"
                          R"("ha_host_status_detail":[],"ha_host_status_type":"healthy","host_id":"h1",)"
                          R"("host_name":"name of h1"},{"ha_host_role":["recovery_host"],)"
                          R"("ha_host_status":"host_running","ha_host_status_detail":[],)"
                          R"("ha_host_status_type":"healthy","host_id":"h2","host_name":"name of h2"}])");
  ExpectNoLine();
}

TEST_F(HaWarnings, Ha_OutputNotArray_LogsOnlyLine869) {
  for (const char* output : {"null", "5", R"("x")", R"({"a":1})"}) {
    reason_ = "untouched";
    hosts_ = Parsed(output);
    GetHAWarnReason(ha_, warn_, reason_, hosts_);
    EXPECT_EQ(reason_, "untouched");
    EXPECT_EQ(Text(hosts_), Text(Parsed(output)));
    ExpectOnlyLine(LOG_ERR, "utils:869 Bad parameters");
    ClearCapturedSyslog();
  }
  EXPECT_TRUE(Platform().reads.empty());
}

TEST_F(HaWarnings, Warnings_NoHosts_ClearReasonSilently) {
  for (const char* ha : {"null", "{}", R"({"hosts":{"a":{"ha_warn_host_rocky":-1}}})", R"({"hosts":[]})", "[]"}) {
    ha_ = Parsed(ha);
    Judge();
    EXPECT_EQ(reason_, "");
    EXPECT_TRUE(hosts_.empty());
  }
  ExpectNoLine();
}

TEST_F(HaWarnings, Warnings_HostUnreadable_IsInaccessibleAndNameless) {
  Platform().read_results["host/h1/state"] = -1;
  Platform().records["host/h2/state"] = Parsed("[]");
  Platform().names.erase("host/h2");
  Judge();
  EXPECT_EQ(hosts_[0]["ha_host_status"], Host::inaccessible);
  EXPECT_EQ(hosts_[0]["ha_host_status_type"], "error");
  EXPECT_EQ(hosts_[0]["host_name"], "name of h1");
  EXPECT_EQ(hosts_[1]["ha_host_status"], Host::inaccessible);
  EXPECT_EQ(hosts_[1]["host_name"], "unknown");
  // That is not a reason.
  EXPECT_EQ(reason_, "");
}

TEST_F(HaWarnings, Warnings_ExistingRecords_AreKeptFirstAndRated) {
  Item(1)["ha_warn_host_rocky"] = 1;
  hosts_ = Parsed(R"([{"ha_host_status":"host_running","ha_host_status_detail":["x"]},)"
                  R"({"ha_host_status":"host_running","ha_host_status_type":"old"},{}])");
  GetHAWarnReason(ha_, warn_, reason_, hosts_);
  ASSERT_EQ(hosts_.size(), 5u);
  EXPECT_EQ(hosts_[0]["ha_host_status_type"], "warning");
  EXPECT_EQ(hosts_[1]["ha_host_status_type"], "healthy");
  EXPECT_EQ(hosts_[2]["ha_host_status_type"], "error");
  EXPECT_EQ(hosts_[3]["host_id"], "h1");
  EXPECT_EQ(Details(0), Strings{"x"});
  EXPECT_EQ(Details(3), Strings{});
  EXPECT_EQ(Details(4), Strings{"ha_warn_host_rocky_problem0"});
}

TEST_F(HaWarnings, Warnings_HostInaccessible_HasNoOtherDetail) {
  Item(0)["ha_warn_host_rocky"] = -1;
  Item(0)["ha_warn_host_not_compatible"] = Parsed("[401,402]");
  warn_ = Parsed(R"({"ha_warn_host_short_ram":{"h1":{}},"ha_warn_host_short_cpu":{"h2":1}})");
  Judge();
  EXPECT_EQ(reason_, "ha_warn_host_inaccessible");
  EXPECT_EQ(Details(0), Strings{"ha_warn_host_inaccessible"});
  EXPECT_EQ(Details(1), Strings{"ha_warn_host_short_cpu"});
}

TEST_F(HaWarnings, Warnings_InaccessibleStorageHostWithPositiveMask_HasOneDetail) {
  EXPECT_EQ(DetailsFor(kStorageOnly, -1), Strings{"ha_warn_host_inaccessible"});
  EXPECT_EQ(reason_, "ha_warn_host_inaccessible");
  EXPECT_EQ(DetailsFor(kRunning, -1), Strings{"ha_warn_host_inaccessible"});
}

TEST_F(HaWarnings, Warnings_Shortages_AreDetailsInOrder) {
  warn_ = Parsed(R"({"ha_warn_host_short_cpu_pin":{"h1":1,"h2":1},"ha_warn_host_short_cpu":{"h1":null},)"
                 R"("ha_warn_host_short_ram":{"h1":{}}})");
  Judge();
  EXPECT_EQ(reason_, "ha_warn_host_short_ram");
  EXPECT_EQ(Details(0), (Strings{"ha_warn_host_short_ram", "ha_warn_host_short_cpu", "ha_warn_host_short_cpu_pin"}));
  EXPECT_EQ(Details(1), Strings{"ha_warn_host_short_cpu_pin"});
}

TEST_F(HaWarnings, Warnings_ShortageOfOtherHost_IsStillReason) {
  for (const char* shortage : {"ha_warn_host_short_ram", "ha_warn_host_short_cpu", "ha_warn_host_short_cpu_pin"}) {
    warn_ = Json::Value(Json::objectValue);
    warn_[shortage]["elsewhere"] = 1;
    Judge();
    EXPECT_EQ(reason_, shortage);
    EXPECT_EQ(Details(0), Strings{});
  }
  for (const char* empty : {"{}", "null", "[]", R"(["h1"])", R"("h1")", "5"}) {
    warn_["ha_warn_host_short_ram"] = warn_["ha_warn_host_short_cpu"] = warn_["ha_warn_host_short_cpu_pin"] =
        Parsed(empty);
    Judge();
    EXPECT_EQ(reason_, "") << empty;
    EXPECT_EQ(Details(0), Strings{}) << empty;
  }
}

TEST_F(HaWarnings, Warnings_HostIncompatible_HasTwoChecks) {
  Item(0)["ha_warn_host_not_compatible"] = Parsed("[402,100,401,403,301,402,null,\"401\"]");
  Judge();
  EXPECT_EQ(reason_, "ha_warn_host_not_compatible");
  // A keyword that is there already is added again.
  EXPECT_EQ(Details(0), (Strings{"sriov_enabled", "hardware_incompatible", "sriov_enabled"}));
  EXPECT_EQ(hosts_[0]["ha_host_status_type"], "warning");
  Item(0)["ha_warn_host_not_compatible"] = Parsed("[100,301,400,403]");
  Judge();
  EXPECT_EQ(reason_, "");
}

TEST_F(HaWarnings, Warnings_DoubtfulHost_HasProblemsExceptFourth) {
  EXPECT_EQ(DetailsFor(kRunning, 31), (Strings{"ha_warn_host_rocky_problem0", "ha_warn_host_rocky_problem1",
                                               "ha_warn_host_rocky_problem2", "ha_warn_host_rocky_problem4"}));
  EXPECT_EQ(reason_, "ha_warn_host_rocky");
  EXPECT_EQ(DetailsFor(kRunning, 8), Strings{});
  EXPECT_EQ(reason_, "");
  EXPECT_EQ(DetailsFor(kRunning, 16), Strings{"ha_warn_host_rocky_problem4"});
  EXPECT_EQ(DetailsFor(kRunning, 0), Strings{});
  EXPECT_EQ(reason_, "");
}

TEST_F(HaWarnings, Warnings_StorageHost_IsRatedByThreeProblems) {
  for (const int problems : {8, 16, 24, 32}) {
    EXPECT_EQ(DetailsFor(kStorageOnly, problems), Strings{});
    EXPECT_EQ(reason_, "");
  }
  EXPECT_EQ(DetailsFor(kStorageOnly, 31),
            (Strings{"ha_warn_host_rocky_problem0", "ha_warn_host_rocky_problem1", "ha_warn_host_rocky_problem2"}));
  for (const char* roles : {R"(["repo_host","recovery_host"])", R"(["running_host","repo_host"])",
                            R"(["recovery_host"])", "[]", "null", R"("repo_host")", R"({"repo_host":1})"}) {
    EXPECT_EQ(DetailsFor(roles, 16), Strings{"ha_warn_host_rocky_problem4"}) << roles;
  }
}

TEST_F(HaWarnings, Warnings_UnnamedProblems_SetReasonWithoutDetail) {
  for (const int problems : {32, 40, 1 << 30}) {
    EXPECT_EQ(DetailsFor(kRunning, problems), Strings{});
    EXPECT_EQ(reason_, "ha_warn_host_rocky");
    EXPECT_EQ(hosts_[0]["ha_host_status_type"], "healthy");
  }
}

TEST_F(HaWarnings, Warnings_SeveralReasons_FirstInOrderCounts) {
  // From the last to the first, each added to those behind it.
  Item(1)["ha_warn_host_rocky"] = 1;
  Judge();
  EXPECT_EQ(reason_, "ha_warn_host_rocky");
  Item(1)["ha_warn_host_not_compatible"] = Parsed("[401]");
  Judge();
  EXPECT_EQ(reason_, "ha_warn_host_not_compatible");
  for (const char* shortage : {"ha_warn_host_short_cpu_pin", "ha_warn_host_short_cpu", "ha_warn_host_short_ram"}) {
    warn_[shortage]["h2"] = 1;
    Judge();
    EXPECT_EQ(reason_, shortage);
  }
  EXPECT_EQ(Details(1), (Strings{"ha_warn_host_short_ram", "ha_warn_host_short_cpu", "ha_warn_host_short_cpu_pin",
                                 "hardware_incompatible", "ha_warn_host_rocky_problem0"}));
  Item(0)["ha_warn_host_rocky"] = -5;
  Judge();
  EXPECT_EQ(reason_, "ha_warn_host_inaccessible");
  EXPECT_EQ(Details(1).size(), 5u);
}

TEST_F(HaWarnings, Warnings_HealthyWithDetails_SeverityIsNotThatOfState) {
  const std::pair<const char*, const char*> kTypes[] = {{Host::running, "warning"},
                                                        {Host::network_warn, "warning"},
                                                        {Host::control_unavail, "error"},
                                                        {Host::inaccessible, "error"},
                                                        {"odd", "error"}};
  for (const auto& [state, type] : kTypes) {
    Platform().records["host/h1/state"] = Platform().records["host/h2/state"] = state;
    Item(0)["ha_warn_host_rocky"] = 1;
    Judge();
    EXPECT_EQ(hosts_[0]["ha_host_status_type"], type);
    EXPECT_EQ(hosts_[1]["ha_host_status_type"], state == std::string(Host::running) ? "healthy" : type);
  }
}

TEST_F(HaWarnings, Warnings_InputOfAnyType_NeverThrowsAndHasOneRecordPerHost) {
  Item(0)["ha_warn_host_rocky"] = 5;
  Item(0)["ha_warn_host_not_compatible"] = Parsed("[401]");
  warn_ = Parsed(R"({"ha_warn_host_short_ram":{"h1":{}}})");
  ForEachMutation(ha_, [&] {
    Judge();
    const Json::Value& items = json::Member(ha_, "hosts");
    EXPECT_EQ(hosts_.size(), items.isArray() ? items.size() : 0u);
  });
  ForEachMutation(warn_, [&] { Judge(); });
  Json::Value output = Parsed(R"([{"ha_host_status":"host_running","ha_host_status_detail":["x"]}])");
  ForEachMutation(output, [&] {
    hosts_ = output;
    GetHAWarnReason(ha_, warn_, reason_, hosts_);
    if (!output.isArray()) return;
    EXPECT_EQ(hosts_.size(), output.size() + 2);
    for (const Json::Value& record : hosts_) EXPECT_TRUE(record.isMember("ha_host_status_type"));
  });
}

// The output is the very list that is read: it never ended.
TEST_F(HaWarnings, Ha_OutputAliasesInput_ReturnsRecordsOfInput) {
  Item(1)["ha_warn_host_rocky"] = -1;
  Judge();
  const Json::Value expected = hosts_;
  std::string reason;
  GetHAWarnReason(ha_, warn_, reason, ha_["hosts"]);
  EXPECT_EQ(reason, reason_);
  ASSERT_EQ(ha_["hosts"].size(), 4u);
  for (Json::ArrayIndex i = 0; i < 2; ++i) EXPECT_EQ(Text(ha_["hosts"][2 + i]), Text(expected[i])) << i;
}

// Any other part of the input may be the output as well.
TEST_F(HaWarnings, Warnings_OutputInsideInput_GetsRecords) {
  Item(0)["ha_warn_host_not_compatible"] = Parsed("[401,7]");
  Judge();
  const Json::Value expected = hosts_;
  Json::Value& output = Item(0)["ha_warn_host_not_compatible"];
  std::string reason;
  GetHAWarnReason(ha_, warn_, reason, output);
  EXPECT_EQ(reason, "ha_warn_host_not_compatible");
  ASSERT_EQ(output.size(), 4u);
  for (Json::ArrayIndex i = 0; i < 2; ++i) EXPECT_EQ(Text(output[2 + i]), Text(expected[i])) << i;
  warn_ = Json::Value(Json::arrayValue);
  GetHAWarnReason(ha_, warn_, reason, warn_);
  EXPECT_EQ(warn_.size(), 2u);
  Json::Value list(Json::arrayValue);
  GetHAWarnReason(list, warn_, reason, list);
  EXPECT_EQ(Text(list), "[]");
}

}  // namespace
}  // namespace vexa::test
