// What one caller may take of the dispatcher, and what it leaves to others.
#include <gtest/gtest.h>

#include <thread>

#include "host/http/http_server.h"
#include "tests/support/bare_dispatcher.h"
#include "tests/support/test_row.h"
#include "tests/support/waiting.h"
#include "tests/unit/base/lane_gate.h"
#include "webapi/error_codes.h"

namespace vexa::test {
namespace {

using api::Access;
using api::Call;
using api::LaneKind;

constexpr int kOk = 200;
constexpr int kTooLarge = 413;
constexpr int kBusy = 503;
constexpr std::size_t kMib = std::size_t{1} << 20;

std::string BodyOfValues(std::size_t values) {
  std::string body = R"({"a":[0)";
  for (std::size_t i = 3; i < values; ++i) body += ",0";
  return body + "]}";
}

class DispatcherQuota : public BareDispatcher {
 protected:
  DispatcherQuota() : BareDispatcher(Rows()) {}

  // The members exist when the first handler runs, but not yet here.
  std::vector<api::ApiRow> Rows() {
    const auto count = [this](const Call& call) {
      ++calls_;
      call.response->SetSuccess(Json::Value());
    };
    const auto hold = [this](const Call& call) {
      stuck_.gate->Pass();
      call.response->SetSuccess(Json::Value());
    };
    api::ApiRow compound = TestRow("T", "compound", Access::kHost, LaneKind::kLong, count);
    compound.body_values = 50'000;
    api::ApiRow list = TestRow("T", "list", Access::kUser, LaneKind::kQuick, count);
    list.parameters = {{"ids", api::ParameterType::kArray, api::Necessity::kOptional, "", 3}};
    api::ApiRow user = TestRow("T", "user", Access::kUser, LaneKind::kQuick, count);
    user.parameters = {{"a", api::ParameterType::kArray, api::Necessity::kOptional, ""}};
    const auto refuse = [](const Call& call) { call.response->SetError(user_error::kHostBusy, Json::Value()); };
    return {std::move(list),
            TestRow("T", "busy", Access::kUser, LaneKind::kQuick, refuse),
            std::move(user),
            TestRow("T", "admin", Access::kAdministrator, LaneKind::kQuick, count),
            TestRow("T", "host", Access::kHost, LaneKind::kQuick, count),
            TestRow("T", "long", Access::kHost, LaneKind::kLong, count),
            TestRow("T", "hold", Access::kHost, LaneKind::kLong, hold),
            std::move(compound)};
  }

  // Returns when the call is over and has given its room back, which is shortly after its response.
  int SendBody(http::HttpRequest request, const std::string& body) {
    request.announced_body_bytes = body.size();
    request.body = body;
    const int status = Send(std::move(request));
    EXPECT_TRUE(Eventually([&] { return lane_.stats().busy + hosts_.stats().busy + quick_hosts_.stats().busy == 0; }));
    return status;
  }

  // The status with which the header of a request with such a body is refused; 0 when its body may come, for which the
  // request is kept.
  int SendHeader(http::HttpRequest request, std::size_t announced_bytes) {
    request.announced_body_bytes = announced_bytes;
    if (const auto refusal = dispatcher_->OnHeader(request)) return refusal->status;
    begun_.push_back(std::move(request));
    return 0;
  }

  std::atomic<int> calls_ = 0;
  GateOpener stuck_;
  std::vector<http::HttpRequest> begun_;
};

TEST_F(DispatcherQuota, Body_WithTooManyValues_IsRefusedBeforeTheHandler) {
  const std::string token = TokenOf("grace", {});
  const auto send = [&](const std::string& body) { return SendBody(Request("POST", "/webapi/T/user", token), body); };
  EXPECT_EQ(send(BodyOfValues(api::kDefaultBodyValues)), kOk);
  EXPECT_EQ(send(BodyOfValues(api::kDefaultBodyValues + 1)), kTooLarge);
  EXPECT_EQ(calls_, 1);
}

TEST_F(DispatcherQuota, List_WithTooManyElements_IsBadParameter) {
  const std::string token = TokenOf("grace", {});
  const auto send = [&](const std::string& body) { return SendBody(Request("POST", "/webapi/T/list", token), body); };
  for (const char* body : {R"({"ids":[1,2,3]})", "{}", R"({"ids":{"a":1,"b":2,"c":3,"d":4}})", R"({"ids":5})"}) {
    EXPECT_EQ(send(body), kOk) << body;
  }
  EXPECT_EQ(calls_, 4);
  EXPECT_EQ(send(R"({"ids":[1,2,3,4]})"), 400);
  EXPECT_EQ(calls_, 4);
}

// A login when too many users are logged in, a second change of a password at the same time.
TEST_F(DispatcherQuota, MethodThatAnswersBusy_SaysWhenToTryAgain) {
  Headers headers;
  EXPECT_EQ(Send(Request("POST", "/webapi/T/busy", TokenOf("grace", {})), &headers), kBusy);
  EXPECT_EQ(headers, (Headers{{"Retry-After", "1"}}));
}

// Their text takes as long as several calls, and anybody on this machine may read it.
TEST_F(DispatcherQuota, Metrics_AreWrittenOnAThreadOfALane) {
  std::thread::id writer;
  metrics_text_ = [&] {
    writer = std::this_thread::get_id();
    return std::string("figures");
  };
  address_ = "127.0.0.1";
  EXPECT_EQ(Send(Request("GET", "/metrics", "")), kOk);
  EXPECT_NE(writer, std::thread::id());
  EXPECT_NE(writer, std::this_thread::get_id()) << "the others of the I/O thread wait meanwhile";
  EXPECT_TRUE(Eventually([&] { return lane_.stats().done == 1; }));
}

TEST_F(DispatcherQuota, Body_OfCallerWithoutRights_IsNotRead) {
  const std::string body = BodyOfValues(api::kDefaultBodyValues + 1);
  EXPECT_EQ(SendBody(Request("POST", "/webapi/T/admin", TokenOf("mallory", {})), body), 403);
  EXPECT_EQ(SendBody(Request("POST", "/webapi/T/admin", "unknown"), body), 401);
  EXPECT_EQ(SendBody(Request("POST", "/webapi/T/nothing", "unknown"), body), 404);
}

TEST_F(DispatcherQuota, BodiesOfOneCaller_OverTheLimit_AreRefusedAndOthersAreNot) {
  const std::string mallory = TokenOf("mallory", {});
  const auto begin = [&](const std::string& token) {
    return SendHeader(Request("POST", "/webapi/T/user", token), kMib);
  };
  for (int i = 0; i < 8; ++i) ASSERT_EQ(begin(mallory), 0) << i;
  EXPECT_EQ(begin(mallory), kBusy);
  EXPECT_EQ(Send(Request("POST", "/webapi/T/user", mallory)), kOk) << "a call without a body needs no room";
  EXPECT_EQ(begin(TokenOf("grace", {})), 0);
  begun_.clear();
  EXPECT_EQ(begin(mallory), 0) << "clients that leave give their room back";
}

TEST_F(DispatcherQuota, User_OnTheSocketAndOnTheNetwork_IsOneCaller) {
  const std::string token = TokenOf("mallory", {});
  for (int i = 0; i < 8; ++i) ASSERT_EQ(SendHeader(Request("POST", "/webapi/T/user", token), kMib), 0) << i;
  http::HttpRequest local = Request("POST", "/webapi/T/user", "");
  local.peer.kind = http::Peer::Kind::kUnix;
  local.peer.uid = accounts_->FindUser("mallory")->uid;
  EXPECT_EQ(SendHeader(local, api::kSmallBodyBytes + 1), kBusy);
  ++local.peer.uid;
  EXPECT_EQ(SendHeader(local, 1), 0);
}

TEST_F(DispatcherQuota, BodyInChunks_CountsAsLongAsItMayBe_UntilItHasCome) {
  const std::string token = TokenOf("grace", {});
  for (int i = 0; i < 8; ++i) {
    ASSERT_EQ(SendHeader(Request("POST", "/webapi/T/user", token), std::numeric_limits<std::size_t>::max()), 0);
  }
  EXPECT_EQ(SendHeader(Request("POST", "/webapi/T/user", token), api::kSmallBodyBytes + 1), kBusy);
}

TEST_F(DispatcherQuota, HostCalls_CountByUserAndTogether) {
  std::vector<std::thread> holders;
  const auto hold = [&](const char* user) {
    const int waiting = stuck_.gate->waiting();
    holders.emplace_back([this, user] { EXPECT_EQ(Send(HostRequest("/webapi/T/hold", "h1", user)), kOk); });
    ASSERT_TRUE(Eventually([&] { return stuck_.gate->waiting() == waiting + 1; }));
  };
  hold("ann");
  hold("ann");
  EXPECT_EQ(Send(HostRequest("/webapi/T/long", "h1", "ann")), kBusy);
  EXPECT_EQ(Send(HostRequest("/webapi/T/long", "h1", "bob")), kOk) << "its other users have room of their own";
  ASSERT_TRUE(Eventually([&] { return hosts_.stats().busy == 2; }));
  hold("bob");
  EXPECT_EQ(Send(HostRequest("/webapi/T/long", "h1", "invented")), kBusy);
  EXPECT_EQ(Send(HostRequest("/webapi/T/long", "h2", "ann")), kOk);
  EXPECT_EQ(Send(HostRequest("/webapi/T/host", "h1", "ann")), kOk) << "whose long calls hang can still read";
  stuck_.gate->Open();
  for (std::thread& holder : holders) holder.join();
}

TEST_F(DispatcherQuota, HostCalls_WhileUsersTakeAllThreads_AreServed) {
  const int threads = LaneOptions().max_threads;
  for (int i = 0; i < threads; ++i) {
    ASSERT_EQ(lane_.Submit({"user:" + std::to_string(i)}, stuck_.job()), Lane::SubmitResult::kAccepted);
  }
  ASSERT_TRUE(Eventually([&] { return stuck_.gate->waiting() == threads; }));
  EXPECT_EQ(Send(HostRequest("/webapi/T/host", "h1", "ann")), kOk);
  stuck_.gate->Open();
}

TEST_F(DispatcherQuota, ManyValues_CountAsWhatTheyTakeInMemory) {
  const auto send = [&] { return SendBody(HostRequest("/webapi/T/compound", "h1", "ann"), BodyOfValues(40'000)); };
  EXPECT_EQ(send(), kOk);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(SendHeader(HostRequest("/webapi/T/compound", "h1", "ann"), kMib), 0);
  EXPECT_EQ(send(), kBusy) << "40,000 values of 128 bytes beside 4 MiB";
  begun_.clear();
  EXPECT_EQ(send(), kOk);
}

}  // namespace
}  // namespace vexa::test
