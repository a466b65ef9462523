// A dispatcher without a server, for callers that tests over loopback cannot be: from other machines, or with a
// certificate.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/api/dispatcher.h"
#include "host/cluster/account_store.h"
#include "host/http/http_mailbox.h"
#include "host/records/member_list.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {

class BareDispatcher : public testing::Test {
 protected:
  explicit BareDispatcher(std::vector<api::ApiRow> rows) : table_(std::move(rows)) {
    store::LmdbOptions options;
    options.directory = folder_.File("store");
    store_ = store::OpenLmdbStore(options).value();
    accounts_ = std::make_unique<cluster::AccountStore>(store_);
    sessions_ = session::SessionTable::Open(folder_.File("sessions.json"), {}).value();
    for (const char* host : {"h1", "h2", "host-2"}) {
      EXPECT_TRUE(store_->Commit({{}, {{store::MakeKey({"host_claim", host}), "{}"}}}).ok());
    }
    members_ = std::make_unique<records::MemberList>(store_);
    identity_ = std::make_unique<api::Identity>(*sessions_, *accounts_, members_.get());
    api::Dispatcher::Parts parts;
    parts.table = &table_;
    parts.identity = identity_.get();
    parts.metrics = &metrics_;
    parts.quick = &lane_;
    parts.long_running = &lane_;
    parts.hosts = &hosts_;
    parts.quick_hosts = &quick_hosts_;
    parts.metrics_text = [this] { return metrics_text_(); };
    parts.health = [] { return std::string(); };
    dispatcher_ = std::make_unique<api::Dispatcher>(std::move(parts));
  }

  std::string TokenOf(const char* name, std::vector<std::string> groups) {
    cluster::AccountStore::NewUser user;
    user.name = name;
    user.password = "correct horse";
    user.groups = std::move(groups);
    EXPECT_TRUE(accounts_->AddUser(user).ok());
    const accounts::User account = *accounts_->FindUser(name);
    return sessions_->Create({account.name, account.uid, account.stamp})->token;
  }

  http::HttpRequest Request(const std::string& method, const std::string& target, const std::string& token) const {
    http::HttpRequest request;
    request.method = method;
    request.target = target;
    request.content_type = "application/json";
    if (!token.empty()) request.authorization = "Bearer " + token;
    request.peer.address = address_;
    return request;
  }

  // A call of another host.
  http::HttpRequest HostRequest(const std::string& target, const std::string& host, const std::string& acts_for) const {
    http::HttpRequest request = FromHost(Request("POST", target, ""), host);
    request.acts_for = acts_for;
    return request;
  }

  // On a listener for hosts, with a certificate that was issued a minute ago.
  static http::HttpRequest FromHost(http::HttpRequest request, const std::string& host_id) {
    const auto now = std::chrono::system_clock::now();
    request.peer.is_certified = true;
    request.peer.certificate_name = host_id;
    request.peer.certificate_times = {now - std::chrono::minutes(1), now + std::chrono::hours(1)};
    return request;
  }

  // The status of the response; 0 when the request was dropped without a response, for which the server sends 500.
  // `headers` gets the headers of a handler's response.
  using Headers = std::vector<std::pair<std::string, std::string>>;
  int Send(http::HttpRequest request, Headers* headers = nullptr) {
    if (const auto refusal = dispatcher_->OnHeader(request)) {
      closed_connection_ = refusal->closes_connection;
      return refusal->status;
    }
    int status = -1;
    boost::asio::io_context context;
    const auto mailbox = std::make_shared<http::Mailbox>(context, [&](http::PendingResponse&& pending) {
      status = pending.response ? pending.response->status : 0;
      closed_connection_ = pending.response && pending.response->closes_connection;
      if (headers && pending.response) *headers = pending.response->headers;
    });
    const auto busy = boost::asio::make_work_guard(context);
    dispatcher_->OnRequest(std::move(request), http::Responder(std::make_shared<http::Responder::Impl>(mailbox, 0, 0)));
    while (status == -1 && context.run_one_for(std::chrono::seconds(30)) > 0) {
    }
    mailbox->Close();
    return status;
  }

  // Of each kind, at most two calls for one user of a host, and three of a host.
  static LaneOptions HostLimits() {
    LaneOptions options;
    options.name = "h";
    options.limits.per_user = 2;
    options.limits.per_host = 3;
    return options;
  }

  TempDir folder_;
  std::shared_ptr<store::Store> store_;
  std::unique_ptr<cluster::AccountStore> accounts_;
  std::unique_ptr<session::SessionTable> sessions_;
  std::unique_ptr<records::MemberList> members_;
  std::unique_ptr<api::Identity> identity_;
  api::ApiTable table_;
  api::Metrics metrics_{table_};
  Lane lane_{LaneOptions{.name = "t"}};
  Lane hosts_{HostLimits()};
  Lane quick_hosts_{HostLimits()};
  std::function<std::string()> metrics_text_ = [] { return std::string("figures"); };
  std::string address_ = "192.0.2.1";
  std::atomic<bool> closed_connection_ = false;  // by the last response
  std::unique_ptr<api::Dispatcher> dispatcher_;
};

}  // namespace vexa::test
