// Requests and responses over real sockets.
#include <thread>

#include "host/base/lane.h"
#include "tests/system/http_server_test_support.h"

namespace vexa::http {
namespace {

using namespace testing_support;  // NOLINT(google-build-using-namespace)

std::string Post(const std::string& fields, const std::string& body) {
  return "POST /p HTTP/1.1\r\nHost: nas\r\n" + fields + "\r\n" + body;
}

TEST(HttpServer, Get_Reply_HasServerFields) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/a?b=c")));
  const Reply reply = client.Receive();
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, "GET /a?b=c ");
  EXPECT_EQ(reply.field("content-type"), "text/plain");
  EXPECT_EQ(reply.field("cache-control"), "no-store");
  EXPECT_EQ(reply.field("x-content-type-options"), "nosniff");
  EXPECT_EQ(reply.field("x-request-id"), server.last_request()->id);
  EXPECT_EQ(reply.field("x-request-id").size(), 16U);
  EXPECT_NE(reply.field("date"), "");
  EXPECT_EQ(reply.fields.count("server"), 0U);
  EXPECT_EQ(reply.fields.count("connection"), 0U);
  EXPECT_EQ(server.last_request()->peer.address, "127.0.0.1");
  EXPECT_FALSE(server.last_request()->peer.tls);
}

TEST(HttpServer, KeptConnection_ServesManyRequestsWithDifferentIds) {
  TestServer server;
  Client client = server.Connect();
  std::string last_id;
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(client.Send(Get("/" + std::to_string(i))));
    const Reply reply = client.Receive();
    ASSERT_EQ(reply.body, "GET /" + std::to_string(i) + " ");
    EXPECT_NE(reply.field("x-request-id"), last_id);
    last_id = reply.field("x-request-id");
  }
  EXPECT_EQ(server->stats().connections_accepted, 1U);
  EXPECT_EQ(server->stats().requests, 50U);
}

TEST(HttpServer, Request_ByteByByte_IsUnderstood) {
  TestServer server;
  Client client = server.Connect();
  for (const char byte : Post("Transfer-Encoding: chunked\r\n", "3\r\nabc\r\n0\r\n\r\n")) {
    ASSERT_TRUE(client.Send(std::string(1, byte)));
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  EXPECT_EQ(client.Receive().body, "POST /p abc");
}

TEST(HttpServer, PipelinedRequests_AreAnsweredInOrder) {
  TestServer server;
  Client client = server.Connect();
  std::string all;
  for (int i = 0; i < 100; ++i) all += i % 2 == 0 ? Get("/" + std::to_string(i)) : Post("Content-Length: 3\r\n", "abc");
  ASSERT_TRUE(client.Send(all));
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(client.Receive().body, i % 2 == 0 ? "GET /" + std::to_string(i) + " " : "POST /p abc") << i;
  }
}

TEST(HttpServer, Pipelined_DuringHandler_IsBufferedUpToLimitAndAnsweredLater) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/wait")));
  ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
  std::thread sender([&] {
    std::string all;
    for (int i = 0; i < 5000; ++i) all += Get("/next");
    EXPECT_TRUE(client.Send(all));
  });
  EXPECT_TRUE(client.QuietFor(milliseconds(100)));
  server.Release();
  EXPECT_EQ(client.Receive().body, "released");
  for (int i = 0; i < 5000; ++i) ASSERT_EQ(client.Receive().body, "GET /next ") << i;
  sender.join();
}

TEST(HttpServer, EmptyLinesBetweenRequests_AreSkipped) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send("\r\n" + Get("/1") + "\r\n\r\n" + Get("/2")));
  EXPECT_EQ(client.Receive().body, "GET /1 ");
  EXPECT_EQ(client.Receive().body, "GET /2 ");
}

TEST(HttpServer, Trailers_InjectedFields_AreIgnored) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Post("Transfer-Encoding: chunked\r\nCookie: id=own\r\n",
                               "2\r\nhi\r\n0\r\nAuthorization: Bearer stolen\r\nCookie: id=stolen\r\nX-Vexa-CSRF: x\r\n"
                               "Content-Type: y\r\nOrigin: z\r\n\r\n") +
                          Get("/next")));
  EXPECT_EQ(client.Receive().body, "POST /p hi");
  EXPECT_EQ(client.Receive().body, "GET /next ");
  ASSERT_TRUE(client.Send(Post("Transfer-Encoding: chunked\r\nCookie: id=own\r\n",
                               "0\r\nAuthorization: Bearer stolen\r\nCookie: id=stolen\r\n\r\n")));
  EXPECT_EQ(client.Receive().status, 200);
  EXPECT_EQ(server.last_request()->authorization, "");
  EXPECT_EQ(server.last_request()->cookie, "id=own");
}

// Each of these was read differently by some server and some proxy in front of it. The bytes behind the first request
// must never be taken for a second one.
TEST(HttpServer, SmugglingAttempts_EndTheConnection) {
  TestServer server;
  const std::string smuggled = Get("/smuggled");
  const std::string attempts[] = {
      Post("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", "0\r\n\r\n" + smuggled),
      Post("Transfer-Encoding: chunked\r\nContent-Length: 5\r\n", "0\r\n\r\n" + smuggled),
      Post("Content-Length: 0\r\nContent-Length: 44\r\n", smuggled),
      Post("Content-Length: 0, 44\r\n", smuggled),
      Post("Transfer-Encoding: xchunked\r\n", smuggled),
      Post("Transfer-Encoding: chunked\r\nTransfer-Encoding: x\r\n", "0\r\n\r\n" + smuggled),
      Post("Transfer-Encoding: x, chunked\r\n", "0\r\n\r\n" + smuggled),
      Post("Transfer-Encoding : chunked\r\n", "0\r\n\r\n" + smuggled),
      Post("X: a\r\n Transfer-Encoding: chunked\r\n", "0\r\n\r\n" + smuggled),
      Post("X: a\rTransfer-Encoding: chunked\r\n", smuggled),
      Post("X: a\nTransfer-Encoding: chunked\r\n", smuggled),
      Post("Transfer-Encoding: chunked\r\n", "0x1\r\n\r\n" + smuggled),
      Post("Transfer-Encoding: chunked\r\n", "-1\r\n\r\n" + smuggled),
      Post("Transfer-Encoding: chunked\r\n", "1\r\naX0\r\n\r\n" + smuggled),
      Post("Transfer-Encoding: chunked\r\n", "1\na\n0\n\n" + smuggled),
      "POST /p HTTP/1.0\r\nTransfer-Encoding: chunked\r\nConnection: keep-alive\r\n\r\n0\r\n\r\n" + smuggled,
      "POST /p HTTP/1.1\r\nHost: nas\r\nHost: other\r\nContent-Length: 0\r\n\r\n" + smuggled,
      "GET http://other/ HTTP/1.1\r\nHost: nas\r\n\r\n" + smuggled,
      "GET / HTTP/1.1\nHost: nas\n\n" + smuggled,
  };
  for (const std::string& attempt : attempts) {
    Client client = server.Connect();
    ASSERT_TRUE(client.Send(attempt));
    const Reply reply = client.Receive();
    EXPECT_EQ(reply.status, 400) << attempt;
    EXPECT_EQ(reply.field("connection"), "close") << attempt;
    EXPECT_EQ(reply.body, "error 400 " + reply.field("x-request-id"));
    EXPECT_EQ(client.ReceiveAll(), "") << attempt;
  }
  EXPECT_FALSE(server.last_request());
  EXPECT_EQ(server->stats().refused_by_server, std::size(attempts));
}

TEST(HttpServer, RefusedHeaders_GetTheirStatus) {
  TestServer server;
  const struct {
    std::string bytes;
    int status;
  } rows[] = {
      {"GET / HTTP/2.0\r\nHost: nas\r\n\r\n", 505},
      {"BREW / HTTP/1.1\r\nHost: nas\r\n\r\n", 501},
      {"GET / HTTP/1.1\r\n\r\n", 400},
      {"GET /" + std::string(9000, 'a') + " HTTP/1.1\r\nHost: nas\r\n\r\n", 414},
      {"GET /" + std::string(40'000, 'a') + " HTTP/1.1\r\nHost: nas\r\n\r\n", 414},
      {"GET / HTTP/1.1\r\nHost: nas\r\nX: " + std::string(40'000, 'a') + "\r\n\r\n", 431},
      {std::string("\x16\x03\x01\x02", 4), 400},  // TLS on a plain port
      {Post("Expect: miracles\r\nContent-Length: 3\r\n", "abc"), 417},
      {Post("Content-Length: 99999999\r\n", ""), 413},
  };
  for (const auto& row : rows) {
    Client client = server.Connect();
    ASSERT_TRUE(client.Send(row.bytes));
    const Reply reply = client.Receive();
    EXPECT_EQ(reply.status, row.status) << row.bytes.substr(0, 60);
    EXPECT_EQ(reply.field("connection"), "close");
    EXPECT_EQ(reply.field("x-request-id").size(), 16U);
  }
}

TEST(HttpServer, Body_AboveLimit_ReplyIsReadableWhileClientKeepsSending) {
  TestServer server;
  const std::string much(3 * 1024 * 1024, 'x');
  for (const bool chunked : {false, true}) {
    Client client = server.Connect();
    const std::string header =
        Post(chunked ? "Transfer-Encoding: chunked\r\n" : "Content-Length: 3145728\r\n", chunked ? "300000\r\n" : "");
    ASSERT_TRUE(client.Send(header));
    EXPECT_TRUE(client.Send(much));
    const Reply reply = client.Receive();
    EXPECT_EQ(reply.status, 413);
    EXPECT_EQ(client.ReceiveAll(), "");
  }
}

TEST(HttpServer, Chunks_AboveLimit_AreRefused) {
  TestServer server([](ServerOptions& options) { options.limits.body_bytes = 10'000; });
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Post("Transfer-Encoding: chunked\r\n", "")));
  std::string chunk = "1000\r\n" + std::string(4096, 'x') + "\r\n";
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(client.Send(chunk));
  EXPECT_EQ(client.Receive().status, 413);
}

TEST(HttpServer, EndlessChunkExtension_IsRefused) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Post("Transfer-Encoding: chunked\r\n", "5;" + std::string(100'000, 'a'))));
  EXPECT_EQ(client.Receive().status, 431);
}

TEST(HttpServer, Body_ExactlyAtLimit_IsAccepted) {
  TestServer server([](ServerOptions& options) { options.limits.body_bytes = 100'000; });
  Client client = server.Connect();
  const std::string body(100'000, 'x');
  ASSERT_TRUE(client.Send(Post("Content-Length: 100000\r\n", body)));
  EXPECT_EQ(client.Receive().body, "POST /p " + body);
}

TEST(HttpServer, ExpectContinue_IsAnsweredBeforeTheBody) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Post("Expect: 100-continue\r\nContent-Length: 3\r\n", "")));
  EXPECT_EQ(client.Receive().raw_header, "HTTP/1.1 100 Continue\r\n\r\n");
  ASSERT_TRUE(client.Send("abc"));
  EXPECT_EQ(client.Receive().body, "POST /p abc");
}

TEST(HttpServer, ExpectContinueTooLarge_IsRefusedWithoutContinue) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Post("Expect: 100-continue\r\nContent-Length: 9999999\r\n", "")));
  EXPECT_EQ(client.Receive().status, 413);
}

TEST(HttpServer, OnHeader_Refuses_ReadsNoBodyAndSendsNoContinue) {
  TestServer server([](ServerOptions& options) {
    options.on_header = [](const HttpRequest& request) -> std::optional<HttpResponse> {
      if (request.authorization == "Bearer good") return std::nullopt;
      HttpResponse response;
      response.status = 401;
      response.body = request.id;
      return response;
    };
  });
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/")));
  const Reply kept = client.Receive();
  EXPECT_EQ(kept.status, 401);
  EXPECT_EQ(kept.body, kept.field("x-request-id"));
  EXPECT_EQ(kept.field("connection"), "");  // no body is in the way of the next request
  ASSERT_TRUE(client.Send(Post("Authorization: Bearer good\r\nExpect: 100-continue\r\nContent-Length: 1\r\n", "")));
  EXPECT_EQ(client.Receive().status, 100);
  ASSERT_TRUE(client.Send("a"));
  EXPECT_EQ(client.Receive().status, 200);
  ASSERT_TRUE(client.Send(Post("Expect: 100-continue\r\nContent-Length: 1\r\n", "")));
  const Reply closed = client.Receive();
  EXPECT_EQ(closed.status, 401);
  EXPECT_EQ(closed.field("connection"), "close");
  EXPECT_EQ(client.ReceiveAll(), "");
}

TEST(HttpServer, Head_Reply_HasNoBody) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send("HEAD /h HTTP/1.1\r\nHost: nas\r\n\r\n" + Get("/next")));
  EXPECT_EQ(client.Receive(Client::Expect::kHeaderOnly).field("content-length"), "8");
  EXPECT_EQ(client.Receive().body, "GET /next ");
}

TEST(HttpServer, Http10_ClosesUnlessAskedToKeep) {
  TestServer server;
  Client closes = server.Connect();
  ASSERT_TRUE(closes.Send("GET /1 HTTP/1.0\r\n\r\n"));
  EXPECT_EQ(closes.Receive().field("connection"), "close");
  EXPECT_EQ(closes.ReceiveAll(), "");
  Client keeps = server.Connect();
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(keeps.Send("GET /1 HTTP/1.0\r\nConnection: keep-alive\r\n\r\n"));
    EXPECT_EQ(keeps.Receive().field("connection"), "keep-alive");
  }
}

TEST(HttpServer, ConnectionClose_IsHonoured) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send("GET / HTTP/1.1\r\nHost: nas\r\nConnection: close\r\n\r\n"));
  EXPECT_EQ(client.Receive().field("connection"), "close");
  EXPECT_EQ(client.ReceiveAll(), "");
}

TEST(HttpServer, Response_Large_ArrivesComplete) {
  const std::string large(20 * 1024 * 1024, 'y');
  TestServer server([&](ServerOptions& options) {
    options.on_request = [&](HttpRequest&&, const Responder& responder) {
      HttpResponse response;
      response.body = large;
      responder.Send(std::move(response));
    };
  });
  Client client = server.Connect();
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(client.Send(Get("/")));
    EXPECT_TRUE(client.Receive().body == large);
  }
}

TEST(HttpServer, HalfClosedClient_StillGetsItsAnswer) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/wait")));
  client.ShutdownWrite();
  ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
  std::this_thread::sleep_for(milliseconds(50));
  server.Release();
  EXPECT_EQ(client.Receive().body, "released");
  EXPECT_EQ(client.ReceiveAll(), "");
}

TEST(HttpServer, HalfClosedClientWithPipelinedRequests_GetsAllAnswers) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/wait") + Get("/2") + Get("/3")));
  client.ShutdownWrite();
  ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
  std::this_thread::sleep_for(milliseconds(50));
  server.Release();
  EXPECT_EQ(client.Receive().body, "released");
  EXPECT_EQ(client.Receive().body, "GET /2 ");
  EXPECT_EQ(client.Receive().body, "GET /3 ");
  EXPECT_EQ(client.ReceiveAll(), "");
}

TEST(HttpServer, Client_LeavesDuringHandler_OnlyReplyIsDropped) {
  TestServer server;
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/wait")));
  ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
  client.Reset();
  // Noticed while the handler still runs.
  EXPECT_TRUE(Eventually([&] { return server->stats().connections == 0; }));
  EXPECT_EQ(server.held(), 1U);
  server.Release();
  Client next = server.Connect();
  ASSERT_TRUE(next.Send(Get("/next")));
  EXPECT_EQ(next.Receive().body, "GET /next ");
}

TEST(HttpServer, Reply_ConnectionSlotReused_IsDropped) {
  TestServer server([](ServerOptions& options) { options.io_threads = 1; });
  Client first = server.Connect();
  ASSERT_TRUE(first.Send(Get("/wait")));
  ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
  first.Reset();
  ASSERT_TRUE(Eventually([&] { return server->stats().connections == 0; }));
  Client second = server.Connect();
  ASSERT_TRUE(second.Send(Get("/first") + Get("/wait")));
  EXPECT_EQ(second.Receive().body, "GET /first ");
  ASSERT_TRUE(Eventually([&] { return server.held() == 2; }));
  server.Release();
  EXPECT_EQ(second.Receive().body, "released");
  EXPECT_TRUE(second.QuietFor(milliseconds(100)));
}

TEST(HttpServer, Responder_Dropped_Sends500) {
  TestServer server([](ServerOptions& options) { options.on_request = [](HttpRequest&&, const Responder&) {}; });
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/")));
  const Reply reply = client.Receive();
  EXPECT_EQ(reply.status, 500);
  EXPECT_EQ(reply.body, "error 500 " + reply.field("x-request-id"));
}

TEST(HttpServer, Handler_Throws_Sends500) {
  TestServer server([](ServerOptions& options) {
    options.on_header = [](const HttpRequest& request) -> std::optional<HttpResponse> {
      if (request.target == "/header") throw std::runtime_error("on purpose");
      return std::nullopt;
    };
    options.on_request = [](HttpRequest&&, const Responder&) { throw 42; };
    options.make_error = [](int, const std::string&) -> HttpResponse { throw std::runtime_error("on purpose"); };
  });
  Client client = server.Connect();
  for (const char* target : {"/header", "/request"}) {
    ASSERT_TRUE(client.Send(Get(target)));
    EXPECT_EQ(client.Receive().status, 500);
  }
}

TEST(HttpServer, Responder_UsedTwice_SendsOnce) {
  TestServer server([](ServerOptions& options) {
    options.on_request = [](HttpRequest&&, const Responder& responder) {
      const Responder copy = responder;
      HttpResponse response;
      response.body = "one";
      responder.Send(response);
      response.body = "two";
      copy.Send(response);
      responder.Send(response);
    };
  });
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/") + Get("/")));
  EXPECT_EQ(client.Receive().body, "one");
  EXPECT_EQ(client.Receive().body, "one");
  EXPECT_TRUE(client.QuietFor(milliseconds(50)));
}

TEST(HttpServer, Handler_InvalidStatus_Sends500) {
  TestServer server([](ServerOptions& options) {
    options.on_request = [](HttpRequest&&, const Responder& responder) {
      HttpResponse response;
      response.status = 42;
      responder.Send(std::move(response));
    };
  });
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/")));
  EXPECT_EQ(client.Receive().status, 500);
}

TEST(HttpServer, Lane_ManyClients_GetTheirOwnReplies) {
  LaneOptions lane_options;
  lane_options.name = "test";
  lane_options.min_threads = 3;
  Lane lane(lane_options);
  TestServer server([&](ServerOptions& options) {
    options.on_request = [&](HttpRequest&& request, Responder responder) {
      const auto taken = lane.Submit({""}, [target = request.target, responder = std::move(responder)] {
        HttpResponse response;
        response.body = target;
        responder.Send(std::move(response));
      });
      EXPECT_EQ(taken, Lane::SubmitResult::kAccepted);
    };
  });
  std::vector<std::thread> clients;
  for (int c = 0; c < 8; ++c) {
    clients.emplace_back([&, c] {
      Client client = server.Connect();
      for (int i = 0; i < 200; ++i) {
        const std::string target = "/" + std::to_string(c) + "/" + std::to_string(i);
        ASSERT_TRUE(client.Send(Get(target)));
        ASSERT_EQ(client.Receive().body, target);
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(server->stats().requests, 1600U);
}

}  // namespace
}  // namespace vexa::http
