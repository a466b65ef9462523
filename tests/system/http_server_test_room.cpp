// Which connections go when room is short.
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/system/http_server_test_support.h"

namespace vexa::http {
namespace {

using namespace testing_support;  // NOLINT(google-build-using-namespace)

// Answers "/user/NAME" and "/host/NAME" as requests of these, "/stranger" as one with a refused login, and other
// targets as the test server does.
class RoomServer {
 public:
  explicit RoomServer(ServerLimits limits)
      : server_([this, limits](ServerOptions& options) {
          options.limits = limits;
          options.limits.connections_per_owner = limits.connections;
          options.listeners.emplace_back();
          options.listeners[1].kind = ListenerOptions::Kind::kUnix;
          options.listeners[1].path = folder_.File("s");
          auto pass_on = std::move(options.on_request);
          options.on_request = [this, pass_on = std::move(pass_on)](HttpRequest&& request, const Responder& responder) {
            const std::optional<Owner> owner = OwnerOf(request.target);
            if (!owner) return pass_on(std::move(request), responder);
            HttpResponse response;
            response.owner = owner;
            responder.Send(std::move(response));
          };
        }) {}

  TestServer& operator*() { return server_; }
  ServerStats stats() { return server_->stats(); }
  Client Tcp(const char* local_address = nullptr) const { return Client::Tcp(server_.port(), local_address); }
  Client Unix() const { return Client::Unix(folder_.File("s")); }
  void EndLogins() { logged_in_ = false; }

 private:
  std::optional<Owner> OwnerOf(const std::string& target) {
    const auto is_current = [this] { return logged_in_.load(); };
    if (target.starts_with("/user/")) return Owner{Owner::Kind::kUser, target.substr(6), is_current};
    if (target.starts_with("/host/")) return Owner{Owner::Kind::kHost, target.substr(6), {}};
    if (target == "/stranger") return Owner();
    return std::nullopt;
  }

  test::TempDir folder_;
  std::atomic<bool> logged_in_ = true;
  TestServer server_;
};

ServerLimits WithConnections(std::size_t count) {
  ServerLimits limits;
  limits.connections = count;
  limits.connections_per_peer = count;
  // Strangers who say nothing stay until a test needs their place, however slow the machine is.
  limits.header = std::chrono::minutes(10);
  limits.body = std::chrono::minutes(10);
  limits.idle = std::chrono::minutes(10);
  return limits;
}

int Ask(Client& client, const std::string& target) {
  if (!client.Send(Get(target))) return 0;
  return client.Receive().status;
}

// Whether a new connection is answered. The one that has to go for it counts as busy until the server has noticed that
// its response was sent.
bool EventuallyServed(RoomServer& server) {
  return Eventually([&] {
    Client next = server.Tcp();
    return Ask(next, "/") == 200;
  });
}

// As many as the limit of open files allows to this process, which has both ends of each; at most 10,000.
std::size_t ManyConnections(std::size_t extra) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  return std::min<std::size_t>(10'000, (limit.rlim_cur - extra - 300) / 2);
}

TEST(HttpRoom, FloodOfIdleStrangers_RootHostAndUser_AreServed) {
  constexpr std::size_t kExtra = 500;
  const std::size_t limit = ManyConnections(kExtra);
  RoomServer server(WithConnections(limit));
  Client user = server.Tcp();
  Client host = server.Tcp();
  ASSERT_EQ(Ask(user, "/user/alice"), 200);
  ASSERT_EQ(Ask(host, "/host/h1"), 200);
  std::vector<Client> strangers;
  for (std::size_t i = 0; i < limit + kExtra; ++i) {
    strangers.push_back(server.Tcp());
    ASSERT_TRUE(strangers.back().connected()) << i;
  }
  ASSERT_TRUE(Eventually([&] {
    const ServerStats stats = server.stats();
    return stats.connections_evicted + stats.connections_refused >= kExtra && stats.connections >= limit - 1;
  }));
  EXPECT_EQ(Ask(user, "/user/alice"), 200);
  EXPECT_EQ(Ask(host, "/host/h1"), 200);
  Client root = server.Unix();
  EXPECT_EQ(Ask(root, "/"), 200);
  std::vector<Client> newcomers;
  ASSERT_TRUE(Eventually([&] {
    newcomers.push_back(Client::Tcp((*server).port(), "127.0.0.9"));
    return Ask(newcomers.back(), "/user/bob") == 200;
  }));
  Client& newcomer = newcomers.back();
  for (int i = 0; i < 100; ++i) strangers.push_back(server.Tcp());
  EXPECT_EQ(Ask(newcomer, "/user/bob"), 200) << "a connection that becomes a user's stays";
  EXPECT_EQ(Ask(root, "/"), 200);
}

// Strangers that send a byte of a body now and then, and come back when they have lost their connections.
class Trickle {
 public:
  // Stranger number i comes from address_of(i).
  Trickle(RoomServer& server, std::size_t count, std::function<std::string(std::size_t)> address_of)
      : server_(server), address_of_(std::move(address_of)) {
    for (std::size_t i = 0; i < count; ++i) clients_.push_back(Connect(i));
    thread_ = std::thread([this] {
      while (!stop_) SendSome();
    });
  }
  ~Trickle() {
    stop_ = true;
    thread_.join();
  }
  int rounds() const { return rounds_; }

 private:
  std::unique_ptr<Client> Connect(std::size_t i) {
    auto client = std::make_unique<Client>(server_.Tcp(address_of_(i).c_str()));
    client->Send("POST / HTTP/1.1\r\nHost: nas\r\nContent-Length: 100000\r\n\r\n");
    return client;
  }
  void SendSome() {
    for (std::size_t i = 0; i < clients_.size() && !stop_; ++i) {
      if (!clients_[i]->Send("x")) clients_[i] = Connect(i);
    }
    ++rounds_;
    std::this_thread::sleep_for(milliseconds(500));
  }

  RoomServer& server_;
  const std::function<std::string(std::size_t)> address_of_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::atomic<bool> stop_ = false;
  std::atomic<int> rounds_ = 0;
  std::thread thread_;
};

// Also somebody who has no connection yet: logs in, and stays then.
void ExpectAllAreServedDuringTrickle(const std::function<std::string(std::size_t)>& address_of) {
  const std::size_t limit = std::min<std::size_t>(2'000, ManyConnections(500));
  RoomServer server(WithConnections(limit));
  Client user = server.Tcp();
  Client host = server.Tcp();
  ASSERT_EQ(Ask(user, "/user/alice"), 200);
  ASSERT_EQ(Ask(host, "/host/h1"), 200);
  const Trickle strangers(server, limit + limit / 20, address_of);
  ASSERT_TRUE(Eventually([&] { return strangers.rounds() >= 2 && server.stats().connections >= limit - 1; }));
  std::vector<Client> newcomers;
  ASSERT_TRUE(Eventually([&] {
    newcomers.push_back(server.Tcp("127.0.0.9"));
    return Ask(newcomers.back(), "/login") == 200 && Ask(newcomers.back(), "/user/bob") == 200;
  })) << server.stats().connections_refused
      << " connections were refused";
  Client root = server.Unix();
  const int rounds = strangers.rounds();
  ASSERT_TRUE(Eventually([&] { return strangers.rounds() >= rounds + 3; }));
  EXPECT_EQ(Ask(newcomers.back(), "/user/bob"), 200);
  EXPECT_EQ(Ask(root, "/"), 200);
  EXPECT_EQ(Ask(user, "/user/alice"), 200);
  EXPECT_EQ(Ask(host, "/host/h1"), 200);
}

TEST(HttpRoom, TrickleFromFewAddresses_RootHostUserAndNewcomer_AreServed) {
  ExpectAllAreServedDuringTrickle([](std::size_t i) { return "127.0.1." + std::to_string(i % 4 + 1); });
}

TEST(HttpRoom, TrickleFromThousandsOfAddresses_RootHostUserAndNewcomer_AreServed) {
  ExpectAllAreServedDuringTrickle(
      [](std::size_t i) { return "127.2." + std::to_string(i / 250 + 1) + "." + std::to_string(i % 250 + 1); });
}

TEST(HttpRoom, RequestWithRefusedLogin_MakesConnectionAStrangersAgain) {
  RoomServer server(WithConnections(1));
  Client client = server.Tcp();
  ASSERT_EQ(Ask(client, "/user/alice"), 200);
  EXPECT_EQ(server.Tcp().Receive().status, 503) << "a user's only connection stays";
  ASSERT_EQ(Ask(client, "/stranger"), 200);
  EXPECT_TRUE(EventuallyServed(server));
  EXPECT_TRUE(client.SilentlyClosed());
}

TEST(HttpRoom, LoginThatEnds_MakesIdleConnectionAStrangersAgain) {
  RoomServer server(WithConnections(1));
  Client client = server.Tcp();
  ASSERT_EQ(Ask(client, "/user/alice"), 200);
  server.EndLogins();
  EXPECT_TRUE(EventuallyServed(server));
  EXPECT_TRUE(client.SilentlyClosed());
}

TEST(HttpRoom, ConnectionWithRequest_StaysWhileIdleOnesExist) {
  RoomServer server(WithConnections(2));
  Client busy = server.Tcp();
  ASSERT_TRUE(busy.Send(Get("/wait")));
  ASSERT_TRUE(Eventually([&] { return (*server).held() == 1; }));
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(EventuallyServed(server));
  (*server).Release();
  EXPECT_EQ(busy.Receive().body, "released");
}

TEST(HttpRoom, BodyThatDoesNotArrive_CountsAsIdle) {
  RoomServer server(WithConnections(1));
  Client stalled = server.Tcp();
  ASSERT_TRUE(stalled.Send("POST / HTTP/1.1\r\nHost: nas\r\nContent-Length: 5\r\n\r\n"));
  ASSERT_TRUE(Eventually([&] { return server.stats().requests == 1; }));
  EXPECT_TRUE(EventuallyServed(server));
  EXPECT_TRUE(stalled.SilentlyClosed());
}

TEST(HttpRoom, EvictedConnections_AreCountedAndClosed) {
  RoomServer server(WithConnections(10));
  std::vector<Client> clients;
  for (int i = 0; i < 20; ++i) {
    clients.push_back(server.Tcp());
    ASSERT_EQ(Ask(clients.back(), "/"), 200);
  }
  EXPECT_EQ(server.stats().connections_evicted, 10U);
  EXPECT_EQ(server.stats().connections, 10U);
  int served = 0;
  for (Client& client : clients) served += Ask(client, "/") == 200 ? 1 : 0;
  EXPECT_EQ(served, 10);
}

}  // namespace
}  // namespace vexa::http
