// Cases that tests over loopback cannot reach: callers from other machines or with a certificate, and exceptions
// outside of the handler.
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <new>

#include "host/api/dispatcher.h"
#include "host/cluster/account_store.h"
#include "host/http/http_mailbox.h"
#include "host/store/lmdb_store.h"
#include "tests/support/temp_dir.h"

namespace {

using vexa::api::Access;
using vexa::api::LaneKind;

constexpr const char* kPassword = "correct horse";

void Succeed(const vexa::api::Call& call) { call.response->SetSuccess(Json::Value()); }

vexa::api::ApiRow Row(std::string_view method, Access access) {
  return {.api = "T",
          .method = method,
          .version = 1,
          .access = access,
          .lane = LaneKind::kQuick,
          .handler = Succeed,
          .summary = "",
          .parameters = {},
          .errors = {}};
}

class DispatcherWithoutServer : public testing::Test {
 protected:
  DispatcherWithoutServer() {
    vexa::store::LmdbOptions options;
    options.directory = folder_.File("store");
    store_ = vexa::store::OpenLmdbStore(options).value();
    accounts_ = std::make_unique<vexa::cluster::AccountStore>(store_);
    sessions_ = vexa::session::SessionTable::Open(folder_.File("sessions.json"), {}).value();
    EXPECT_TRUE(store_->Commit({{}, {{"/host_claim/host-2", "{}"}}}).ok());
    members_ = std::make_unique<vexa::records::MemberList>(store_);
    identity_ = std::make_unique<vexa::api::Identity>(*sessions_, *accounts_, members_.get());
    vexa::api::Dispatcher::Parts parts;
    parts.table = &table_;
    parts.identity = identity_.get();
    parts.metrics = &metrics_;
    parts.quick = &lane_;
    parts.long_running = &lane_;
    parts.metrics_text = [this] { return metrics_text_(); };
    parts.health = [] { return std::string(); };
    dispatcher_ = std::make_unique<vexa::api::Dispatcher>(std::move(parts));
  }

  std::string TokenOf(const char* name, std::vector<std::string> groups) {
    vexa::cluster::AccountStore::NewUser user;
    user.name = name;
    user.password = kPassword;
    user.groups = std::move(groups);
    EXPECT_TRUE(accounts_->AddUser(user).ok());
    return sessions_->Create({name, accounts_->FindUser(name)->uid})->token;
  }

  vexa::http::HttpRequest Request(const std::string& method, const std::string& target,
                                  const std::string& token) const {
    vexa::http::HttpRequest request;
    request.method = method;
    request.target = target;
    request.content_type = "application/json";
    if (!token.empty()) request.authorization = "Bearer " + token;
    request.peer.address = address_;
    return request;
  }

  // The status of the response; 0 when the request was dropped without a response, for which the server sends 500.
  int Send(vexa::http::HttpRequest request) {
    if (const auto refusal = dispatcher_->OnHeader(request)) {
      closed_connection_ = refusal->closes_connection;
      return refusal->status;
    }
    int status = -1;
    boost::asio::io_context context;
    const auto mailbox = std::make_shared<vexa::http::Mailbox>(context, [&](vexa::http::PendingResponse&& pending) {
      status = pending.response ? pending.response->status : 0;
      closed_connection_ = pending.response && pending.response->closes_connection;
    });
    const auto busy = boost::asio::make_work_guard(context);
    dispatcher_->OnRequest(std::move(request),
                           vexa::http::Responder(std::make_shared<vexa::http::Responder::Impl>(mailbox, 0, 0)));
    while (status == -1 && context.run_one_for(std::chrono::seconds(30)) > 0) {
    }
    mailbox->Close();
    return status;
  }

  vexa::test::TempDir folder_;
  std::shared_ptr<vexa::store::Store> store_;
  std::unique_ptr<vexa::cluster::AccountStore> accounts_;
  std::unique_ptr<vexa::session::SessionTable> sessions_;
  std::unique_ptr<vexa::records::MemberList> members_;
  std::unique_ptr<vexa::api::Identity> identity_;
  vexa::api::ApiTable table_{{Row("anyone", Access::kAnyone), Row("user", Access::kUser), Row("host", Access::kHost)}};
  vexa::api::Metrics metrics_{table_};
  vexa::Lane lane_{vexa::LaneOptions{.name = "t"}};
  std::function<std::string()> metrics_text_ = [] { return std::string("figures"); };
  std::string address_ = "192.0.2.1";
  bool closed_connection_ = false;  // by the last response
  std::unique_ptr<vexa::api::Dispatcher> dispatcher_;
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

// On a listener for hosts, with a certificate that was issued a minute ago.
vexa::http::HttpRequest FromHost(vexa::http::HttpRequest request, const std::string& host_id) {
  const auto now = std::chrono::system_clock::now();
  request.peer.is_certified = true;
  request.peer.certificate_name = host_id;
  request.peer.certificate_times = {now - std::chrono::minutes(1), now + std::chrono::hours(1)};
  return request;
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

}  // namespace
