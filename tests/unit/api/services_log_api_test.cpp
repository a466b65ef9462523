// VEXA.Virtualization.Log "list" on a real store: who may read it, pages, following.
#include "host/api/user/log_api.h"

#include <gtest/gtest.h>

#include "host/cluster/cluster_log.h"
#include "tests/support/require.h"
#include "tests/unit/api/services_fixture.h"

namespace vexa::api {
namespace {

using test::Answer;
class LogApi : public ::testing::Test {
 protected:
  LogApi() : table_(LogRows()) {}

  void Add(std::int64_t time_us, const std::string& host_id = "h1") {
    ASSERT_TRUE(cluster::AddLogEntry(host_.store(), {time_us, host_id, "eve", 3, "A \"text\".", "id"}).ok());
  }
  Answer List(const std::string& parameters, const accounts::User& user = Administrator()) {
    return CallTable(table_, "VEXA.Virtualization.Log", "list", parameters, UserCaller(user));
  }
  static std::vector<int> Times(const Answer& answer) {
    std::vector<int> times;
    for (const Json::Value& entry : answer.data["entries"]) times.push_back(entry["time_us"].asInt());
    return times;
  }

  test::TestHost host_;
  ApiTable table_;
};

TEST_F(LogApi, Log_Entry_HasTimeAndHostName) {
  host_.PutText("host", "h1", R"({"name":"nas-1"})");
  Add(1'772'366'400'000'007);
  Add(1'772'366'400'000'008, "gone");
  const Answer answer = List("{}");
  ASSERT_EQ(answer.code, 0);
  EXPECT_EQ(answer.data, Parsed(R"({"next":"","entries":[
      {"position":1772366400000008,"time":"2026-03-01T12:00:00.000008Z","time_us":1772366400000008,"count":1,
       "first_time_us":1772366400000008,"host_id":"gone","host":"","user":"eve",
       "priority":3,"text":"A \"text\".","request_id":"id"},
      {"position":1772366400000007,"time":"2026-03-01T12:00:00.000007Z","time_us":1772366400000007,"count":1,
       "first_time_us":1772366400000007,"host_id":"h1","host":"nas-1","user":"eve",
       "priority":3,"text":"A \"text\".","request_id":"id"}]})"));
}

TEST_F(LogApi, Log_ClockBehindAndRepeatedRefusal_HavePositionAndCount) {
  Add(500);
  for (const int time : {400, 410}) {
    ASSERT_TRUE(cluster::AddLogEntry(host_.store(), {time, "h1", "eve", 1, "No.", "id"}).ok());
  }
  const Answer answer = List(R"({"after":500})");
  ASSERT_EQ(answer.data["entries"].size(), 1u);
  const Json::Value& refusal = answer.data["entries"][0];
  EXPECT_EQ(refusal["position"], 502);
  EXPECT_EQ(refusal["time_us"], 410);
  EXPECT_EQ(refusal["first_time_us"], 400);
  EXPECT_EQ(refusal["count"], 2);
}

TEST_F(LogApi, Pages_AreReadByCursor) {
  for (int time = 1; time <= 5; ++time) Add(time);
  Answer answer = List(R"({"limit":2})");
  EXPECT_EQ(Times(answer), (std::vector<int>{5, 4}));
  answer = List(R"({"limit":1000,"cursor":")" + answer.data["next"].asString() + "\"}");
  EXPECT_EQ(Times(answer), (std::vector<int>{3, 2, 1}));
  EXPECT_EQ(answer.data["next"], "");
}

TEST_F(LogApi, Limit_Missing_IsOneHundred) {
  for (int time = 1; time <= 101; ++time) Add(time);
  EXPECT_EQ(Times(List("{}")).size(), 100u);
  EXPECT_EQ(Times(List(R"({"after":0})")).size(), 100u);
}

TEST_F(LogApi, After_Cursor_ReturnsNewerEntriesOldestFirst) {
  for (int time = 1; time <= 5; ++time) Add(time);
  const Answer answer = List(R"({"after":2,"limit":2})");
  EXPECT_EQ(Times(answer), (std::vector<int>{3, 4}));
  EXPECT_EQ(answer.data["next"], "");
  EXPECT_EQ(Times(List(R"({"after":4})")), (std::vector<int>{5}));
  EXPECT_EQ(Times(List(R"({"after":9223372036854775807})")), std::vector<int>());
}

TEST_F(LogApi, Parameters_Invalid_AreRefused) {
  for (const char* parameters : {R"({"limit":0})", R"({"limit":1001})", R"({"limit":"5"})", R"({"limit":null})",
                                 R"({"cursor":7})", R"({"cursor":"x"})", R"({"after":-1})", R"({"after":"1"})",
                                 R"({"after":1.5})", R"({"after":2.0})", R"({"after":null})", R"({"after":true})",
                                 R"({"after":9223372036854775808})", R"({"after":{}})", R"({"after":1,"cursor":""})"}) {
    EXPECT_EQ(List(parameters).code, 401) << parameters;
  }
}

TEST_F(LogApi, Access_OrdinaryUser_IsRefusedAndAdvancedIsPermitted) {
  const auto ordinary = [](const std::string& name) { return accounts::User{name, 1026, 100, {}, false}; };
  host_.PutGuestAdmin("users", host_.AddUser("adam"), "advanced", {});
  host_.PutGuestAdmin("users", host_.AddUser("grace"), "user", {"g"});
  EXPECT_EQ(List("{}", ordinary("adam")).code, 0);
  EXPECT_EQ(List("{}", ordinary("grace")).code, 409);
  EXPECT_EQ(List("{}", ordinary("")).code, 409);
  EXPECT_EQ(List(R"({"limit":0})", ordinary("grace")).code, 409) << "whatever is asked";
}

TEST_F(LogApi, LogApi_StoreUnreadable_IsAnError) {
  host_.store().FailSnapshots();
  EXPECT_EQ(List("{}").code, 403);
  EXPECT_EQ(List(R"({"after":1})").code, 403);
}

}  // namespace
}  // namespace vexa::api
