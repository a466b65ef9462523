// Deadlines, limits, Unix sockets and the end of a server.
#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/system/http_server_test_support.h"

namespace vexa::http {
namespace {

using namespace testing_support;  // NOLINT(google-build-using-namespace)
using Clock = std::chrono::steady_clock;

class TemporaryFolder {
 public:
  TemporaryFolder() {
    char name[] = "/tmp/vexa-http-XXXXXX";
    path_ = mkdtemp(name);
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::function<void(ServerOptions&)> OnUnix(const std::string& path, mode_t mode = 0666) {
  return [=](ServerOptions& options) {
    options.listeners[0].kind = ListenerOptions::Kind::kUnix;
    options.listeners[0].path = path;
    options.listeners[0].mode = mode;
  };
}

Result<std::unique_ptr<HttpServer>> StartOn(const std::string& path) {
  ServerOptions options;
  options.listeners.emplace_back();
  OnUnix(path)(options);
  return HttpServer::Start(std::move(options));
}

// ---- Threads

TEST(HttpThreads, CallbackHangs_IsNoticedUntilItReturns) {
  std::atomic<bool> hangs = false;
  std::atomic<bool> may_return = false;
  TestServer server([&](ServerOptions& options) {
    options.on_header = [&](HttpRequest&) -> std::optional<HttpResponse> {
      hangs = true;
      while (!may_return) std::this_thread::sleep_for(milliseconds(1));
      return std::nullopt;
    };
  });
  EXPECT_TRUE(server->AreThreadsResponding(kTimeout));
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/")));
  ASSERT_TRUE(Eventually([&] { return hangs.load(); }));
  EXPECT_FALSE(server->AreThreadsResponding(milliseconds(100)));
  may_return = true;
  EXPECT_EQ(client.Receive().status, 200);
  EXPECT_TRUE(server->AreThreadsResponding(kTimeout));
}

// ---- Deadlines

TEST(HttpDeadlines, Timeout_SlowHeader_Gets408) {
  TestServer server([](ServerOptions& options) { options.limits.header = milliseconds(600); });
  Client client = server.Connect();
  const auto start = Clock::now();
  std::atomic<bool> answered = false;
  // An earlier request on the connection must not colour the answer: neither its id nor its missing body.
  ASSERT_TRUE(client.Send("HEAD / HTTP/1.1\r\nHost: nas\r\n\r\n"));
  const std::string earlier_id = client.Receive(Client::Expect::kHeaderOnly).field("x-request-id");
  ASSERT_TRUE(client.Send("GET / HTTP/1.1\r\n"));
  std::thread drip([&] {
    while (!answered && client.Send("X")) std::this_thread::sleep_for(milliseconds(50));
  });
  const Reply reply = client.Receive();
  answered = true;
  drip.join();
  EXPECT_EQ(reply.status, 408);
  EXPECT_EQ(reply.field("x-request-id").size(), 16U);
  EXPECT_NE(reply.field("x-request-id"), earlier_id);
  EXPECT_EQ(reply.body, "error 408 " + reply.field("x-request-id"));
  EXPECT_GE(Clock::now() - start, milliseconds(600));
}

TEST(HttpDeadlines, Timeout_SlowBody_Gets408) {
  TestServer server([](ServerOptions& options) { options.limits.body = milliseconds(600); });
  Client client = server.Connect();
  std::atomic<bool> answered = false;
  ASSERT_TRUE(client.Send("POST / HTTP/1.1\r\nHost: nas\r\nContent-Length: 100000\r\n\r\n"));
  std::thread drip([&] {
    while (!answered && client.Send("X")) std::this_thread::sleep_for(milliseconds(50));
  });
  EXPECT_EQ(client.Receive().status, 408);
  answered = true;
  drip.join();
}

TEST(HttpDeadlines, Timeout_SilentConnections_AreClosedWithoutResponse) {
  TestServer server([](ServerOptions& options) {
    options.limits.header = milliseconds(300);
    options.limits.idle = milliseconds(300);
  });
  Client fresh = server.Connect();
  Client kept = server.Connect();
  ASSERT_TRUE(kept.Send(Get("/")));
  EXPECT_EQ(kept.Receive().status, 200);
  EXPECT_TRUE(fresh.SilentlyClosed());
  EXPECT_TRUE(kept.SilentlyClosed());
  EXPECT_TRUE(Eventually([&] { return server->stats().connections == 0; }));
}

TEST(HttpDeadlines, Timeout_HandlerRuns_DoesNotApply) {
  TestServer server([](ServerOptions& options) {
    options.limits.header = milliseconds(100);
    options.limits.body = milliseconds(100);
    options.limits.idle = milliseconds(100);
    options.limits.write = milliseconds(100);
  });
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/wait")));
  EXPECT_TRUE(client.QuietFor(milliseconds(1500)));
  server.Release();
  EXPECT_EQ(client.Receive().body, "released");
}

TEST(HttpDeadlines, Timeout_SlowReader_IsDisconnected) {
  const std::string large(64 * 1024 * 1024, 'y');
  TestServer server([&](ServerOptions& options) {
    options.limits.write = milliseconds(600);
    options.on_request = [&](HttpRequest&&, const Responder& responder) {
      HttpResponse response;
      response.body = large;
      responder.Send(std::move(response));
    };
  });
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/")));
  EXPECT_TRUE(Eventually([&] { return server->stats().connections == 1; }));
  EXPECT_TRUE(Eventually([&] { return server->stats().connections == 0; }));
  EXPECT_LT(client.ReceiveAll().size(), large.size());
}

// ---- Limits

TEST(HttpLimits, Connections_AboveTotalLimitOfBusyOnes_Get503UntilOneCloses) {
  TestServer server([](ServerOptions& options) { options.limits.connections = 3; });
  std::vector<Client> clients;
  for (int i = 0; i < 3; ++i) {
    clients.push_back(server.Connect());
    ASSERT_TRUE(clients.back().Send(Get("/wait")));
  }
  ASSERT_TRUE(Eventually([&] { return server.held() == 3; }));
  for (int i = 0; i < 3; ++i) {
    Client refused = server.Connect();
    refused.Send(Get("/"));
    const Reply reply = refused.Receive();
    EXPECT_EQ(reply.status, 503);
    EXPECT_EQ(reply.field("retry-after"), "1");
    EXPECT_EQ(reply.field("connection"), "close");
    EXPECT_EQ(refused.ReceiveAll(), "");
  }
  EXPECT_EQ(server->stats().connections_refused, 3U);
  EXPECT_EQ(server->stats().connections, 3U);
  server.Release();
  clients.pop_back();
  ASSERT_TRUE(Eventually([&] { return server->stats().connections == 2; }));
  Client next = server.Connect();
  ASSERT_TRUE(next.Send(Get("/")));
  EXPECT_EQ(next.Receive().status, 200);
}

TEST(HttpLimits, ConnectionsPerPeer_LimitOfBusyOnesReached_OtherAddressesAreServed) {
  TestServer server([](ServerOptions& options) { options.limits.connections_per_peer = 1; });
  Client first = server.Connect();
  ASSERT_TRUE(first.Send(Get("/wait")));
  ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
  EXPECT_EQ(server.Connect().Receive().status, 503);
  Client other = Client::Tcp(server.port(), "127.0.0.2");
  ASSERT_TRUE(other.Send(Get("/")));
  EXPECT_EQ(other.Receive().status, 200);
  EXPECT_EQ(server.last_request()->peer.address, "127.0.0.2");
}

TEST(HttpLimits, Reading_ClientSendsAheadForever_Pauses) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/wait")));
  ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
  // Only the kernel's buffers and the bound on what is kept are between the two.
  const std::string block(64 * 1024, 'x');
  std::size_t sent = 0;
  for (int quiet = 0; quiet < 20 && sent < 64 * block.size() * 16;) {
    const ssize_t step = ::send(client.fd(), block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (step > 0) {
      sent += static_cast<std::size_t>(step);
      quiet = 0;
    } else {
      ++quiet;
      std::this_thread::sleep_for(milliseconds(10));
    }
  }
  EXPECT_LT(sent, 64 * block.size() * 16);
}

TEST(HttpLimits, Connections_ThousandIdle_NeedNoThread) {
  TestServer server;
  const int threads = ProcessThreads();
  std::vector<Client> clients;
  for (int i = 0; i < 1000; ++i) {
    clients.push_back(server.Connect());
    ASSERT_TRUE(clients.back().connected()) << i;
    if (i % 2 == 0) {
      ASSERT_TRUE(clients.back().Send(Get("/")));
      ASSERT_EQ(clients.back().Receive().status, 200);
    }
  }
  EXPECT_TRUE(Eventually([&] { return server->stats().connections == 1000; }));
  EXPECT_EQ(ProcessThreads(), threads);
  clients.clear();
  EXPECT_TRUE(Eventually([&] { return server->stats().connections == 0; }));
}

double ProcessorSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

TEST(HttpLimits, Accept_OutOfDescriptors_PausesAndResumes) {
  TestServer server;
  std::vector<Client> clients;
  for (int i = 0; i < 3; ++i) clients.push_back(server.Connect());
  ASSERT_TRUE(Eventually([&] { return server->stats().connections == 3; }));
  // Created before, because no descriptor can be opened after this: the limit is below those in use. (poll(2) needs it
  // above zero.)
  const int unconnected = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit tight = before;
  tight.rlim_cur = 3;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(server.port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int connected = ::connect(unconnected, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  Client waiting(unconnected);
  const double processor = ProcessorSeconds();
  const bool sent = waiting.Send(Get("/late"));
  const bool quiet = waiting.QuietFor(milliseconds(700));
  const double used = ProcessorSeconds() - processor;
  const bool others_served = clients[0].Send(Get("/")) && clients[0].Receive().status == 200;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(connected, 0);
  EXPECT_TRUE(sent);
  EXPECT_TRUE(quiet);
  EXPECT_LT(used, 0.35) << "busy while waiting for a descriptor";
  EXPECT_TRUE(others_served);
  EXPECT_EQ(waiting.Receive().body, "GET /late ");
}

// ---- Unix sockets

TEST(HttpUnixSocket, Peer_OfConnection_IsUserFromKernel) {
  const TemporaryFolder folder;
  TestServer server(OnUnix(folder / "s", 0640));
  Client client = Client::Unix(folder / "s");
  ASSERT_TRUE(client.Send(Get("/")));
  EXPECT_EQ(client.Receive().status, 200);
  EXPECT_EQ(server.last_request()->peer.kind, Peer::Kind::kUnix);
  EXPECT_EQ(server.last_request()->peer.uid, getuid());
  EXPECT_EQ(server.last_request()->peer.address, "");
  struct stat file {};
  ASSERT_EQ(stat((folder / "s").c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777, 0640U);
}

TEST(HttpUnixSocket, ConnectionsPerUser_AreLimited) {
  const TemporaryFolder folder;
  TestServer server([&](ServerOptions& options) {
    OnUnix(folder / "s")(options);
    options.limits.connections_per_peer = 1;
  });
  Client first = Client::Unix(folder / "s");
  ASSERT_TRUE(first.Send(Get("/wait")));
  ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
  EXPECT_EQ(Client::Unix(folder / "s").Receive().status, 503);
}

TEST(HttpUnixSocket, Listen_StaleFile_IsReplaced) {
  const TemporaryFolder folder;
  const int left = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (folder / "s").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(left, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::close(left);
  TestServer server(OnUnix(folder / "s"));
  Client client = Client::Unix(folder / "s");
  ASSERT_TRUE(client.Send(Get("/")));
  EXPECT_EQ(client.Receive().status, 200);
}

TEST(HttpUnixSocket, Listen_PathHasLiveListener_IsBusyAndKeepsIt) {
  const TemporaryFolder folder;
  TestServer server(OnUnix(folder / "s"));
  auto second = StartOn(folder / "s");
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().code(), ErrorCode::kBusy);
  EXPECT_NE(second.error().message().find(folder / "s"), std::string::npos);
  Client client = Client::Unix(folder / "s");
  ASSERT_TRUE(client.Send(Get("/")));
  EXPECT_EQ(client.Receive().status, 200);
}

TEST(HttpUnixSocket, Listen_PathIsOtherFileOrLink_IsConflictAndKeepsIt) {
  const TemporaryFolder folder;
  std::ofstream(folder / "file") << "precious";
  std::filesystem::create_symlink(folder / "nowhere", folder / "link");
  for (const char* name : {"file", "link"}) {
    auto server = StartOn(folder / name);
    ASSERT_FALSE(server);
    EXPECT_EQ(server.error().code(), ErrorCode::kConflict);
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::symlink_status(folder / name)));
  }
}

TEST(HttpUnixSocket, Listen_ImpossiblePath_IsInvalid) {
  for (const std::string& path : {std::string(), std::string(200, 'a'), std::string("/tmp/a\0b", 8)}) {
    auto server = StartOn(path);
    ASSERT_FALSE(server);
    EXPECT_EQ(server.error().code(), ErrorCode::kInvalid);
  }
}

TEST(HttpUnixSocket, Stop_SocketFile_IsRemovedUnlessReplaced) {
  const TemporaryFolder folder;
  TestServer first(OnUnix(folder / "s"));
  EXPECT_TRUE(first->Stop(milliseconds(0)));
  EXPECT_FALSE(std::filesystem::exists(folder / "s"));
  TestServer second(OnUnix(folder / "s"));
  std::filesystem::rename(folder / "s", folder / "moved");
  TestServer third(OnUnix(folder / "s"));
  EXPECT_TRUE(second->Stop(milliseconds(0)));
  EXPECT_TRUE(std::filesystem::exists(folder / "s"));
}

// ---- Listening

TEST(HttpListening, Listen_PortInUse_IsBusy) {
  TestServer server;
  ServerOptions options;
  options.listeners.emplace_back();
  options.listeners[0].port = server.port();
  auto second = HttpServer::Start(std::move(options));
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().code(), ErrorCode::kBusy);
  EXPECT_NE(second.error().message().find(std::to_string(server.port())), std::string::npos);
}

TEST(HttpListening, Listen_NameInsteadOfAddress_IsInvalid) {
  ServerOptions options;
  options.listeners.emplace_back();
  options.listeners[0].address = "localhost";
  auto server = HttpServer::Start(std::move(options));
  ASSERT_FALSE(server);
  EXPECT_EQ(server.error().code(), ErrorCode::kInvalid);
}

TEST(HttpListening, Listen_SeveralAddresses_AllServe) {
  const TemporaryFolder folder;
  TestServer server([&](ServerOptions& options) {
    options.listeners.emplace_back();
    options.listeners.emplace_back();
    options.listeners[2].kind = ListenerOptions::Kind::kUnix;
    options.listeners[2].path = folder / "s";
  });
  EXPECT_NE(server.port(0), server.port(1));
  Client clients[] = {server.Connect(0), server.Connect(1), Client::Unix(folder / "s")};
  for (Client& client : clients) {
    ASSERT_TRUE(client.Send(Get("/")));
    EXPECT_EQ(client.Receive().status, 200);
  }
}

TEST(HttpListening, Listen_PortOfStoppedServer_Succeeds) {
  TestServer first;
  const std::uint16_t port = first.port();
  Client client = first.Connect();
  ASSERT_TRUE(client.Send(Get("/")));
  EXPECT_EQ(client.Receive().status, 200);
  first->Stop(milliseconds(0));
  TestServer second([&](ServerOptions& options) { options.listeners[0].port = port; });
  EXPECT_EQ(second.port(), port);
}

// ---- The end

TEST(HttpStop, Stop_FinishesRequestsAndClosesIdleConnections) {
  // With one thread, all connections learn of the stop when the idle one does.
  TestServer server([](ServerOptions& options) { options.io_threads = 1; });
  Client idle = server.Connect();
  Client running = server.Connect();
  Client sending = server.Connect();
  ASSERT_TRUE(running.Send(Get("/wait")));
  ASSERT_TRUE(sending.Send("POST /p HTTP/1.1\r\nHost: nas\r\nContent-Length: 3\r\n\r\na"));
  ASSERT_TRUE(Eventually([&] { return server.held() == 1 && server->stats().requests == 2; }));
  bool clean = false;
  std::thread stopper([&] { clean = server->Stop(kTimeout); });
  EXPECT_TRUE(idle.SilentlyClosed());
  EXPECT_FALSE(server.Connect().connected());
  ASSERT_TRUE(sending.Send("bc"));
  const Reply last = sending.Receive();
  EXPECT_EQ(last.body, "POST /p abc");
  EXPECT_EQ(last.field("connection"), "close");
  server.Release();
  const Reply released = running.Receive();
  EXPECT_EQ(released.body, "released");
  EXPECT_EQ(released.field("connection"), "close");
  stopper.join();
  EXPECT_TRUE(clean);
  EXPECT_EQ(running.ReceiveAll(), "");
}

TEST(HttpStop, Stop_RequestSentJustBefore_IsAnswered) {
  for (int i = 0; i < 20; ++i) {
    TestServer server;
    Client client = server.Connect();
    ASSERT_TRUE(client.Send(Get("/1")));
    ASSERT_EQ(client.Receive().status, 200);
    ASSERT_TRUE(client.Send(Get("/2")));
    EXPECT_TRUE(server->Stop(kTimeout));
    EXPECT_EQ(client.Receive().body, "GET /2 ");
  }
}

TEST(HttpStop, Stop_StuckHandler_ReturnsAtDeadlineAndLateReplyIsDropped) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/wait")));
  ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
  const auto start = Clock::now();
  EXPECT_FALSE(server->Stop(milliseconds(200)));
  EXPECT_GE(Clock::now() - start, milliseconds(200));
  EXPECT_FALSE(server->Stop(milliseconds(200)));
  EXPECT_EQ(client.ReceiveAll(), "");
  EXPECT_EQ(server->stats().connections, 0U);
  server.Release();  // the responders are used after Stop()
}

TEST(HttpStop, Responder_OutlivesServer_IsHarmless) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/wait")));
  ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
  server.TakeServer().reset();
  server.Release();
}

TEST(HttpStop, Stop_RepliesFromOtherThreads_IsSafe) {
  for (int round = 0; round < 20; ++round) {
    TestServer server;
    std::vector<Client> clients;
    for (int i = 0; i < 10; ++i) {
      clients.push_back(server.Connect());
      ASSERT_TRUE(clients.back().Send(Get("/wait")));
    }
    ASSERT_TRUE(Eventually([&] { return server.held() == 10; }));
    std::thread releaser([&] { server.Release(); });
    server->Stop(milliseconds(round % 3));
    releaser.join();
  }
}

TEST(HttpStop, Servers_ManyStartedAndStopped_LeaveNoThread) {
  const int before = ProcessThreads();
  for (int i = 0; i < 20; ++i) TestServer server;
  EXPECT_TRUE(Eventually([&] { return ProcessThreads() <= before; }));
}

}  // namespace
}  // namespace vexa::http
