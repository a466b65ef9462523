// Cases that tests over loopback cannot reach: callers from other machines or with a certificate, and exceptions
// outside of the handler.
#include <gtest/gtest.h>

#include <new>

#include "tests/support/bare_dispatcher.h"
#include "tests/support/test_row.h"

namespace {

using vexa::api::Access;
using vexa::test::TestRow;

void Succeed(const vexa::api::Call& call) { call.response->SetSuccess(Json::Value()); }

class DispatcherWithoutServer : public vexa::test::BareDispatcher {
 protected:
  DispatcherWithoutServer()
      : BareDispatcher({TestRow("T", "anyone", Access::kAnyone, vexa::api::LaneKind::kQuick, Succeed),
                        TestRow("T", "user", Access::kUser, vexa::api::LaneKind::kQuick, Succeed),
                        TestRow("T", "host", Access::kHost, vexa::api::LaneKind::kQuick, Succeed)}) {}
};

TEST_F(DispatcherWithoutServer, MetricsFromAnotherMachine_NeedAnAdministrator) {
  EXPECT_EQ(Send(Request("GET", "/metrics", "")), 401);
  EXPECT_EQ(Send(Request("GET", "/metrics", TokenOf("mallory", {}))), 403);
  EXPECT_EQ(Send(Request("GET", "/metrics", TokenOf("admin", {"administrators"}))), 200);
  for (const char* loopback : {"127.0.0.1", "127.8.9.10", "::1"}) {
    address_ = loopback;
    EXPECT_EQ(Send(Request("GET", "/metrics", "")), 200) << loopback;
  }
}

TEST_F(DispatcherWithoutServer, OtherHost_MayCallTheMethodsOfHostsOnly) {
  vexa::http::HttpRequest request = Request("POST", "/webapi/T/user", "");
  request.peer.certificate_name = "host-2";
  EXPECT_EQ(Send(std::move(request)), 403);
  request = Request("POST", "/webapi/T/host", "");
  request.peer.certificate_name = "host-2";
  EXPECT_EQ(Send(std::move(request)), 200);
}

TEST_F(DispatcherWithoutServer, InvalidToken_WithCertificate_IsRefused) {
  vexa::http::HttpRequest request = Request("POST", "/webapi/T/host", "x");
  request.peer.certificate_name = "host-2";
  EXPECT_EQ(Send(std::move(request)), 401);
}

// An exception outside of the handler, such as std::bad_alloc, ended the process.
TEST_F(DispatcherWithoutServer, Handler_Throws_RepliesAndServerKeepsServing) {
  const std::string token = TokenOf("admin", {"administrators"});
  metrics_text_ = []() -> std::string { throw std::bad_alloc(); };
  EXPECT_EQ(Send(Request("GET", "/metrics", token)), 0);
  EXPECT_EQ(Send(Request("POST", "/webapi/T/user", token)), 200);
}

TEST_F(DispatcherWithoutServer, Token_AccountsUnreadable_FailsWithoutLogout) {
  const std::string token = TokenOf("grace", {});
  ASSERT_TRUE(store_->Commit({{}, {{vexa::records::AccountStateKey(), "{"}}}).ok());
  EXPECT_EQ(Send(Request("POST", "/webapi/T/user", token)), 500);
}

TEST_F(DispatcherWithoutServer, AccountsCannotBeRead_RootOnTheUnixSocketIsStillServed) {
  ASSERT_TRUE(store_->Commit({{}, {{vexa::records::AccountStateKey(), "{"}}}).ok());
  vexa::http::HttpRequest request = Request("POST", "/webapi/T/user", "");
  request.peer.kind = vexa::http::Peer::Kind::kUnix;
  request.peer.uid = 0;
  EXPECT_EQ(Send(request), 200);
  request.peer.uid = 65533;
  EXPECT_EQ(Send(std::move(request)), 500);
}

TEST_F(DispatcherWithoutServer, DeletedAccount_Token_IsRefusedEvenIfNameIsReused) {
  const std::string token = TokenOf("grace", {});
  EXPECT_EQ(Send(Request("POST", "/webapi/T/user", token)), 200);
  ASSERT_TRUE(accounts_->DeleteUser("grace").ok());
  EXPECT_EQ(Send(Request("POST", "/webapi/T/user", token)), 401);
  const std::string new_token = TokenOf("grace", {});
  EXPECT_EQ(Send(Request("POST", "/webapi/T/user", token)), 401);
  EXPECT_EQ(Send(Request("POST", "/webapi/T/user", new_token)), 200);
}

// After a password change, the old token was valid for up to 12 hours.
TEST_F(DispatcherWithoutServer, ChangedPassword_Token_IsRefused) {
  const std::string token = TokenOf("admin", {"administrators"});
  EXPECT_EQ(Send(Request("GET", "/metrics", token)), 200);
  ASSERT_TRUE(accounts_->SetPassword("admin", "correct horse").ok());
  EXPECT_EQ(Send(Request("POST", "/webapi/T/user", token)), 401);
  EXPECT_EQ(Send(Request("GET", "/metrics", token)), 401);
}

// A login on the Unix socket was refused to those who need one: users of the machine without an account.
TEST_F(DispatcherWithoutServer, MethodForAnyone_CallerHasNoAccount_IsCalled) {
  vexa::http::HttpRequest request = Request("POST", "/webapi/T/anyone", "");
  request.peer.kind = vexa::http::Peer::Kind::kUnix;
  request.peer.uid = 65533;
  EXPECT_EQ(Send(request), 200);
  request.target = "/webapi/T/user";
  EXPECT_EQ(Send(std::move(request)), 401);

  const std::string token = TokenOf("grace", {});
  ASSERT_TRUE(accounts_->DeleteUser("grace").ok());
  EXPECT_EQ(Send(Request("POST", "/webapi/T/anyone", token)), 200);
  EXPECT_EQ(Send(Request("POST", "/webapi/T/user", token)), 401);
}

}  // namespace
