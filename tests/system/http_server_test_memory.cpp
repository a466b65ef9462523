// How much memory the server keeps for bodies that do not arrive and responses that nobody reads.
#include <string>
#include <vector>

#include "tests/system/http_server_test_support.h"

namespace vexa::http {
namespace {

using namespace testing_support;  // NOLINT(google-build-using-namespace)

constexpr std::size_t kKib = 1024;
constexpr std::size_t kMib = 1024 * kKib;
// More than the buffers of a connection can take.
constexpr std::size_t kLargeBytes = 24 * kMib;

std::string Post(std::size_t bytes) {
  return "POST /p HTTP/1.1\r\nHost: nas\r\nContent-Length: " + std::to_string(bytes) + "\r\n\r\n";
}

enum class BodyKind { kOwn, kShared };

std::function<void(ServerOptions&)> WithLargeReplies(BodyKind kind, std::size_t held_bytes) {
  return [=](ServerOptions& options) {
    options.limits.held_bytes_per_owner = held_bytes;
    options.limits.held_bytes_of_strangers = held_bytes;
    options.limits.write = seconds(120);
    const auto shared = std::make_shared<const std::string>(kLargeBytes, 'y');
    options.on_request = [kind, shared](HttpRequest&&, const Responder& responder) {
      HttpResponse response;
      if (kind == BodyKind::kShared) {
        response.shared_body = shared;
      } else {
        response.body = *shared;
      }
      responder.Send(std::move(response));
    };
  };
}

std::vector<Client> AskWithoutReading(const TestServer& server, int count) {
  std::vector<Client> clients;
  for (int i = 0; i < count; ++i) {
    clients.push_back(server.Connect());
    EXPECT_TRUE(clients.back().Send("GET / HTTP/1.1\r\nHost: nas\r\nConnection: close\r\n\r\n"));
  }
  return clients;
}

TEST(HttpMemory, UnreadResponses_AboveLimit_OldestConnectionsGo) {
  TestServer server(WithLargeReplies(BodyKind::kOwn, 2 * kLargeBytes + kMib));
  std::vector<Client> clients = AskWithoutReading(server, 5);
  ASSERT_TRUE(Eventually([&] { return server->stats().connections_evicted == 3; }));
  ASSERT_TRUE(Eventually([&] { return server->stats().connections == 2; }));
  int complete = 0;
  for (Client& client : clients) complete += client.ReceiveAll().size() > kLargeBytes ? 1 : 0;
  EXPECT_EQ(complete, 2);
}

TEST(HttpMemory, UnreadResponse_OfTheOnlyConnection_MayExceedLimit) {
  TestServer server(WithLargeReplies(BodyKind::kOwn, kMib));
  std::vector<Client> clients = AskWithoutReading(server, 1);
  EXPECT_EQ(clients[0].Receive().body.size(), kLargeBytes);
  EXPECT_EQ(server->stats().connections_evicted, 0U);
}

TEST(HttpMemory, UnreadSharedResponses_TakeNoMemory) {
  TestServer server(WithLargeReplies(BodyKind::kShared, kMib));
  std::vector<Client> clients = AskWithoutReading(server, 10);
  for (Client& client : clients) ASSERT_EQ(client.Receive().body.size(), kLargeBytes);
  EXPECT_EQ(server->stats().connections_evicted, 0U);
}

TEST(HttpMemory, BodiesThatAreOnlyAnnounced_DoNotKeepOthersOut) {
  TestServer server([](ServerOptions& options) {
    options.limits.held_bytes_per_owner = kMib;
    options.limits.held_bytes_of_strangers = kMib;
  });
  std::vector<Client> announcing;
  for (int i = 0; i < 1024; ++i) {
    announcing.push_back(server.Connect());
    ASSERT_TRUE(announcing.back().Send(Post(16 * kKib)));
  }
  ASSERT_TRUE(Eventually([&] { return server->stats().requests == 1024; }));
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Post(16 * kKib) + std::string(16 * kKib, 'x')));
  EXPECT_EQ(client.Receive().status, 200);
  EXPECT_EQ(server->stats().connections_evicted, 0U);
}

TEST(HttpMemory, UnfinishedBodies_AboveLimit_OldestGet503) {
  TestServer server([](ServerOptions& options) { options.limits.held_bytes_per_owner = kMib; });
  std::vector<Client> clients;
  for (int i = 0; i < 40; ++i) {
    clients.push_back(server.Connect());
    ASSERT_TRUE(clients.back().Send(Post(64 * kKib) + std::string(60 * kKib, 'x')));
    // One after another, so that it is certain which are the oldest.
    ASSERT_TRUE(Eventually([&] { return server->stats().requests == static_cast<std::uint64_t>(i + 1); }));
  }
  const Reply ended = clients[0].Receive();
  EXPECT_EQ(ended.status, 503);
  EXPECT_EQ(ended.field("retry-after"), "1");
  EXPECT_EQ(ended.field("connection"), "close");
  ASSERT_TRUE(Eventually([&] { return server->stats().connections_evicted >= 20; }));
  ASSERT_TRUE(clients.back().Send(std::string(4 * kKib, 'x')));
  EXPECT_EQ(clients.back().Receive().status, 200);
}

TEST(HttpMemory, UnfinishedHeaders_AboveLimit_OldestAreClosed) {
  TestServer server([](ServerOptions& options) { options.limits.held_bytes_per_owner = 128 * kKib; });
  std::vector<Client> clients;
  for (int i = 0; i < 40; ++i) {
    clients.push_back(server.Connect());
    ASSERT_TRUE(clients.back().Send("GET / HTTP/1.1\r\nHost: nas\r\nX: " + std::string(12 * kKib, 'x')));
  }
  EXPECT_TRUE(Eventually([&] { return server->stats().connections_evicted >= 25; }));
  EXPECT_TRUE(Eventually([&] { return server->stats().connections <= 15; }));
}

}  // namespace
}  // namespace vexa::http
