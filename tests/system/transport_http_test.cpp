// What a host may do to a caller, over plain HTTP.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <thread>

#include "host/transport/host_stream.h"
#include "host/transport/origin.h"
#include "json/readers.h"
#include "tests/support/scripted_server.h"
#include "tests/system/transport_misbehaviours.h"
#include "tests/system/transport_test_support.h"

namespace vexa::test {
namespace {

using VexaCCC::Sender;
using VexaDRCore::Response;

constexpr const char* kHost = "other-host";
class TransportMisbehaviour : public testing::TestWithParam<Misbehaviour> {};

TEST_P(TransportMisbehaviour, Call_HostMisbehaves_FailsWithHostAndReason) {
  const ScriptedServer server({GetParam().reply});
  const InstalledTransport transport({{kHost, AddressOfUrl(server)}});
  Response response;
  const double seconds = SecondsOf([&] { response = Sender(kHost).process(MakeRequest(2)); });
  const std::string failure = FailureOf(response);
  EXPECT_NE(failure.find(kHost), std::string::npos) << failure;
  EXPECT_NE(failure.find(GetParam().reason), std::string::npos) << failure;
  EXPECT_EQ(failure.find("g1"), std::string::npos) << failure;
  EXPECT_LT(seconds, 20);
}

INSTANTIATE_TEST_SUITE_P(Rows, TransportMisbehaviour, testing::ValuesIn(Misbehaviours()),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(TransportReply, Reply_FromHost_IsUnchanged) {
  for (const char* text : {R"({"success":true,"data":{"a":[1,2]},"has_fail":true})",
                           R"({"success":false,"error":{"code":1503,"details":{"h":true}}})", R"({"odd":1})", "{}"}) {
    const JsonHost host{std::string(text)};
    const InstalledTransport transport({{kHost, host.address()}});
    EXPECT_EQ(Sender(kHost).process(MakeRequest()).toJson(), Parse(text)) << text;
  }
}

TEST(TransportReply, Reply_HttpFailure_IsUnchanged) {
  const ScriptedServer server({HttpReplyOf(404, R"({"success":false,"error":{"code":507}})")});
  const InstalledTransport transport({{kHost, AddressOfUrl(server)}});
  EXPECT_EQ(Sender(kHost).process(MakeRequest()).getErrCode(), 507);
}

TEST(TransportReply, Reply_BelowLimits_IsAccepted) {
  for (const std::string& text : {ObjectOfSize(10 * kMiB), ObjectOfSize(16 * kMiB), Nested(64),
                                  ObjectOfValues(2'000'000, "0"), ObjectOfValues(1'000'000, "[]")}) {
    const JsonHost host{std::string(text)};
    const InstalledTransport transport({{kHost, host.address()}});
    EXPECT_TRUE(Sender(kHost).process(MakeRequest()).isSuccess()) << text.size();
  }
}

TEST(TransportReply, ReplyValues_CommasAndBracketsInTexts_AreNotCounted) {
  for (const std::string& part : {std::string(",[{"), std::string("\\\","), std::string(R"(\\\",[)")}) {
    std::string text = R"({"success":true,"data":")";
    for (int i = 0; i < 2'500'000; ++i) text += part;
    const JsonHost host{text + "\"}"};
    const InstalledTransport transport({{kHost, host.address()}});
    EXPECT_TRUE(Sender(kHost).process(MakeRequest()).isSuccess()) << part;
  }
}

TEST(TransportRequest, Request_Parameters_AreInBodyOnly) {
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true})")});
  const InstalledTransport transport({{kHost, AddressOfUrl(server)}});
  VexaDRCore::Request request = MakeRequest();
  request.setVersion(3);
  request.addParam("odd", Json::Value("\n%2f../"));
  EXPECT_TRUE(Sender(kHost).process(request).isSuccess());
  ASSERT_EQ(server.requests().size(), 1u);
  const std::string sent = server.requests()[0];
  EXPECT_TRUE(sent.starts_with("POST /webapi/VEXA.Test/ask?version=3 HTTP/1.1\r\n")) << sent;
  EXPECT_NE(sent.find("\r\nContent-Type: application/json\r\n"), std::string::npos) << sent;
  EXPECT_EQ(sent.find("Expect:"), std::string::npos) << sent;
  EXPECT_EQ(Parse(sent.substr(sent.find("\r\n\r\n") + 4)), request.parameters());
}

// The header of what `send` has the host receive.
std::string HeaderOf(const std::function<void()>& send, const ScriptedServer& server) {
  send();
  const auto requests = server.requests();
  if (requests.empty()) return "";
  return requests.back().substr(0, requests.back().find("\r\n\r\n") + 2);
}

TEST(TransportRequest, Request_ContainsOriginOfCallersThread) {
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true})")});
  const InstalledTransport transport({{kHost, AddressOfUrl(server)}});
  const auto one = [] { EXPECT_TRUE(Sender(kHost).process(MakeRequest()).isSuccess()); };
  const auto many = [] {
    EXPECT_TRUE(VexaCCC::MultiSender({kHost}).process(MakeRequest()).getResponse(kHost).isSuccess());
  };
  transport::SetOrigin({.request_id = "0123456789abcdef", .user = "J\xc3\xbcrgen"});
  for (const auto& send : {std::function<void()>(one), std::function<void()>(many)}) {
    const std::string header = HeaderOf(send, server);
    EXPECT_NE(header.find("\r\nX-Vexa-Acts-For: J%C3%BCrgen\r\n"), std::string::npos) << header;
    EXPECT_NE(header.find("\r\nX-Vexa-Request-Id: 0123456789abcdef\r\n"), std::string::npos) << header;
  }
  transport::SetOrigin({});
  EXPECT_EQ(HeaderOf(one, server).find("X-Vexa"), std::string::npos) << "no user to name";
}

TEST(TransportRequest, Request_UserWithLineEnd_InjectsNoHeader) {
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true})")});
  const InstalledTransport transport({{kHost, AddressOfUrl(server)}});
  transport::SetOrigin({.request_id = "1\r\nX-Evil: 1\r\nX:", .user = "eve\r\nX-Evil: 1"});
  const std::string header = HeaderOf([] { EXPECT_TRUE(Sender(kHost).process(MakeRequest()).isSuccess()); }, server);
  transport::SetOrigin({});
  EXPECT_NE(header, "");
  EXPECT_EQ(header.find("Evil"), std::string::npos) << header;
}

TEST(TransportRequest, Request_LongBody_IsSentWithoutDelay) {
  const ScriptedServer server({HttpReplyOf(200, R"({"success":true})")});
  const InstalledTransport transport({{kHost, AddressOfUrl(server)}});
  VexaDRCore::Request request = MakeRequest();
  request.addParam("long", Json::Value(std::string(2 * kMiB, 'x')));
  EXPECT_TRUE(Sender(kHost).process(request).isSuccess());
  ASSERT_EQ(server.requests().size(), 1u);
  const std::string sent = server.requests()[0];
  EXPECT_EQ(sent.substr(0, sent.find("\r\n\r\n")).find("Expect"), std::string::npos) << "nobody answers with 100";
}

TEST(TransportRequest, Request_NamesThatCouldInject_AreNotSent) {
  const JsonHost host{std::string(R"({"success":true})")};
  const InstalledTransport transport({{kHost, host.address()}});
  for (const std::string& name : {std::string(""), std::string("a/b"), std::string(".."), std::string("."),
                                  std::string("a?b"), std::string("a%2fb"), std::string("a b"), std::string("a\r\nb"),
                                  std::string("a\0b", 3), std::string("a#b"), std::string("\xc3\xa4")}) {
    VexaDRCore::Request api = MakeRequest();
    api.setAPI(name);
    EXPECT_NE(FailureOf(Sender(kHost).process(api)), "");
    VexaDRCore::Request method = MakeRequest();
    method.setMethod(name);
    EXPECT_NE(FailureOf(Sender(kHost).process(method)), "");
  }
  EXPECT_EQ(host.requests(), 0);
}

TEST(TransportRequest, Request_InvalidHost_FailsImmediatelyWithoutSocket) {
  const int threads = ProcessThreads();
  const InstalledTransport transport(InstalledTransport::Addresses{{"named-by-record", "localhost:1"},
                                                                   {"no-port", "127.0.0.1"},
                                                                   {"port-zero", "127.0.0.1:0"},
                                                                   {"../x", "127.0.0.1:1"}});
  for (const std::string& host : {std::string(""), std::string("nobody"), std::string("../x"), std::string("a\r\nb"),
                                  std::string("a\0b", 3), std::string("-a"), std::string(64, 'a')}) {
    const double seconds = SecondsOf([&] { EXPECT_NE(FailureOf(Sender(host).process(MakeRequest())), ""); });
    EXPECT_LT(seconds, 1);
  }
  EXPECT_EQ(ProcessThreads(), threads) << "nothing was handed to the thread that talks to hosts";
  for (const char* host : {"named-by-record", "no-port", "port-zero"}) {
    // However often: a host that was not tried is not left alone.
    for (int i = 0; i < 4; ++i) {
      const std::string failure = FailureOf(Sender(host).process(MakeRequest()));
      EXPECT_NE(failure.find("address"), std::string::npos) << failure;
    }
  }
  EXPECT_NE(FailureOf(Sender().process(MakeRequest())), "");
}

TEST(TransportRequest, Failure_UnprintableOrLongHost_IsEscapedAndTruncated) {
  const InstalledTransport transport(InstalledTransport::Addresses{});
  for (const std::string& host : {std::string("a\r\n\x1b[2J\0\xff", 10), std::string(100'000, 'a')}) {
    const std::string failure = FailureOf(Sender(host).process(MakeRequest()));
    EXPECT_LT(failure.size(), 600u);
    for (const char c : failure) EXPECT_TRUE(c >= ' ' && c <= '~') << static_cast<int>(c);
  }
}

TEST(TransportRequest, Request_IPv6Address_IsSent) {
  const InstalledTransport transport({{kHost, "[::1]:" + std::to_string(UnusedPort())}, {"bare", "::1:80"}});
  EXPECT_EQ(FailureOf(Sender(kHost).process(MakeRequest())).find("not a numeric address"), std::string::npos);
  EXPECT_NE(FailureOf(Sender("bare").process(MakeRequest())).find("not a numeric address"), std::string::npos);
}

TEST(TransportRequest, Request_NoTransport_Fails) {
  EXPECT_NE(FailureOf(Sender(kHost).process(MakeRequest())), "");
  EXPECT_NE(FailureOf(VexaCCC::MultiSender({kHost}).process(MakeRequest()).getResponse(kHost)), "");
}

TEST(TransportRequest, Request_ProxyInEnvironment_IsIgnored) {
  const JsonHost host{std::string(R"({"success":true})")};
  ::setenv("http_proxy", "http://127.0.0.1:1", 1);
  ::setenv("ALL_PROXY", "http://127.0.0.1:1", 1);
  {
    const InstalledTransport transport({{kHost, host.address()}});
    EXPECT_TRUE(Sender(kHost).process(MakeRequest()).isSuccess());
  }
  ::unsetenv("http_proxy");
  ::unsetenv("ALL_PROXY");
}

TEST(TransportConnection, Connection_SecondRequest_IsReused) {
  std::atomic<int> connections{0};
  const RawHost host([&](int fd) {
    ++connections;
    while (!ReceiveRequest(fd).empty()) SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 16\r\n\r\n{\"success\":true}");
  });
  const InstalledTransport transport({{kHost, host.address()}});
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(Sender(kHost).process(MakeRequest()).isSuccess());
  EXPECT_EQ(connections, 1);
}

TEST(TransportConnection, Connection_ManyHostsConcurrently_EachIsReused) {
  constexpr int kHosts = 16;
  std::atomic<int> connections{0};
  std::vector<std::unique_ptr<RawHost>> hosts;
  InstalledTransport::Addresses addresses;
  std::vector<std::string> ids;
  for (int i = 0; i < kHosts; ++i) {
    hosts.push_back(std::make_unique<RawHost>([&](int fd) {
      ++connections;
      while (!ReceiveRequest(fd).empty()) {
        SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 16\r\n\r\n{\"success\":true}");
      }
    }));
    ids.push_back("host-" + std::to_string(i));
    addresses[ids.back()] = hosts.back()->address();
  }
  const InstalledTransport transport(addresses);
  for (int round = 0; round < 3; ++round) {
    const VexaCCC::MultiResponse responses = VexaCCC::MultiSender(ids).process(MakeRequest());
    for (const std::string& id : ids) EXPECT_TRUE(responses.getResponse(id).isSuccess()) << id;
  }
  EXPECT_EQ(connections, kHosts);
}

TEST(TransportConnection, KeptConnection_BreaksAfterRequest_RequestIsNotResent) {
  std::atomic<int> requests{0};
  const RawHost host([&](int fd) {
    for (int here = 0; !ReceiveRequest(fd).empty(); ++here) {
      ++requests;
      if (here == 1) return;
      SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 16\r\n\r\n{\"success\":true}");
    }
  });
  const InstalledTransport transport({{kHost, host.address()}});
  EXPECT_TRUE(Sender(kHost).process(MakeRequest()).isSuccess());
  EXPECT_NE(FailureOf(Sender(kHost).process(MakeRequest())), "");
  EXPECT_EQ(requests, 2);
  EXPECT_TRUE(Sender(kHost).process(MakeRequest()).isSuccess()) << "with a connection of its own";
}

TEST(TransportConnection, Connection_HostRestarted_IsReplaced) {
  auto host = std::make_unique<JsonHost>(std::string(R"({"success":true})"));
  const std::uint16_t port = host->port();
  const InstalledTransport transport({{kHost, AddressOf(port)}});
  EXPECT_TRUE(Sender(kHost).process(MakeRequest()).isSuccess());
  host.reset();
  http::ListenerOptions listener;
  listener.port = port;
  const JsonHost again(
      [](http::HttpRequest&&, const http::Responder& responder) {
        http::HttpResponse response;
        response.body = R"({"success":true,"data":"again"})";
        responder.Send(std::move(response));
      },
      listener);
  EXPECT_EQ(Sender(kHost).process(MakeRequest()).getData(), Json::Value("again"));
}

// The kernel drops what does not fit into a full queue of connections: connecting takes forever.
class FullQueue {
 public:
  FullQueue() : port_(UnusedPort()) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port_);
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_, 0), 0);
    for (int& fd : fillers_) {
      fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      (void)::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
  }
  ~FullQueue() {
    for (const int fd : fillers_) ::close(fd);
    ::close(listener_);
  }
  std::string address() const { return AddressOf(port_); }

 private:
  std::uint16_t port_;
  int listener_ = -1;
  int fillers_[8] = {};
};

TEST(TransportTimeout, Timeout_ShorterThanConnectTimeout_AppliesToConnecting) {
  const FullQueue queue;
  const InstalledTransport transport({{kHost, queue.address()}});
  std::string failure;
  const double seconds = SecondsOf([&] { failure = FailureOf(Sender(kHost).process(MakeRequest(1))); });
  EXPECT_NE(failure.find("no connection in time"), std::string::npos) << failure;
  EXPECT_GE(seconds, 0.9);
  EXPECT_LT(seconds, 4);
}

TEST(TransportTimeout, Timeout_Connecting_IsFiveSecondsAtMost) {
  const FullQueue queue;
  const InstalledTransport transport({{kHost, queue.address()}});
  std::string failure;
  const double seconds = SecondsOf([&] { failure = FailureOf(Sender(kHost).process(MakeRequest())); });
  EXPECT_NE(failure.find("no connection in time"), std::string::npos) << failure;
  EXPECT_GE(seconds, 4.5);
  EXPECT_LT(seconds, 15);
}

TEST(TransportTimeout, Timeout_HostStalls_IsThatOfRequest) {
  const ScriptedServer server({{"", ScriptedReply::Then::kStall}});
  const InstalledTransport transport({{kHost, AddressOfUrl(server)}});
  std::string failure;
  const double seconds = SecondsOf([&] { failure = FailureOf(Sender(kHost).process(MakeRequest(1))); });
  EXPECT_NE(failure.find("no reply in time"), std::string::npos) << failure;
  EXPECT_GE(seconds, 0.9);
  EXPECT_LT(seconds, 10);
}

// A console whose guest takes no input: the end would be behind bytes that the other host does not read.
TEST(TransportStream, BlockedStream_IsClosedForHostThatReadsNothing) {
  std::promise<bool> has_noticed;
  std::future<bool> noticed = has_noticed.get_future();
  const RawHost host([&](int fd) {
    std::string header;
    for (char byte; !header.ends_with("\r\n\r\n") && ::recv(fd, &byte, 1, 0) == 1;) header += byte;
    SendAll(fd, "HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nUpgrade: vexa-tunnel\r\n\r\n");
    pollfd state{fd, 0, 0};  // errors and hang-ups only
    has_noticed.set_value(::poll(&state, 1, 60'000) == 1);
  });
  transport::StreamRequest request;
  request.host_id = kHost;
  request.address = host.address();
  request.path = "/console/x";
  auto reply = transport::OpenHostStream(request);
  ASSERT_TRUE(reply.ok()) << reply.error().ToString();
  ASSERT_NE(reply->stream, nullptr) << reply->body;
  const std::string block(65536, 'b');
  for (int blocked = 0; blocked < 20;) {
    const auto sent = reply->stream->Write(block);
    ASSERT_NE(sent.state, transport::HostStream::State::kFailed);
    blocked = sent.state == transport::HostStream::State::kBlocked ? blocked + 1 : 0;
    if (blocked > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  reply->stream.reset();
  EXPECT_TRUE(noticed.get());
}

}  // namespace
}  // namespace vexa::test
