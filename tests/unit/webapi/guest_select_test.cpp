// GuestAction::AutoSelectHost: which host wins, and what is sent and logged.
#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/guest_action_fixture.h"
#include "webapi/guest/guest_action.h"

namespace vexa::test {
namespace {

using VexaVirtualization::GuestAction;

constexpr char kRate[] = "local/check_host_resource";
constexpr char kAssign[] = "local/hostset";
constexpr char kNoHostFound[] = "guest_action: Failed to find a available host to poweron guest[g]";

class GuestSelect : public GuestActions {
 protected:
  void SetUp() override {
    GuestActions::SetUp();
    Platform().method_replies[kAssign] = Success("null");
  }

  static void Rate(const std::string& hosts) {
    Platform().method_replies[kRate] = Success("{\"hosts\":" + hosts + "}");
  }
  static void ExpectNoHost() {
    EXPECT_EQ(GuestAction::AutoSelectHost("g"), -1);
    ExpectCalls({std::string("send ") + kRate});
    ExpectLines({kNoHostFound});
  }
};

// One row: how the hosts are rated, and which one is chosen; "" when none is.
struct Choice {
  const char* name;
  const char* hosts;
  const char* chosen;
};
std::ostream& operator<<(std::ostream& out, const Choice& row) { return out << row.name; }

const Choice kChoices[] = {
    {"OnlyOne", R"([{"host_id":"a","available":true,"status":[]}])", "a"},
    {"LastAvailable", R"([{"host_id":"a","available":true},{"host_id":"b","available":true}])", "b"},
    {"UnavailableIsSkipped",
     R"([{"host_id":"a","available":true},{"host_id":"b","available":false},{"host_id":"c","available":true}])", "c"},
    {"LastIsUnavailable", R"([{"host_id":"a","available":true},{"host_id":"b","available":false}])", "a"},
    {"BestStorageEndsTheWalk",
     R"([{"host_id":"a","available":true},{"host_id":"b","available":true,"status":["best_io"]},
         {"host_id":"c","available":true}])",
     "b"},
    {"FirstOfTwoWithBestStorage",
     R"([{"host_id":"a","available":true,"status":["best_io"]},
         {"host_id":"b","available":true,"status":["best_io"]}])",
     "a"},
    {"BestStorageAmongOtherTags",
     R"([{"host_id":"a","available":true,"status":["x",5,null,{},"best_io"]},{"host_id":"b","available":true}])", "a"},
    {"OtherTagsAlone", R"([{"host_id":"a","available":true,"status":["best_cpu"]},{"host_id":"b","available":true}])",
     "b"},
    {"TagOfAnotherCase",
     R"([{"host_id":"a","available":true,"status":["Best_io","best_io "]},{"host_id":"b","available":true}])", "b"},
    {"TagThatIsNoList", R"([{"host_id":"a","available":true,"status":"best_io"},{"host_id":"b","available":true}])",
     "b"},
    {"BestStorageButUnavailable",
     R"([{"host_id":"a","available":true},{"host_id":"b","available":false,"status":["best_io"]}])", "a"},
    {"BestStorageWithoutAvailable", R"([{"host_id":"a","available":true},{"host_id":"b","status":["best_io"]}])", "a"},
    {"NumberAsAvailable", R"([{"host_id":"a","available":1}])", "a"},
    {"TextAsAvailable", R"([{"host_id":"a","available":"true"}])", ""},
    {"NullAsAvailable", R"([{"host_id":"a","available":null}])", ""},
    {"NumberAsId", R"([{"host_id":7,"available":true}])", "7"},
    {"EmptyIdLastLosesAll", R"([{"host_id":"a","available":true},{"host_id":"","available":true}])", ""},
    {"MissingIdLastLosesAll", R"([{"host_id":"a","available":true},{"available":true}])", ""},
    {"ObjectIdLastLosesAll", R"([{"host_id":"a","available":true},{"host_id":{},"available":true}])", ""},
    {"EmptyIdInBetween", R"([{"host_id":"","available":true},{"host_id":"b","available":true}])", "b"},
    {"EmptyIdWithBestStorage",
     R"([{"host_id":"a","available":true},{"host_id":"","available":true,"status":["best_io"]},
         {"host_id":"c","available":true}])",
     ""},
    {"ObjectOfHosts", R"({"z":{"host_id":"a","available":true},"b":{"host_id":"b","available":true}})", "a"},
    {"ObjectOfHostsWithBestStorage",
     R"({"z":{"host_id":"a","available":true},"b":{"host_id":"b","available":true,"status":["best_io"]}})", "b"},
    {"EntriesOfOtherTypes", R"([null,5,"x",[],{"host_id":"a","available":true},true])", "a"},
    {"NoHosts", "[]", ""},
    {"NobodyAvailable", R"([{"host_id":"a","available":false},{"host_id":"b"}])", ""},
    {"HostsNull", "null", ""},
    {"HostsText", R"("a")", ""},
    {"HostsNumber", "5", ""},
    {"HostsEmptyObject", "{}", ""},
};

class GuestSelectChoice : public GuestSelect, public testing::WithParamInterface<Choice> {};

TEST_P(GuestSelectChoice, SelectHost_EachRating_ChoosesDocumentedHost) {
  Rate(GetParam().hosts);
  const std::string chosen = GetParam().chosen;
  if (chosen.empty()) return ExpectNoHost();
  EXPECT_EQ(GuestAction::AutoSelectHost("g"), 0);
  ExpectCalls({std::string("send ") + kRate, std::string("send ") + kAssign});
  EXPECT_EQ(Text(Platform().sent.back().json),
            Text(Parsed(R"({"api":"VEXA.CCC.Guest","version":1,"method":"hostset","guest_id":"g","host_id":")" +
                        chosen + "\"}")));
  ExpectLines({"guest_action: Succeccfully auto select host[" + chosen + "] to poweron guest[g]"});
}

INSTANTIATE_TEST_SUITE_P(Rows, GuestSelectChoice, testing::ValuesIn(kChoices),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(GuestSelect, SelectHost_Requests_GoToLocalHostWithoutTimeout) {
  Rate(R"([{"host_id":"a","available":true}])");
  EXPECT_EQ(GuestAction::AutoSelectHost("g"), 0);
  ASSERT_EQ(Platform().sent.size(), 2u);
  EXPECT_EQ(Text(Platform().sent[0].json),
            Text(Parsed(R"({"api":"VEXA.Virtualization.Guest.Action","version":1,"method":"check_host_resource",
                            "guest_id":"g","type":"poweron"})")));
  for (const auto& sent : Platform().sent) {
    EXPECT_EQ(sent.host_id, "local");
    EXPECT_EQ(sent.timeout_s, 0);
    EXPECT_EQ(sent.by, SentRequest::By::kSender);
  }
  ExpectClusterLog({});
}

TEST_F(GuestSelect, SelectHost_RatingFails_IsReportedAndAssignsNothing) {
  Platform().method_replies[kRate] = Failure(507);
  EXPECT_EQ(GuestAction::AutoSelectHost("g"), -1);
  ExpectCalls({std::string("send ") + kRate});
  ExpectLines({BadResponse("guest_action", 0, Failure(507))});
}

TEST_F(GuestSelect, SelectHost_NoHosts_FindsNone) {
  for (const char* data : {"null", "{}", "[]", "5", R"("hosts")"}) {
    Platform().calls.clear();
    Platform().method_replies[kRate] = Success(data);
    ExpectNoHost();
  }
}

TEST_F(GuestSelect, SelectHost_AssignmentFails_LogsNoSuccess) {
  Rate(R"([{"host_id":"a","available":true}])");
  Platform().method_replies[kAssign] = Failure(900);
  EXPECT_EQ(GuestAction::AutoSelectHost("g"), -1);
  ExpectLines({BadResponse("guest_action", 1, Failure(900))});
}

TEST_F(GuestSelect, SelectHost_MutatedReplies_NeverThrow) {
  Json::Value reply = Success(
      R"({"hosts":[{"host_id":"a","available":true,"status":["x"]},{"host_id":"b","available":true,"status":["best_io"]}]})");
  ForEachMutation(reply, [&] {
    Platform().sent.clear();
    Platform().method_replies[kRate] = reply;
    const int result = GuestAction::AutoSelectHost("g");
    EXPECT_TRUE(result == 0 || result == -1);
    EXPECT_EQ(result == 0, Platform().sent.size() == 2);
  });
}

}  // namespace
}  // namespace vexa::test
