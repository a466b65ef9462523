// Cases that tests over loopback cannot reach: callers from other machines or with a certificate, and exceptions
// outside of the handler.
#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <string>

#include "host/base/time_text.h"
#include "tests/support/bare_dispatcher.h"
#include "tests/support/syslog_capture.h"
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
  for (const char* target : {"/webapi/T/user", "/webapi/T/anyone"}) {
    EXPECT_EQ(Send(FromHost(Request("POST", target, ""), "host-2")), 403) << target;
  }
  EXPECT_EQ(Send(FromHost(Request("POST", "/webapi/T/host", ""), "host-2")), 200);
  for (const char* page : {"/healthz", "/metrics", "/openapi.json"}) {
    EXPECT_EQ(Send(FromHost(Request("GET", page, ""), "host-2")), 404) << page;
  }
}

TEST_F(DispatcherWithoutServer, CertificateOnListenerForUsers_GrantsNothing) {
  vexa::http::HttpRequest request = FromHost(Request("POST", "/webapi/T/host", ""), "host-2");
  request.peer.is_certified = false;
  EXPECT_EQ(Send(std::move(request)), 401);
}

TEST_F(DispatcherWithoutServer, CertificateThatCannotCall_IsRefusedAndTheConnectionCloses) {
  const auto now = std::chrono::system_clock::now();
  const struct {
    const char* host_id;
    vexa::CertificateTimes times;
  } rows[] = {{"host-3", {now - std::chrono::hours(1), now + std::chrono::hours(1)}},
              {"", {now - std::chrono::hours(1), now + std::chrono::hours(1)}},
              {"host-2", {now - std::chrono::hours(2), now - std::chrono::hours(1)}},
              {"host-2", {now + std::chrono::hours(2), now + std::chrono::hours(3)}}};
  for (const auto& row : rows) {
    vexa::http::HttpRequest request = FromHost(Request("POST", "/webapi/T/host", ""), row.host_id);
    request.peer.certificate_times = row.times;
    EXPECT_EQ(Send(std::move(request)), 403) << row.host_id;
    EXPECT_TRUE(closed_connection_) << row.host_id;
  }
  EXPECT_EQ(Send(FromHost(Request("POST", "/webapi/T/host", ""), "host-2")), 200);
  EXPECT_FALSE(closed_connection_);
}

// One line for all hosts hid the lines of others, and nothing was logged when an open connection's certificate expired.
TEST_F(DispatcherWithoutServer, CertificatesThatCannotCall_AreLoggedByHost) {
  const auto now = std::chrono::system_clock::now();
  const auto call = [this](const char* host_id, vexa::CertificateTimes times) {
    vexa::http::HttpRequest request = FromHost(Request("POST", "/webapi/T/host", ""), host_id);
    request.peer.certificate_times = times;
    EXPECT_EQ(Send(std::move(request)), 403) << host_id;
  };
  const auto lines = [](const std::string& part) {
    const auto captured = vexa::test::CapturedSyslog();
    return std::ranges::count_if(captured, [&](const auto& line) { return line.text.find(part) != std::string::npos; });
  };
  const vexa::CertificateTimes valid{now - std::chrono::hours(1), now + std::chrono::hours(1)};
  const vexa::CertificateTimes expired{now - std::chrono::hours(2), now - std::chrono::hours(1)};
  const vexa::CertificateTimes early{now + std::chrono::hours(2), now + std::chrono::hours(3)};
  vexa::test::ClearCapturedSyslog();
  for (int round = 0; round < 2; ++round) {
    for (const char* host : {"host-3", "host-4"}) call(host, valid);
    for (const char* host : {"h1", "h2"}) call(host, expired);
    call("host-2", early);
    call("", valid);
  }
  for (const std::string host : {"host-3", "host-4"}) {
    EXPECT_EQ(lines("A call was refused: '" + host +
                    "' at 192.0.2.1 is not a host of this cluster, or its certificate has been revoked."),
              1)
        << host;
  }
  for (const std::string host : {"h1", "h2"}) {
    EXPECT_EQ(lines("A call was refused: the certificate of '" + host + "' at 192.0.2.1 expired on " +
                    vexa::FormatUtcTime(expired.not_after) + "."),
              1)
        << host;
  }
  EXPECT_EQ(
      lines("A call was refused: the certificate of 'host-2' at 192.0.2.1 is valid only from " +
            vexa::FormatUtcTime(early.not_before) + ". Check the clocks of this host and of the machine that made it."),
      1);
  EXPECT_EQ(lines("A call was refused: the certificate of 192.0.2.1 does not name a host."), 1);
}

TEST_F(DispatcherWithoutServer, CertificateOfNoMember_HasTheLimitsOfStrangers) {
  const auto body_limit = [this](const char* host_id) {
    vexa::http::HttpRequest request = FromHost(Request("POST", "/webapi/T/host", ""), host_id);
    EXPECT_FALSE(dispatcher_->OnHeader(request)) << host_id;
    return request.body_limit;
  };
  EXPECT_EQ(body_limit("host-2"), vexa::api::kDefaultBodyBytes);
  EXPECT_EQ(body_limit("host-3"), std::size_t{16} * 1024);
}

TEST_F(DispatcherWithoutServer, Token_WithCertificate_IsRefused) {
  for (const std::string& token : {std::string("x"), TokenOf("admin", {"administrators"})}) {
    EXPECT_EQ(Send(FromHost(Request("POST", "/webapi/T/host", token), "host-2")), 401);
  }
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
