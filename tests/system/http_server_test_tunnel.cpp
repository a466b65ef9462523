// Connections that leave HTTP for a tunnel, over real sockets.
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "host/http/http_tunnel.h"
#include "tests/support/temp_dir.h"
#include "tests/support/websocket_client.h"
#include "tests/system/http_server_test_support.h"

namespace vexa::http {
namespace {

using namespace testing_support;  // NOLINT(google-build-using-namespace)
using test::FrameHeader;
using test::WebSocketClient;

// A server whose "/tunnel" leads to a socket of the test.
class TunnelTest : public ::testing::Test {
 protected:
  void Start(const std::function<void(ServerOptions&)>& configure = {}) {
    server_ = std::make_unique<TestServer>([&](ServerOptions& options) {
      options.on_request = [this](HttpRequest&& request, Responder responder) {
        Open(std::move(request), std::move(responder));
      };
      if (configure) configure(options);
    });
  }

  void TearDown() override {
    far_.reset();
    server_.reset();
  }

  WebSocketClient Connect() { return WebSocketClient::Tcp(server_->port()); }

  // An upgraded client.
  WebSocketClient Open() {
    WebSocketClient client = Connect();
    EXPECT_EQ(client.Upgrade("/tunnel"), 101);
    return client;
  }

  Client& far() { return *far_; }
  std::string ReadFar(std::size_t bytes) {
    std::string all(bytes, '\0');
    std::size_t got = 0;
    while (got < bytes) {
      const ssize_t step = ::recv(far_->fd(), all.data() + got, bytes - got, 0);
      if (step <= 0) break;
      got += static_cast<std::size_t>(step);
    }
    all.resize(got);
    return all;
  }
  bool FarHasEnded() {
    char byte;
    return ::recv(far_->fd(), &byte, 1, 0) <= 0;
  }

  std::unique_ptr<TestServer> server_;
  std::atomic<bool> may_continue_ = true;
  std::atomic<int> open_ = 0;
  milliseconds idle_ = std::chrono::minutes(10);
  milliseconds stalled_ = std::chrono::minutes(10);
  std::string upgrade_;

 private:
  void Open(HttpRequest&& request, Responder responder) {
    HttpResponse response;
    if (request.target == "/tunnel") {
      int sockets[2];
      ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
      const timeval limit{30, 0};
      ::setsockopt(sockets[1], SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
      far_ = std::make_unique<Client>(sockets[1]);
      upgrade_ = request.upgrade;
      response.tunnel = std::make_shared<Tunnel>();
      response.tunnel->end = MakeSocketEnd(Descriptor(sockets[0]));
      response.tunnel->may_continue = [this] { return may_continue_.load(); };
      response.tunnel->idle = idle_;
      response.tunnel->stalled = stalled_;
      ++open_;
      response.tunnel->lease = std::shared_ptr<void>(this, [this](void*) { --open_; });
      response.owner = Owner{Owner::Kind::kUser, "alice", {}};
    } else {
      response.body = "upgrade=" + request.upgrade;
    }
    responder.Send(std::move(response));
  }

  std::unique_ptr<Client> far_;
};

TEST_F(TunnelTest, WebSocket_CarriesBytesBothWays) {
  Start();
  WebSocketClient client = Open();
  EXPECT_NE(client.header().find("Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"), std::string::npos)
      << client.header();
  EXPECT_NE(client.header().find("X-Request-Id: "), std::string::npos);
  EXPECT_EQ(client.header().find("Beast"), std::string::npos);
  ASSERT_TRUE(client.Send("to the guest"));
  EXPECT_EQ(ReadFar(12), "to the guest");
  ASSERT_TRUE(far().Send(std::string("from the guest\0\xff", 16)));
  EXPECT_EQ(client.Receive(16), std::string("from the guest\0\xff", 16));
}

TEST_F(TunnelTest, Raw_CarriesBytesBothWays) {
  Start();
  Client client = server_->Connect();
  // The first bytes of the tunnel come together with the request.
  ASSERT_TRUE(
      client.Send("GET /tunnel HTTP/1.1\r\nHost: nas\r\nConnection: upgrade\r\nUpgrade: vexa-tunnel\r\n\r\nearly"));
  const Reply reply = client.Receive(Client::Expect::kHeaderOnly);
  EXPECT_EQ(reply.status, 101);
  EXPECT_EQ(reply.field("upgrade"), "vexa-tunnel");
  EXPECT_EQ(upgrade_, "vexa-tunnel");
  EXPECT_EQ(ReadFar(5), "early");
  ASSERT_TRUE(far().Send("answer"));
  far().Close();
  EXPECT_EQ(client.ReceiveAll(), "answer");
  EXPECT_TRUE(Eventually([&] { return open_ == 0; }));
}

TEST_F(TunnelTest, Fragments_AreOneStream) {
  Start();
  WebSocketClient client = Open();
  ASSERT_TRUE(client.SendFrame(WebSocketClient::kBinary, "ab", false));
  ASSERT_TRUE(client.SendFrame(WebSocketClient::kPing, "between"));
  ASSERT_TRUE(client.SendFrame(WebSocketClient::kContinuation, "cd", false));
  ASSERT_TRUE(client.SendFrame(WebSocketClient::kContinuation, "ef"));
  EXPECT_EQ(ReadFar(6), "abcdef");
  const WebSocketClient::Frame pong = client.ReceiveFrame();
  EXPECT_EQ(pong.opcode, WebSocketClient::kPong);
  EXPECT_EQ(pong.payload, "between");
}

TEST_F(TunnelTest, Frame_ByteByByte_IsUnderstood) {
  Start();
  WebSocketClient client = Open();
  for (const char byte : FrameHeader(WebSocketClient::kBinary, 3) + "abc") {
    ASSERT_TRUE(client.SendRaw(std::string(1, byte)));
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  EXPECT_EQ(ReadFar(3), "abc");
}

TEST_F(TunnelTest, ClosedByClient_EndsOtherSide) {
  Start();
  WebSocketClient client = Open();
  ASSERT_TRUE(client.SendFrame(WebSocketClient::kClose, std::string("\x03\xe8", 2)));
  EXPECT_EQ(client.ReceiveClose(), 1000);
  EXPECT_TRUE(FarHasEnded());
  EXPECT_TRUE(Eventually([&] { return open_ == 0; }));
}

TEST_F(TunnelTest, ClosedByOtherSide_SendsEverythingBefore) {
  Start();
  WebSocketClient client = Open();
  const std::string much(3'000'000, 'x');
  std::thread sender([&] {
    EXPECT_TRUE(far().Send(much));
    far().Close();
  });
  EXPECT_EQ(client.Receive(much.size()), much);
  sender.join();
  EXPECT_EQ(client.ReceiveClose(), 1000);
  EXPECT_TRUE(Eventually([&] { return open_ == 0; }));
}

struct BadFrames {
  const char* name;
  std::string bytes;
  int close_code;
};

class TunnelBadFrameTest : public TunnelTest, public ::testing::WithParamInterface<BadFrames> {};

TEST_P(TunnelBadFrameTest, BadFrame_EndsTunnelAndReachesNobody) {
  Start();
  WebSocketClient client = Open();
  ASSERT_TRUE(client.SendRaw(GetParam().bytes));
  EXPECT_EQ(client.ReceiveClose(), GetParam().close_code);
  client.Close();
  EXPECT_EQ(ReadFar(1), "");
  EXPECT_TRUE(Eventually([&] { return open_ == 0; }));
}

INSTANTIATE_TEST_SUITE_P(
    Frames, TunnelBadFrameTest,
    ::testing::Values(BadFrames{"Unmasked",
                                "\x82\x03"
                                "abc",
                                1002},
                      BadFrames{"ReservedBit", std::string("\xc2\x81\0\0\0\0a", 7), 1002},
                      BadFrames{"UnknownOpcode", std::string("\x83\x81\0\0\0\0a", 7), 1002},
                      BadFrames{"ContinuationOfNothing", std::string("\x80\x81\0\0\0\0a", 7), 1002},
                      BadFrames{"LongPing", FrameHeader(WebSocketClient::kPing, 126) + std::string(126, 'a'), 1002},
                      BadFrames{"FragmentedPing", std::string("\x09\x81\0\0\0\0a", 7), 1002},
                      BadFrames{"LengthNotShortest", std::string("\x82\xfe\0\x01\0\0\0\0a", 9), 1002},
                      BadFrames{"TooLong", FrameHeader(WebSocketClient::kBinary, kMaxMessageBytes + 1), 1009},
                      BadFrames{"Enormous", FrameHeader(WebSocketClient::kBinary, 0x7fffffffffffffff), 1009},
                      BadFrames{"BadCloseCode", std::string("\x88\x82\0\0\0\0\0\x01", 8), 1002}),
    [](const auto& test) { return test.param.name; });

TEST_F(TunnelTest, LargestMessage_IsCarried) {
  Start();
  WebSocketClient client = Open();
  const std::string message(kMaxMessageBytes, 'm');
  std::thread sender([&] { EXPECT_TRUE(client.Send(message)); });
  EXPECT_EQ(ReadFar(message.size()), message);
  sender.join();
}

// What is sent until it blocks; the kernel's buffers and those of the server are then full.
std::size_t SendUntilBlocked(int fd) {
  const std::string block(65536, 'b');
  std::size_t sent = 0;
  for (int blocked = 0; blocked < 20;) {
    const ssize_t step = ::send(fd, block.data(), block.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (step > 0) {
      sent += static_cast<std::size_t>(step);
      blocked = 0;
    } else {
      ++blocked;
      std::this_thread::sleep_for(milliseconds(20));
    }
    if (sent > 64'000'000) break;
  }
  return sent;
}

TEST_F(TunnelTest, SlowReader_HoldsUpSenderAndNobodyElse) {
  Start([](ServerOptions& options) { options.io_threads = 1; });
  WebSocketClient client = Open();
  // The kernel's buffers of a TCP connection grow to some MiB.
  EXPECT_LT(SendUntilBlocked(far().fd()), 32'000'000U);
  Client other = server_->Connect();
  ASSERT_TRUE(other.Send(Get("/other")));
  EXPECT_EQ(other.Receive().status, 200);
  EXPECT_EQ(open_, 1);
}

TEST_F(TunnelTest, OtherSideThatReadsNothing_HoldsUpClient) {
  Start();
  WebSocketClient client = Open();
  ASSERT_TRUE(client.SendRaw(FrameHeader(WebSocketClient::kBinary, kMaxMessageBytes)));
  EXPECT_LT(SendUntilBlocked(client.fd()), 32'000'000U);
  EXPECT_EQ(open_, 1);
}

TEST_F(TunnelTest, OtherSideThatReadsNothing_IsGivenUp) {
  stalled_ = std::chrono::seconds(3);
  Start();
  Client client = server_->Connect();  // without pings, which end a WebSocket that is not read
  ASSERT_TRUE(client.Send("GET /tunnel HTTP/1.1\r\nHost: nas\r\nConnection: upgrade\r\nUpgrade: vexa-tunnel\r\n\r\n"));
  ASSERT_EQ(client.Receive(Client::Expect::kHeaderOnly).status, 101);
  (void)SendUntilBlocked(client.fd());
  EXPECT_TRUE(Eventually([&] { return open_ == 0; }));
}

TEST_F(TunnelTest, OtherSideThatReadsNothing_ClientThatLeavesEndsTunnel) {
  const test::TempDir folder;
  Start([&](ServerOptions& options) {
    options.listeners.emplace_back();
    options.listeners.back().kind = ListenerOptions::Kind::kUnix;
    options.listeners.back().path = folder.File("socket");
  });
  for (const bool is_local : {true, false}) {
    Client client = is_local ? Client::Unix(folder.File("socket")) : server_->Connect();
    ASSERT_TRUE(
        client.Send("GET /tunnel HTTP/1.1\r\nHost: nas\r\nConnection: upgrade\r\nUpgrade: vexa-tunnel\r\n\r\n"));
    ASSERT_EQ(client.Receive(Client::Expect::kHeaderOnly).status, 101);
    (void)SendUntilBlocked(client.fd());
    EXPECT_EQ(open_, 1);
    is_local ? client.Close() : client.Reset();
    EXPECT_TRUE(Eventually([&] { return open_ == 0; })) << is_local;
  }
}

TEST_F(TunnelTest, StalledReader_IsCutOff) {
  stalled_ = std::chrono::seconds(5);
  Start();
  WebSocketClient client = Open();
  (void)SendUntilBlocked(far().fd());
  EXPECT_TRUE(Eventually([&] { return open_ == 0; }));
}

TEST_F(TunnelTest, ClientThatAnswersNoPing_IsCutOff) {
  stalled_ = std::chrono::seconds(5);
  Start();
  WebSocketClient client = Open();
  const WebSocketClient::Frame ping = client.ReceiveFrame();
  EXPECT_EQ(ping.opcode, WebSocketClient::kPing);
  EXPECT_TRUE(Eventually([&] { return open_ == 0; }));
}

TEST_F(TunnelTest, ClientThatAnswersPings_Stays) {
  stalled_ = std::chrono::seconds(12);
  Start();
  WebSocketClient client = Open();
  for (int i = 0; i < 3; ++i) {  // longer than `stalled_`
    const WebSocketClient::Frame ping = client.ReceiveFrame();
    ASSERT_EQ(ping.opcode, WebSocketClient::kPing);
    ASSERT_TRUE(client.SendFrame(WebSocketClient::kPong, ping.payload));
  }
  EXPECT_EQ(open_, 1);
}

TEST_F(TunnelTest, Idle_EndsWithPolicyCode) {
  idle_ = std::chrono::seconds(3);
  Start();
  WebSocketClient client = Open();
  EXPECT_EQ(client.ReceiveClose(), 1008);
  EXPECT_TRUE(FarHasEnded());
}

TEST_F(TunnelTest, NoLongerAllowed_EndsWithPolicyCode) {
  Start();
  WebSocketClient client = Open();
  ASSERT_TRUE(client.Send("x"));
  EXPECT_EQ(ReadFar(1), "x");
  may_continue_ = false;
  EXPECT_EQ(client.ReceiveClose(), 1008);
  EXPECT_TRUE(FarHasEnded());
}

TEST_F(TunnelTest, ClientThatIsGone_EndsOtherSide) {
  Start();
  WebSocketClient client = Open();
  client.Close();
  EXPECT_TRUE(FarHasEnded());
  EXPECT_TRUE(Eventually([&] { return open_ == 0; }));
}

TEST_F(TunnelTest, HalfClosedClient_EndsOtherSide) {
  Start();
  WebSocketClient client = Open();
  ASSERT_TRUE(client.Send("last"));
  ::shutdown(client.fd(), SHUT_WR);
  EXPECT_EQ(ReadFar(5), "last");
  EXPECT_TRUE(Eventually([&] { return open_ == 0; }));
}

TEST_F(TunnelTest, Stop_TellsClientAndDoesNotWaitForIt) {
  Start();
  WebSocketClient client = Open();
  std::thread stop([&] { (void)(*server_)->Stop(seconds(20)); });
  EXPECT_EQ(client.ReceiveClose(), 1001);
  stop.join();
  EXPECT_EQ(open_, 0);
  EXPECT_TRUE(FarHasEnded());
}

TEST_F(TunnelTest, Stop_WithStalledReader_Ends) {
  Start();
  WebSocketClient client = Open();
  (void)SendUntilBlocked(far().fd());
  (void)(*server_)->Stop(seconds(30));
  EXPECT_EQ(open_, 0);
}

TEST_F(TunnelTest, Destruction_WithOpenTunnels_IsHarmless) {
  Start();
  WebSocketClient first = Open();
  WebSocketClient second = Open();
  server_.reset();
  EXPECT_EQ(open_, 0);
}

TEST_F(TunnelTest, ManyTunnels_AllEnd) {
  Start();
  for (int i = 0; i < 200; ++i) {
    WebSocketClient client = Open();
    ASSERT_TRUE(client.Send("x"));
  }
  EXPECT_TRUE(Eventually([&] { return open_ == 0; }));
  EXPECT_TRUE(Eventually([&] { return (*server_)->stats().connections == 0; }));
}

struct Request {
  const char* name;
  std::string request_line;
  std::string fields;
  const char* upgrade;
};

class TunnelRequestTest : public TunnelTest, public ::testing::WithParamInterface<Request> {};

constexpr char kKey[] = "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
constexpr char kVersion[] = "Sec-WebSocket-Version: 13\r\n";
constexpr char kUpgrade[] = "Connection: keep-alive, Upgrade\r\nUpgrade: WebSocket\r\n";

TEST_P(TunnelRequestTest, RequestedUpgrade_IsReportedWhenItMeetsTheRules) {
  Start();
  Client client = server_->Connect();
  ASSERT_TRUE(client.Send(GetParam().request_line + "\r\nHost: nas\r\n" + GetParam().fields + "\r\n"));
  const Reply reply = client.Receive();
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, std::string("upgrade=") + GetParam().upgrade);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, TunnelRequestTest,
    ::testing::Values(
        Request{"Good", "GET / HTTP/1.1", std::string(kUpgrade) + kKey + kVersion, "websocket"},
        Request{"Raw", "GET / HTTP/1.1", "Connection: upgrade\r\nUpgrade: vexa-tunnel\r\n", "vexa-tunnel"},
        Request{"WithoutConnection", "GET / HTTP/1.1", std::string("Upgrade: websocket\r\n") + kKey + kVersion, ""},
        Request{"WithoutUpgrade", "GET / HTTP/1.1", std::string("Connection: Upgrade\r\n") + kKey + kVersion, ""},
        Request{"OtherProtocol", "GET / HTTP/1.1", "Connection: Upgrade\r\nUpgrade: h2c\r\n", ""},
        Request{"OtherVersion", "GET / HTTP/1.1", std::string(kUpgrade) + kKey + "Sec-WebSocket-Version: 8\r\n", ""},
        Request{"WithoutKey", "GET / HTTP/1.1", std::string(kUpgrade) + kVersion, ""},
        Request{"ShortKey", "GET / HTTP/1.1", std::string(kUpgrade) + kVersion + "Sec-WebSocket-Key: dGhl\r\n", ""},
        Request{"Http10", "GET / HTTP/1.0", std::string(kUpgrade) + kKey + kVersion, ""},
        Request{"Post", "POST / HTTP/1.1", std::string(kUpgrade) + kKey + kVersion + "Content-Length: 0\r\n", ""}),
    [](const auto& test) { return test.param.name; });

TEST_F(TunnelTest, TunnelForRequestWithoutUpgrade_Is500) {
  Start();
  Client client = server_->Connect();
  ASSERT_TRUE(client.Send(Get("/tunnel")));
  EXPECT_EQ(client.Receive().status, 500);
  EXPECT_TRUE(FarHasEnded());
  EXPECT_EQ(open_, 0);
}

TEST_F(TunnelTest, RepeatedUpgradeFields_AreRefused) {
  Start();
  for (const std::string fields :
       {"Upgrade: websocket\r\nUpgrade: vexa-tunnel\r\n", "Sec-WebSocket-Key: a\r\nSec-WebSocket-Key: b\r\n",
        "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Version: 8\r\n"}) {
    Client client = server_->Connect();
    ASSERT_TRUE(client.Send("GET / HTTP/1.1\r\nHost: nas\r\nConnection: Upgrade\r\n" + fields + "\r\n"));
    EXPECT_EQ(client.Receive().status, 400) << fields;
  }
}

}  // namespace
}  // namespace vexa::http
