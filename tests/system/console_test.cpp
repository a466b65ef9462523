// Consoles over real sockets: a server, sessions, accounts and records, and scripted guests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "host/api/dispatcher.h"
#include "host/api/http_reply.h"
#include "host/api/reason.h"
#include "host/api/user/console_api.h"
#include "host/api/user/consoles.h"
#include "host/base/base64.h"
#include "host/cluster/cluster_log.h"
#include "host/cluster/grants.h"
#include "host/records/reader.h"
#include "host/records/run_record.h"
#include "host/session/console_tickets.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/support/scripted_guests.h"
#include "tests/support/test_host.h"
#include "tests/support/waiting.h"
#include "tests/support/websocket_client.h"
#include "tests/system/transport_test_support.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

using test::Eventually;
using test::WebSocketClient;
using ::testing::HasSubstr;

constexpr const char* kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";
constexpr const char* kOther = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a02";

class ConsoleTest : public ::testing::Test {
 protected:
  ConsoleTest() {
    std::filesystem::create_directory(folder_);
    sessions_ = test::Require(session::SessionTable::Open(folder_ + "/sessions.json", {}));
    identity_ = std::make_unique<Identity>(*sessions_, host_.accounts());
    for (const char* guest : {kGuest, kOther}) {
      host_.Put("guest", guest, Parsed(std::string(R"({"name":"vm-)") + guest[35] + R"("})"));
      PutRun(guest, VexaCCC::DB::DBLocalhostID());
    }
    for (const char* user : {"alice", "bob", "eve"}) host_.AddUser(user);
    host_.AddUser("admin", {"administrators"});
    GrantConsole("alice", kGuest);
    Grant("bob", kGuest);
    Start();
  }

  void Start() {
    const std::shared_ptr<store::Store> store(&host_.store(), [](store::Store*) {});
    ConsoleOptions options;
    options.store = store;
    options.host_id = VexaCCC::DB::DBLocalhostID();
    options.identity = identity_.get();
    options.guests = &guests_;
    options.open_remote = [this](const std::string& host_id, const ConsoleTarget& target) {
      return OpenRemote(host_id, target);
    };
    options.max_consoles_per_user = max_consoles_per_user_;
    options.max_consoles = max_consoles_;
    consoles_ = std::make_unique<Consoles>(std::move(options));
    table_ = std::make_unique<ApiTable>(ConsoleRows(store, &tickets_, [this] { return is_stopping_.load(); }));
    metrics_ = std::make_unique<Metrics>(*table_);
    Dispatcher::Parts parts;
    parts.table = table_.get();
    parts.identity = identity_.get();
    parts.metrics = metrics_.get();
    parts.quick = &lane_;
    parts.long_running = &lane_;
    parts.hosts = &lane_;
    parts.quick_hosts = &lane_;
    parts.metrics_text = [] { return std::string(); };
    parts.health = [] { return std::string(); };
    parts.tickets = &tickets_;
    parts.open_console = [this](const ConsolePlan& plan) { return consoles_->Open(plan); };
    dispatcher_ = std::make_unique<Dispatcher>(std::move(parts));
    http::ServerOptions server;
    server.listeners.emplace_back();
    http::ListenerOptions socket;
    socket.kind = http::ListenerOptions::Kind::kUnix;
    socket.path = folder_ + "/socket";
    server.listeners.push_back(socket);
    server.on_header = [this](http::HttpRequest& request) { return dispatcher_->OnHeader(request); };
    server.on_request = [this](http::HttpRequest&& request, http::Responder responder) {
      dispatcher_->OnRequest(std::move(request), std::move(responder));
    };
    server.make_error = [](int status, const std::string& id) {
      http::HttpResponse response = MakeErrorReply(user_error::kMalformed, id);
      response.status = status;
      return response;
    };
    server_ = test::Require(http::HttpServer::Start(std::move(server)));
  }

  void TearDown() override { server_.reset(); }

  void PutRun(const std::string& guest, const std::string& host_id) {
    ASSERT_TRUE(host_.store().Commit({{}, {{records::RunKey(guest), R"({"host_id":")" + host_id + R"("})"}}}).ok());
  }

  cluster::GrantPrincipal Principal(const std::string& user) {
    return test::Require(cluster::FindPrincipal(host_.accounts(), host_.store(), records::AccountKind::kUser, user));
  }
  void Grant(const std::string& user, const char* guest) {
    ASSERT_TRUE(cluster::GrantGuests(host_.store(), Principal(user), {guest}).ok());
  }
  void GrantConsole(const std::string& user, const char* guest) {
    ASSERT_TRUE(cluster::GrantConsoles(host_.store(), Principal(user), {guest}).ok());
  }

  session::NewSession Session(const std::string& user) {
    const accounts::User account = test::Require(host_.accounts().FindUser(user));
    return test::Require(sessions_->Create({account.name, account.uid, account.stamp}));
  }
  std::string BearerOf(const std::string& user) { return "Authorization: Bearer " + Session(user).token + "\r\n"; }
  static std::string Target(const std::string& type = "vnc", const std::string& guest = kGuest) {
    return "/console/" + guest + "?type=" + type;
  }

  WebSocketClient Connect() { return WebSocketClient::Tcp(server_->port(0)); }
  // The status of an attempt; `body_` is the reply of a refusal.
  int Try(const std::string& target, const std::string& fields) {
    WebSocketClient client = Connect();
    const int status = client.Upgrade(target, fields);
    body_ = status == 101 ? Json::Value() : Parsed(client.body());
    return status;
  }
  std::string Reason() const { return json::String(json::Member(json::Member(body_, "error"), "reason")); }
  Json::Value Code() const { return json::Member(json::Member(body_, "error"), "code"); }

  // Calls a method as a user would by HTTP.
  Json::Value Call(const std::string& method, const std::string& fields, const std::string& parameters) {
    WebSocketClient client = Connect();
    (void)client.SendRaw("POST /webapi/VEXA.Virtualization.Guest/" + method +
                         " HTTP/1.1\r\nHost: nas\r\nContent-Type: application/json\r\n" + fields + "Content-Length: " +
                         std::to_string(parameters.size()) + "\r\nConnection: close\r\n\r\n" + parameters);
    std::string reply;
    char part[65536];
    for (ssize_t got = 0; (got = ::recv(client.fd(), part, sizeof part, 0)) > 0;) {
      reply.append(part, static_cast<std::size_t>(got));
    }
    const std::size_t end = reply.find("\r\n\r\n");
    return end == std::string::npos ? Json::Value() : Parsed(reply.substr(end + 4));
  }
  std::string Ticket(const std::string& user, const std::string& type = "vnc", const std::string& guest = kGuest) {
    const Json::Value reply =
        Call("console_ticket", BearerOf(user), R"({"guest_id":")" + guest + R"(","type":")" + type + "\"}");
    return json::String(json::Member(json::Member(reply, "data"), "ticket"));
  }

  std::string ReadGuestEnd(std::size_t bytes) const {
    std::string all;
    while (all.size() < bytes) {
      pollfd readable{guests_.console(), POLLIN, 0};
      if (::poll(&readable, 1, 30'000) != 1) break;
      std::string part(bytes - all.size(), '\0');
      const ssize_t got = ::recv(guests_.console(), part.data(), part.size(), 0);
      if (got <= 0) break;
      all.append(part, 0, static_cast<std::size_t>(got));
    }
    return all;
  }
  bool GuestEndHasEnded() const { return ReadGuestEnd(1).empty(); }

  std::vector<std::string> ClusterLog() {
    std::vector<std::string> lines;
    const auto page = test::Require(cluster::ReadLog(test::Require(records::Reader::OpenCurrent()), "", 100));
    for (const auto& entry : page.entries) lines.insert(lines.begin(), entry.user + ": " + entry.text);
    return lines;
  }

  virtual Result<std::unique_ptr<http::TunnelEnd>, Refusal> OpenRemote(const std::string& host_id,
                                                                       const ConsoleTarget& target) {
    remote_asked_ = host_id + " " + target.guest_id + " " + target.type;
    return remote_refusal_;
  }

  std::size_t max_consoles_per_user_ = 4;
  std::size_t max_consoles_ = 6;
  std::atomic<bool> is_stopping_ = false;
  test::TestHost host_;
  const std::string folder_ = host_.folder().File("sessions");
  std::unique_ptr<session::SessionTable> sessions_;
  std::unique_ptr<Identity> identity_;
  test::ScriptedGuests guests_;
  std::chrono::steady_clock::time_point now_ = std::chrono::steady_clock::now();
  session::ConsoleTickets tickets_{[this] { return now_; }};
  std::unique_ptr<Consoles> consoles_;
  std::unique_ptr<ApiTable> table_;
  std::unique_ptr<Metrics> metrics_;
  Lane lane_{LaneOptions{.name = "t"}};
  std::unique_ptr<Dispatcher> dispatcher_;
  std::unique_ptr<http::HttpServer> server_;
  Json::Value body_;
  std::string remote_asked_;
  Refusal remote_refusal_{host_error::kUnreachable, "The host 'h2' could not be reached: it hung up"};
};

TEST_F(ConsoleTest, Session_OpensScreenAndSerialLine) {
  for (const std::string type : {"vnc", "serial"}) {
    WebSocketClient client = Connect();
    ASSERT_EQ(client.Upgrade(Target(type), BearerOf("alice")), 101) << client.body();
    ASSERT_TRUE(client.Send("typed"));
    EXPECT_EQ(ReadGuestEnd(5), "typed");
    ASSERT_EQ(::send(guests_.console(), "shown", 5, MSG_NOSIGNAL), 5);
    EXPECT_EQ(client.Receive(5), "shown");
  }
  EXPECT_EQ(guests_.asked().front().substr(0, 7), "screen ");
  EXPECT_EQ(guests_.asked().back().substr(0, 7), "serial ");
}

TEST_F(ConsoleTest, Consoles_AreCounted) {
  WebSocketClient client = Connect();
  ASSERT_EQ(client.Upgrade(Target("serial"), BearerOf("alice")), 101);
  ASSERT_TRUE(client.Send("typed"));
  EXPECT_EQ(ReadGuestEnd(5), "typed");
  ASSERT_EQ(::send(guests_.console(), "shown up", 8, MSG_NOSIGNAL), 8);
  EXPECT_EQ(client.Receive(8), "shown up");
  const ConsoleStats open = consoles_->stats()[1];
  EXPECT_EQ(open.type, "serial");
  EXPECT_EQ(open.open, 1U);
  EXPECT_EQ(open.opened, 1U);
  EXPECT_EQ(open.bytes_to_guest, 5U);
  EXPECT_EQ(open.bytes_from_guest, 8U);
  client.Close();
  EXPECT_TRUE(Eventually([&] { return consoles_->stats()[1].open == 0; }));
  EXPECT_EQ(Try(Target("vnc"), BearerOf("alice")), 101);
  EXPECT_EQ(Try(Target("rdp"), BearerOf("alice")), 400);  // when the request is read
  EXPECT_EQ(Try(Target("vnc"), BearerOf("eve")), 403);    // when the right is checked
  Metrics::Gauges gauges;
  gauges.consoles = consoles_->stats();
  const std::string text = metrics_->ToText(gauges);
  EXPECT_THAT(text, HasSubstr("vexa_consoles_opened_total{type=\"vnc\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("vexa_consoles_opened_total{type=\"serial\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("vexa_consoles_refused_total{caller=\"user\",code=\"401\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("vexa_consoles_refused_total{caller=\"user\",code=\"409\"} 1\n"));
}

TEST_F(ConsoleTest, UnixSocket_NeedsNoSession) {
  WebSocketClient client = WebSocketClient::Unix(folder_ + "/socket");
  ASSERT_EQ(client.Upgrade(Target()), 101) << client.body();
  consoles_->Check();  // the caller has no account
  ASSERT_TRUE(client.Send("x"));
  EXPECT_EQ(ReadGuestEnd(1), "x");
  EXPECT_EQ(consoles_->size(), 1U);
}

TEST_F(ConsoleTest, Ticket_IsGoodOnce) {
  const std::string ticket = Ticket("alice");
  ASSERT_EQ(ticket.size(), 43U);
  WebSocketClient client = Connect();
  ASSERT_EQ(client.Upgrade(Target() + "&ticket=" + ticket), 101) << client.body();
  ASSERT_TRUE(client.Send("x"));
  EXPECT_EQ(ReadGuestEnd(1), "x");
  EXPECT_EQ(Try(Target() + "&ticket=" + ticket, ""), 401);
  EXPECT_EQ(Code(), user_error::kNotLoggedIn);
  EXPECT_EQ(Reason(), "The ticket is unknown, used or expired, or is for another console.");
}

TEST_F(ConsoleTest, Ticket_ForOtherGuestOrTypeOrTooOld_IsRefusedAndUsedUp) {
  GrantConsole("alice", kOther);
  for (const std::string& target : {Target("serial"), Target("vnc", kOther)}) {
    const std::string ticket = Ticket("alice");
    EXPECT_EQ(Try(target + "&ticket=" + ticket, ""), 401);
    EXPECT_EQ(Try(Target() + "&ticket=" + ticket, ""), 401) << "used up by the first attempt";
  }
  const std::string ticket = Ticket("alice");
  now_ += std::chrono::seconds(30);
  EXPECT_EQ(Try(Target() + "&ticket=" + ticket, ""), 401);
  for (const std::string& wrong : {std::string(43, 'a'), std::string("x"), std::string(5000, 'a')}) {
    EXPECT_EQ(Try(Target() + "&ticket=" + wrong, BearerOf("alice")), 401)
        << "a wrong ticket is not replaced by a session";
  }
  EXPECT_TRUE(guests_.asked().empty());
}

TEST_F(ConsoleTest, Ticket_AfterRightIsRevokedOrSessionEnded_IsRefused) {
  std::string ticket = Ticket("alice");
  ASSERT_TRUE(cluster::RevokeConsoles(host_.store(), Principal("alice"), {kGuest}).ok());
  EXPECT_EQ(Try(Target() + "&ticket=" + ticket, ""), 403);
  GrantConsole("alice", kGuest);
  ticket = Ticket("alice");
  (void)sessions_->EndAllOfUser("alice");
  EXPECT_EQ(Try(Target() + "&ticket=" + ticket, ""), 401);
}

TEST_F(ConsoleTest, Ticket_TooMany_AreRefused) {
  const std::string bearer = BearerOf("alice");
  const std::string parameters = std::string(R"({"guest_id":")") + kGuest + R"(","type":"vnc"})";
  for (std::size_t i = 0; i < session::ConsoleTickets::kMaxTicketsPerUser; ++i) {
    ASSERT_EQ(Call("console_ticket", bearer, parameters)["success"], true) << i;
  }
  EXPECT_EQ(Call("console_ticket", bearer, parameters)["error"]["code"], user_error::kHostBusy);
  now_ += std::chrono::seconds(31);
  EXPECT_EQ(Call("console_ticket", bearer, parameters)["success"], true);
}

TEST_F(ConsoleTest, WithoutRight_IsRefusedBeforeAnythingElse) {
  const std::string unknown = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4aff";
  for (const std::string user : {"bob", "eve"}) {
    EXPECT_EQ(Try(Target(), BearerOf(user)), 403) << user;
    EXPECT_EQ(Code(), user_error::kNotPermitted);
    EXPECT_EQ(Reason(), "The console of this guest was not granted to you.");
    EXPECT_EQ(Try(Target("vnc", unknown), BearerOf(user)), 403) << "whether it exists is not said";
    const std::pair<std::string, std::string> methods[] = {
        {"console_ticket", R"(,"type":"vnc")"}, {"screenshot", ""}, {"type", R"(,"text":"x")"}};
    for (const auto& [method, more] : methods) {
      const std::string body = std::string(R"({"guest_id":")") + kGuest + "\"" + more + "}";
      EXPECT_EQ(Call(method, BearerOf(user), body)["error"]["code"], user_error::kNotPermitted) << method;
    }
  }
  EXPECT_EQ(Try(Target("vnc", kOther), BearerOf("alice")), 403);
  EXPECT_EQ(Try(Target("vnc", unknown), BearerOf("admin")), 404);
  EXPECT_EQ(Try(Target(), ""), 401);
  EXPECT_EQ(Try(Target(), "Authorization: Bearer " + std::string(43, 'x') + "\r\n"), 401);
  EXPECT_TRUE(guests_.asked().empty());
  EXPECT_EQ(Try(Target("serial", kOther), BearerOf("admin")), 101);
}

TEST_F(ConsoleTest, PageOfOtherSite_CannotUseCookie) {
  const session::NewSession session = Session("alice");
  const std::string cookie = "Cookie: vexa_session=" + session.token + "\r\n";
  EXPECT_EQ(Try(Target(), cookie), 403) << "browsers send it for pages of other sites as well";
  EXPECT_EQ(Code(), user_error::kBadCsrfToken);
  const std::string with_token = cookie + "X-Vexa-CSRF: " + session.csrf_token + "\r\n";
  EXPECT_EQ(Try(Target(), with_token), 101);
  for (const std::string origin : {"http://evil.example", "null", "http://nas.evil.example", "http://nas:81", "nas"}) {
    EXPECT_EQ(Try(Target(), with_token + "Origin: " + origin + "\r\n"), 403) << origin;
    EXPECT_EQ(Code(), user_error::kDenied);
    EXPECT_EQ(Reason(), "The request comes from a page of another site.");
    const std::string ticket = Ticket("alice");
    EXPECT_EQ(Try(Target() + "&ticket=" + ticket, "Origin: " + origin + "\r\n"), 403) << origin;
  }
  for (const std::string origin : {"http://nas", "https://nas", "http://NAS"}) {
    EXPECT_EQ(Try(Target(), with_token + "Origin: " + origin + "\r\n"), 101) << origin;
    ASSERT_TRUE(Eventually([&] { return consoles_->size() == 0; }));
  }
}

TEST_F(ConsoleTest, BadRequest_IsRefusedWithReason) {
  const std::string bearer = BearerOf("alice");
  const std::string base = std::string("/console/") + kGuest;
  for (const std::string& target : {base, base + "?type=rdp", base + "?type=vnc&type=vnc", base + "?type=vnc&x=1",
                                    base + "?type=vnc&ticket", base + "?Type=vnc"}) {
    EXPECT_EQ(Try(target, bearer), 400) << target;
    EXPECT_EQ(Reason(), "Use type=vnc or type=serial, and nothing else but a ticket.") << target;
  }
  for (const std::string target : {"/console/", "/console/x?type=vnc", "/console/../console?type=vnc"}) {
    EXPECT_EQ(Try(target, bearer), 404) << target;
  }
  EXPECT_EQ(Try(Target(), bearer + "Sec-WebSocket-Version: 8\r\n"), 400);
  EXPECT_EQ(Reason(), "A console needs a request for an upgrade to WebSocket.");
  EXPECT_TRUE(guests_.asked().empty());
}

TEST_F(ConsoleTest, Refusal_OfHost_HasCodeAndReason) {
  const std::pair<Refusal, int> rows[] = {{{host_error::kNotRunning, "It does not run"}, 911},
                                          {{host_error::kBusy, "Somebody else uses it"}, 912},
                                          {{host_error::kUnavailable, "libvirt is gone"}, 949},
                                          {{host_error::kFailed, "It has no VNC screen"}, 901}};
  for (const auto& [refusal, code] : rows) {
    guests_.refused = refusal;
    EXPECT_NE(Try(Target(), BearerOf("alice")), 101);
    EXPECT_EQ(Code(), code);
    EXPECT_THAT(Reason(), ::testing::Not(HasSubstr(refusal.reason))) << "it may name files of the host";
    EXPECT_THAT(Reason(), ::testing::EndsWith(code == 911 ? "has no saved memory." : kAskAdministrator));
  }
  EXPECT_EQ(consoles_->size(), 0U);
}

TEST_F(ConsoleTest, GuestOnOtherHost_IsOpenedThere) {
  PutRun(kGuest, "h2");
  EXPECT_EQ(Try(Target("serial"), BearerOf("alice")), 502);
  EXPECT_EQ(remote_asked_, std::string("h2 ") + kGuest + " serial");
  EXPECT_EQ(Code(), user_error::kUnreachable);
  EXPECT_EQ(Reason(), std::string("The host could not be reached, or did not answer in time. ") + kAskAdministrator);
  ASSERT_TRUE(host_.store().Commit({{}, {{records::RunKey(kGuest), std::nullopt}}}).ok());
  EXPECT_EQ(Try(Target(), BearerOf("alice")), 409);
  EXPECT_EQ(Code(), user_error::kNotRunning);
}

TEST_F(ConsoleTest, EveryOpening_IsInClusterLogWithUser) {
  EXPECT_EQ(Try(Target(), BearerOf("alice")), 101);
  EXPECT_EQ(Try(Target("serial"), BearerOf("admin")), 101);
  guests_.refused = Refusal{host_error::kBusy, "Somebody else uses it"};
  EXPECT_EQ(Try(Target("serial"), BearerOf("alice")), 409);
  EXPECT_THAT(ClusterLog(),
              ::testing::ElementsAre("alice: The screen of the virtual machine [vm-1] has been opened.",
                                     "admin: The serial line of the virtual machine [vm-1] has been opened.",
                                     "alice: Failed to open the serial line of the virtual machine [vm-1]."));
}

// How an open console ends.
class OpenConsoleTest : public ConsoleTest {
 protected:
  OpenConsoleTest() : client_(Connect()) {
    session_ = Session("alice");
    EXPECT_EQ(client_.Upgrade(Target(), "Authorization: Bearer " + session_.token + "\r\n"), 101);
    EXPECT_TRUE(client_.Send("x"));
    EXPECT_EQ(ReadGuestEnd(1), "x");
  }

  void ExpectEnd() {
    consoles_->Check();
    EXPECT_EQ(client_.ReceiveClose(), 1008);
    EXPECT_TRUE(GuestEndHasEnded());
    EXPECT_TRUE(Eventually([&] { return consoles_->size() == 0; }));
  }

  session::NewSession session_;
  WebSocketClient client_;
};

TEST_F(OpenConsoleTest, NothingChanged_Stays) {
  consoles_->Check();
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));  // two sweeps of the server
  ASSERT_TRUE(client_.Send("y"));
  EXPECT_EQ(ReadGuestEnd(1), "y");
}

TEST_F(OpenConsoleTest, ConsoleRevoked_Ends) {
  ASSERT_TRUE(cluster::RevokeConsoles(host_.store(), Principal("alice"), {kGuest}).ok());
  ExpectEnd();
}

TEST_F(OpenConsoleTest, GuestRevoked_Ends) {
  ASSERT_TRUE(cluster::RevokeGuests(host_.store(), Principal("alice"), {kGuest}).ok());
  ExpectEnd();
}

TEST_F(OpenConsoleTest, SessionEnded_EndsWithoutCheck) {
  (void)sessions_->End(session_.token);
  EXPECT_EQ(client_.ReceiveClose(), 1008);
  EXPECT_TRUE(GuestEndHasEnded());
}

TEST_F(OpenConsoleTest, UserDeleted_Ends) {
  ASSERT_TRUE(host_.accounts().DeleteUser("alice").ok());
  ExpectEnd();
}

TEST_F(OpenConsoleTest, GuestDeleted_Ends) {
  host_.Remove("guest", kGuest);
  ExpectEnd();
}

TEST_F(OpenConsoleTest, GuestOff_EndsNormally) {
  ::shutdown(guests_.console(), SHUT_RDWR);
  EXPECT_EQ(client_.ReceiveClose(), 1000);
}

TEST_F(OpenConsoleTest, StoreUnreadable_Stays) {
  host_.store().FailSnapshots();
  consoles_->Check();
  host_.store().Heal();
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  ASSERT_TRUE(client_.Send("y"));
  EXPECT_EQ(ReadGuestEnd(1), "y");
}

TEST_F(OpenConsoleTest, Stop_EndsIt) {
  std::thread stop([&] { (void)server_->Stop(std::chrono::seconds(20)); });
  EXPECT_EQ(client_.ReceiveClose(), 1001);
  stop.join();
  EXPECT_TRUE(GuestEndHasEnded());
  EXPECT_EQ(consoles_->size(), 0U);
}

TEST_F(ConsoleTest, TooMany_AreRefusedPerUserAndTogether) {
  GrantConsole("bob", kGuest);
  std::vector<WebSocketClient> open;
  const auto open_as = [&](const std::string& user) {
    open.push_back(Connect());
    return open.back().Upgrade(Target(), BearerOf(user));
  };
  for (int i = 0; i < 4; ++i) EXPECT_EQ(open_as("alice"), 101);
  EXPECT_EQ(Try(Target(), BearerOf("alice")), 503);
  EXPECT_EQ(Reason(), "Too many consoles are open. Close others first.");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(open_as("bob"), 101);
  EXPECT_EQ(Try(Target(), BearerOf("bob")), 503) << "6 are open";
  open.pop_back();
  EXPECT_TRUE(Eventually([&] { return Try(Target(), BearerOf("bob")) == 101; }));
}

std::size_t MemoryMib() {
  std::ifstream file("/proc/self/statm");
  std::size_t all = 0;
  std::size_t resident = 0;
  file >> all >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) >> 20;
}

TEST_F(ConsoleTest, TwoHundredThatReadNothing_TakeNoThreadsAndLittleMemory) {
  max_consoles_per_user_ = max_consoles_ = 256;
  server_.reset();
  Start();
  EXPECT_EQ(Try(Target(), BearerOf("admin")), 101);  // what the first one starts is there
  const int threads = test::ProcessThreads();
  const std::size_t memory = MemoryMib();
  const std::string block(65536, 'b');
  std::vector<WebSocketClient> viewers;
  std::vector<int> guest_ends;
  for (int i = 0; i < 200; ++i) {
    viewers.push_back(WebSocketClient::Unix(folder_ + "/socket"));
    ASSERT_EQ(viewers.back().Upgrade(Target(i % 2 == 0 ? "vnc" : "serial")), 101) << i << viewers.back().body();
    guest_ends.push_back(guests_.console());
  }
  // All that is taken from each guest, until nothing more is.
  for (int quiet = 0; quiet < 5;) {
    bool is_taken = false;
    for (const int end : guest_ends) {
      while (::send(end, block.data(), block.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0) is_taken = true;
    }
    quiet = is_taken ? 0 : quiet + 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_EQ(consoles_->size(), 200U);
  EXPECT_LT(test::ProcessThreads(), threads + 10);  // the lane may have started some
  // 200 times two buffers of 64 KiB, and what connections take. The thread sanitizer has memory of its own for each
  // byte.
#ifdef VEXA_THREAD_SANITIZER
  constexpr std::size_t kMostMib = 1000;
#else
  constexpr std::size_t kMostMib = 100;
#endif
  EXPECT_LT(MemoryMib(), memory + kMostMib);
  // Another viewer of the same guest is served.
  WebSocketClient other = WebSocketClient::Unix(folder_ + "/socket");
  ASSERT_EQ(other.Upgrade(Target()), 101) << other.body();
  ASSERT_TRUE(other.Send("typed"));
  EXPECT_EQ(ReadGuestEnd(5), "typed");
  ASSERT_EQ(::send(guests_.console(), "shown", 5, MSG_NOSIGNAL), 5);
  EXPECT_EQ(other.Receive(5), "shown");
}

TEST_F(ConsoleTest, ThousandAttempts_LeaveNothingBehind) {
  const std::string bearer = BearerOf("alice");
  int opened = 0;
  for (int i = 0; i < 1000; ++i) {
    const int status = Try(Target(), bearer);
    EXPECT_TRUE(status == 101 || status == 503) << status;
    opened += status == 101 ? 1 : 0;
  }
  EXPECT_GT(opened, 10);
  EXPECT_TRUE(Eventually([&] { return consoles_->size() == 0 && server_->stats().connections == 0; }));
}

TEST_F(ConsoleTest, Garbage_EndsThatConsoleOnly) {
  WebSocketClient other = Connect();
  ASSERT_EQ(other.Upgrade(Target("serial"), BearerOf("alice")), 101);
  WebSocketClient client = Connect();
  ASSERT_EQ(client.Upgrade(Target(), BearerOf("alice")), 101);
  std::string garbage;
  for (int i = 0; i < 100'000; ++i) garbage += static_cast<char>(i * 7919 >> 3);
  (void)client.SendRaw(garbage);
  client.Close();
  EXPECT_TRUE(Eventually([&] { return consoles_->size() == 1; }));
}

TEST_F(ConsoleTest, ScreenshotAndType_AskHostOfGuest) {
  // The transport that would call the host is not installed here.
  const std::string guest = std::string(R"({"guest_id":")") + kGuest + "\"";
  EXPECT_EQ(Call("screenshot", BearerOf("alice"), guest + "}")["error"]["code"], user_error::kUnreachable);
  const Json::Value reply = Call("type", BearerOf("alice"), guest + ",\"text\":\"gr\xc3\xbc\xc3\x9f\"}");
  EXPECT_EQ(reply["error"]["code"], user_error::kBadParameter);
  EXPECT_EQ(reply["error"]["reason"], "The character 'ü' (U+00FC) has no key on a US keyboard.");
  EXPECT_EQ(Call("type", BearerOf("alice"), guest + R"(,"text":"secret"})")["error"]["code"], user_error::kUnreachable);
  EXPECT_THAT(ClusterLog(),
              ::testing::ElementsAre("alice: Failed to take a picture of the screen of the virtual machine [vm-1].",
                                     "alice: Failed to type a text on the keyboard of the virtual machine [vm-1]."));
}

// A text, typed by the guest's host, which is another one.
class TypeTest : public ConsoleTest {
 protected:
  Json::Value Type(const std::string& text, std::function<std::string(std::size_t call)> answer) {
    PutRun(kGuest, "h2");
    const test::JsonHost host([&](http::HttpRequest&& request, http::Responder responder) {
      texts_.push_back(json::StringMember(Parsed(request.body), "text"));
      http::HttpResponse response;
      response.body = answer(texts_.size());
      responder.Send(std::move(response));
    });
    const test::InstalledTransport transport({{"h2", host.address()}});
    return Call("type", BearerOf("alice"), std::string(R"({"guest_id":")") + kGuest + R"(","text":")" + text + "\"}");
  }

  std::vector<std::string> texts_;  // what the host was asked to type
};

constexpr const char* kTyped32 = R"({"success":true,"data":{"typed":32}})";

TEST_F(TypeTest, LongText_IsTypedInPieces) {
  const std::string text = std::string(32, 'a') + std::string(32, 'b') + "cd";
  const Json::Value reply =
      Type(text, [](std::size_t call) { return call < 3 ? kTyped32 : R"({"success":true,"data":{"typed":2}})"; });
  EXPECT_EQ(reply["success"], true) << reply.toStyledString();
  EXPECT_THAT(texts_, ::testing::ElementsAre(text, text.substr(32), "cd"));
}

TEST_F(TypeTest, Stop_EndsItAndAnswersHowFarItCame) {
  const Json::Value reply = Type(std::string(1024, 'a'), [this](std::size_t call) {
    if (call == 3) is_stopping_ = true;
    return kTyped32;
  });
  EXPECT_EQ(reply["error"]["code"], user_error::kUnavailable);
  EXPECT_EQ(reply["error"]["reason"], "This host is stopping. Typed the first 96 of 1024 characters.");
  EXPECT_EQ(texts_.size(), 3U);
  EXPECT_THAT(ClusterLog(),
              ::testing::ElementsAre("alice: Failed to type a text on the keyboard of the virtual machine [vm-1]."));
}

TEST_F(TypeTest, RightRevokedMeanwhile_TypesNoMore) {
  const Json::Value reply = Type(std::string(128, 'a'), [this](std::size_t call) {
    const bool is_revoked = call != 2 || cluster::RevokeConsoles(host_.store(), Principal("alice"), {kGuest}).ok();
    EXPECT_TRUE(is_revoked);
    return kTyped32;
  });
  EXPECT_EQ(reply["error"]["code"], user_error::kNotPermitted);
  EXPECT_EQ(reply["error"]["reason"],
            "The console of this guest is no longer granted to you. Typed the first 64 of 128 characters.");
  EXPECT_EQ(texts_.size(), 2U);
  EXPECT_THAT(ClusterLog(),
              ::testing::ElementsAre("alice: Failed to type a text on the keyboard of the virtual machine [vm-1]."));
}

TEST_F(TypeTest, Failure_AnswersHowFarItCame) {
  Json::Value reply = Type(std::string(50, 'a'), [](std::size_t call) {
    return call == 1 ? kTyped32 : R"({"success":false,"error":{"code":911,"details":"It does not run"}})";
  });
  EXPECT_EQ(reply["error"]["code"], user_error::kNotRunning);
  EXPECT_EQ(reply["error"]["reason"],
            "The guest does not run, or has no saved memory. Typed the first 32 of 50 characters.");
  for (const char* answer : {R"({"success":true,"data":null})", R"({"success":true,"data":{"typed":0}})",
                             R"({"success":true,"data":{"typed":"x"}})"}) {
    texts_.clear();
    reply = Type("a", [answer](std::size_t) { return answer; });
    EXPECT_EQ(reply["error"]["code"], user_error::kActionFailed) << answer;
    EXPECT_EQ(reply["error"]["reason"], "The guest's host typed no character") << answer;
    EXPECT_EQ(texts_.size(), 1U);
  }
}

TEST(Base64, RoundTrip_AndNothingElse) {
  for (const std::string bytes : {"", "a", "ab", "abc", "abcd", "\xff\xfe\xfd"}) {
    const auto decoded = DecodeBase64(EncodeBase64(bytes));
    ASSERT_TRUE(decoded.has_value()) << bytes;
    EXPECT_EQ(*decoded, bytes);
  }
  EXPECT_EQ(EncodeBase64("abcd"), "YWJjZA==");
  const std::string large((std::size_t{12} << 20) + 5, 'x');
  EXPECT_EQ(DecodeBase64(EncodeBase64(large)), large);
  for (const std::string text : {"a", "YWJjZB==", "YWJj ", " YWJj", "YW=j", "====", "YWJjZA=", "YWJj\n"}) {
    EXPECT_FALSE(DecodeBase64(text).has_value()) << text;
  }
}

}  // namespace
}  // namespace vexa::api
