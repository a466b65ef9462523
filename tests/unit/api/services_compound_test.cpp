// Several methods in one request, over a real table.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "host/api/peer/compound_api.h"
#include "tests/unit/api/services_fixture.h"

namespace vexa::api {
namespace {

using std::chrono::milliseconds;
using test::Answer;

// Calls rows directly, as a daemon's own would on another thread.
transport::LocalCall CallOver(const ApiTable& table) {
  return [&table](const VexaDRCore::Request& request, milliseconds) {
    Json::Value reply(Json::objectValue);
    const ApiRow* row = table.Find(request.api(), request.method(), request.version());
    const Answer answer = row ? CallRow(*row, request.parameters()) : Answer{507, {}, {}};
    reply["success"] = answer.code == 0;
    reply["request_id"] = "not an item's";
    if (answer.code == 0) {
      reply["data"] = answer.data;
    } else {
      reply["error"]["code"] = answer.code;
    }
    return reply;
  };
}

ApiRow Row(std::string_view method, Handler handler) {
  return {.api = "VEXA.Test",
          .method = method,
          .version = 1,
          .access = Access::kHost,
          .lane = LaneKind::kQuick,
          .handler = std::move(handler),
          .summary = "",
          .parameters = {},
          .errors = {}};
}

// Returns only once as many callers are there as it was made for.
class Rendezvous {
 public:
  explicit Rendezvous(int expected) : expected_(expected) {}
  bool Join() {
    std::unique_lock lock(mutex_);
    ++present_;
    changed_.notify_all();
    return changed_.wait_for(lock, std::chrono::seconds(20), [this] { return present_ >= expected_; });
  }

 private:
  const int expected_;
  int present_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
};

class Compound : public ::testing::Test {
 protected:
  Compound()
      : table_({Row("echo", [](const Call& call) { call.response->SetSuccess(call.request->GetParam("", {})); }),
                Row("fail", [](const Call& call) { call.response->SetError(403, Json::Value()); }),
                Row("meet", [this](const Call& call) {
                  if (meeting_.Join()) call.response->SetSuccess(Json::Value("met"));
                })}) {}

  Answer Request(const std::string& parameters, CompoundOptions options = {}) {
    return Request(parameters, CallOver(table_), options);
  }
  static Answer Request(const std::string& parameters, transport::LocalCall local_call, CompoundOptions options = {}) {
    const ApiTable table(CompoundRows(std::move(local_call), options));
    return CallTable(table, "VEXA.Entry.Request", "request", parameters);
  }
  static std::string Items(int count, const std::string& method) {
    std::string items;
    for (int i = 0; i < count; ++i) {
      items += (i == 0 ? "" : ",") + std::string(R"({"api":"VEXA.Test","method":")") + method + R"(","n":)" +
               std::to_string(i) + "}";
    }
    return "{\"mode\":\"parallel\",\"compound\":[" + items + "]}";
  }

  Rendezvous meeting_{8};
  ApiTable table_;
};

TEST_F(Compound, Results_AreInTheOrderOfTheItems) {
  const Answer answer = Request(Items(64, "echo"));
  ASSERT_EQ(answer.code, 0);
  EXPECT_EQ(answer.extra_members, Parsed("{}")) << "nothing failed";
  ASSERT_EQ(answer.data["result"].size(), 64u);
  for (Json::ArrayIndex i = 0; i < 64; ++i) {
    Json::Value expected = Parsed(R"({"success":true,"data":{}})");
    expected["data"]["n"] = static_cast<int>(i);
    EXPECT_EQ(answer.data["result"][i], expected);
  }
}

TEST_F(Compound, Items_Independent_RunConcurrently) {
  const Answer answer = Request(Items(8, "meet"));
  ASSERT_EQ(answer.data["result"].size(), 8u);
  for (const Json::Value& result : answer.data["result"]) EXPECT_EQ(result["data"], "met");
}

TEST_F(Compound, Compound_FailedItems_AreReportedAndOthersSucceed) {
  const Answer answer = Request(R"({"compound":[
      {"api":"VEXA.Test","version":1,"method":"fail"}, {"api":"VEXA.Test","version":1,"method":"echo","a":{"b":[1]}},
      {"api":"VEXA.Test","version":2,"method":"echo"}, {"api":"VEXA.None","method":"echo"},
      {"api":"VEXA.Entry.Request","version":1,"method":"request","compound":[]},
      7, null, [], {}, {"api":7,"method":"echo"}, {"api":"VEXA.Test","method":null},
      {"api":"VEXA.Test","method":"echo","version":"1"}, {"api":"VEXA.Test","method":"echo","version":0},
      {"api":"VEXA.Test","method":"echo","version":99999999999}]})");
  ASSERT_EQ(answer.code, 0);
  EXPECT_EQ(answer.extra_members, Parsed(R"({"has_fail":true})"));
  const int codes[] = {403, 0, 507, 507, 401, 401, 401, 401, 401, 401, 401, 401, 401, 401};
  ASSERT_EQ(answer.data["result"].size(), std::size(codes));
  for (Json::ArrayIndex i = 0; i < std::size(codes); ++i) {
    const Json::Value& result = answer.data["result"][i];
    EXPECT_EQ(result["success"], codes[i] == 0) << i;
    if (codes[i] != 0) {
      EXPECT_EQ(result["error"]["code"], codes[i]) << i;
    }
  }
  EXPECT_EQ(answer.data["result"][1]["data"], Parsed(R"({"a":{"b":[1]}})")) << "without the item's own members";
}

TEST_F(Compound, Compound_InvalidRequests_AreRefusedCompletely) {
  for (const char* parameters :
       {"{}", R"({"compound":null})", R"({"compound":{}})", R"({"compound":"x"})", R"({"compound":[],"mode":"serial"})",
        R"({"compound":[],"mode":""})", R"({"compound":[],"mode":null})", R"({"compound":[],"mode":1})"}) {
    EXPECT_EQ(Request(parameters).code, 401) << parameters;
  }
  EXPECT_EQ(Request(Items(65, "echo")).code, 401);
  EXPECT_EQ(Request(R"({"compound":[]})").data, Parsed(R"({"result":[]})"));
}

TEST_F(Compound, Replies_UnexpectedForm_AreFailures) {
  for (const char* reply : {"null", "7", "[]", "{}", R"({"success":"yes","data":1})", R"({"success":1})",
                            R"({"success":false,"error":"text"})"}) {
    const Answer answer =
        Request(Items(1, "echo"), [reply](const VexaDRCore::Request&, milliseconds) { return Parsed(reply); });
    EXPECT_EQ(answer.data["result"][0], Parsed(R"({"success":false,"error":{"code":100}})")) << reply;
    EXPECT_EQ(answer.extra_members["has_fail"], true);
  }
  const Answer thrown = Request(Items(3, "echo"), [](const VexaDRCore::Request&, milliseconds) -> Json::Value {
    throw std::runtime_error("a fault");
  });
  EXPECT_EQ(thrown.data["result"].size(), 3u);
  EXPECT_EQ(thrown.data["result"][2]["error"]["code"], 100);
  const Answer without_data =
      Request(Items(1, "echo"), [](const VexaDRCore::Request&, milliseconds) { return Parsed(R"({"success":true})"); });
  EXPECT_EQ(without_data.data["result"][0], Parsed(R"({"success":true,"data":null})"));
}

TEST_F(Compound, Timeout_AllItems_ShareIt) {
  std::atomic<int> called = 0;
  CompoundOptions options;
  options.timeout = milliseconds(60);
  options.threads = 1;
  const Answer answer = Request(
      Items(3, "echo"),
      [&](const VexaDRCore::Request&, milliseconds timeout) {
        EXPECT_GT(timeout.count(), 0);
        EXPECT_LE(timeout.count(), 60);
        ++called;
        std::this_thread::sleep_for(timeout + milliseconds(1));
        return Parsed(R"({"success":false,"error":{"code":102}})");
      },
      options);
  EXPECT_EQ(called, 1) << "items without time left are not started";
  for (const Json::Value& result : answer.data["result"]) EXPECT_EQ(result["error"]["code"], 102);
}

TEST_F(Compound, Threads_ManyItems_AreLimited) {
  std::mutex mutex;
  int running = 0;
  int most = 0;
  CompoundOptions options;
  options.threads = 4;
  const Answer answer = Request(
      Items(64, "echo"),
      [&](const VexaDRCore::Request&, milliseconds) {
        {
          const std::lock_guard lock(mutex);
          most = std::max(most, ++running);
        }
        std::this_thread::sleep_for(milliseconds(1));
        const std::lock_guard lock(mutex);
        --running;
        return Parsed(R"({"success":true,"data":{}})");
      },
      options);
  EXPECT_EQ(answer.extra_members, Parsed("{}"));
  EXPECT_LE(most, 4);
}

}  // namespace
}  // namespace vexa::api
