// Calls of a host to itself.
#include "host/api/local_caller.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "host/api/request_id.h"
#include "json/readers.h"

namespace vexa::api {
namespace {

using std::chrono::milliseconds;

ApiRow Row(std::string_view method, Access access, Handler handler) {
  return {.api = "VEXA.Test",
          .method = method,
          .version = 1,
          .access = access,
          .lane = LaneKind::kQuick,
          .handler = std::move(handler),
          .summary = "A method of the tests.",
          .parameters = {},
          .errors = {}};
}

LaneOptions OneThread() {
  LaneOptions options;
  options.name = "test";
  options.max_threads = 1;
  return options;
}

class LocalCallerTest : public testing::Test {
 protected:
  // The code of the reply's error; 0 for a success.
  int Ask(const char* method, milliseconds timeout) {
    VexaDRCore::Request request;
    request.setAPI("VEXA.Test");
    request.setMethod(method);
    const Json::Value reply = caller_.Call(request, timeout);
    if (json::Bool(json::Member(reply, "success"))) return 0;
    return json::Int(json::Member(json::Member(reply, "error"), "code"));
  }

  std::promise<void> held_;
  std::promise<void> release_;
  std::atomic<int> counted_ = 0;
  ApiTable table_{{Row("hold", Access::kHost,
                       [this](const Call& call) {
                         held_.set_value();
                         release_.get_future().wait();
                         call.response->SetSuccess(Json::Value());
                       }),
                   Row("count", Access::kHost,
                       [this](const Call& call) {
                         ++counted_;
                         call.response->SetSuccess(Json::Value());
                       }),
                   Row("origin", Access::kHost,
                       [](const Call& call) {
                         Json::Value data;
                         data["acts_for"] = call.caller.acts_for;
                         data["user"] = std::string(CurrentActingUser());
                         data["id"] = std::string(CurrentRequestId());
                         call.response->SetSuccess(data);
                       }),
                   Row("refuse", Access::kHost, [](const Call& call) { call.response->SetError(912, Json::Value()); }),
                   Row("user", Access::kUser, [this](const Call&) { ++counted_; })}};
  Metrics metrics_{table_};
  Lane lane_{OneThread()};
  LocalCaller caller_{{&table_, &metrics_, &lane_, "this-host"}};
};

TEST_F(LocalCallerTest, LocalCall_TimedOutBeforeStart_NeverStarts) {
  std::thread holder([this] { EXPECT_EQ(Ask("hold", std::chrono::seconds(60)), 0); });
  held_.get_future().wait();
  EXPECT_EQ(Ask("count", milliseconds(50)), 102);
  release_.set_value();
  holder.join();
  EXPECT_TRUE(lane_.Stop(std::chrono::seconds(30)));
  EXPECT_EQ(counted_, 0);
}

TEST_F(LocalCallerTest, LocalCall_LaneStopped_FailsImmediately) {
  EXPECT_EQ(Ask("count", std::chrono::seconds(60)), 0);
  EXPECT_TRUE(lane_.Stop(std::chrono::seconds(30)));
  EXPECT_EQ(Ask("count", std::chrono::seconds(60)), 102);
  EXPECT_EQ(counted_, 1);
}

TEST_F(LocalCallerTest, LocalCall_UserMethodOrUnknown_IsRefused) {
  EXPECT_EQ(Ask("user", std::chrono::seconds(60)), 104);
  EXPECT_EQ(Ask("nothing", std::chrono::seconds(60)), 507);
  EXPECT_EQ(counted_, 0);
}

TEST_F(LocalCallerTest, Call_RunsOnBehalfOfCallersUser) {
  VexaDRCore::Request request;
  request.setAPI("VEXA.Test");
  request.setMethod("origin");
  const auto ask = [&] { return caller_.Call(request, std::chrono::seconds(60))["data"]; };
  for (const char* user : {"eve", "adam"}) {  // on the same thread of the lane
    const RequestIdScope scope("an-id", user);
    const Json::Value data = ask();
    EXPECT_EQ(data["acts_for"], user);
    EXPECT_EQ(data["user"], user) << "what the method asks in turn is for the same user";
    EXPECT_EQ(data["id"], "an-id");
  }
  const Json::Value data = ask();
  EXPECT_EQ(data["acts_for"], "");
  EXPECT_EQ(data["user"], "");
  EXPECT_EQ(data["id"], "");
}

TEST_F(LocalCallerTest, RequestScope_Ends_ClearsActingUser) {
  {
    const RequestIdScope scope("an-id");
    EXPECT_EQ(CurrentActingUser(), "");
    SetActingUser("eve");
    EXPECT_EQ(CurrentActingUser(), "eve");
    EXPECT_EQ(CurrentRequestId(), "an-id");
  }
  EXPECT_EQ(CurrentActingUser(), "");
  EXPECT_EQ(CurrentRequestId(), "");
}

// The line about it in the system log said that the guest is busy, which is what 912 means to users.
TEST_F(LocalCallerTest, Refusal_ToHost_HasHostSentence) {
  VexaDRCore::Request request;
  request.setAPI("VEXA.Test");
  request.setMethod("refuse");
  const Json::Value reply = caller_.Call(request, std::chrono::seconds(10));
  EXPECT_EQ(json::String(json::Member(json::Member(reply, "error"), "message")),
            "The guest, or its repository, belongs to another host.");
}

}  // namespace
}  // namespace vexa::api
