// Which connections of a daemon stay when room is short: those of users, from their first accepted call until their
// login ends.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/test_daemon.h"
#include "tests/system/http_server_test_support.h"

namespace vexa::test {
namespace {

using http::testing_support::Client;

constexpr int kConnections = 4;

class ConnectionOwner : public testing::Test {
 protected:
  ConnectionOwner() : daemon_([](daemon::Config& config) { config.max_connections = kConnections; }) {}

  Client Connect() const { return Client::Tcp(daemon_.daemon().port(0)); }
  static int Call(Client& client, const std::string& method, const std::string& token) {
    const std::string login = token.empty() ? "" : "Authorization: Bearer " + token + "\r\n";
    if (!client.Send("POST /webapi/" + method + " HTTP/1.1\r\nHost: nas\r\nContent-Type: application/json\r\n" + login +
                     "Content-Length: 2\r\n\r\n{}")) {
      return 0;
    }
    return client.Receive().status;
  }
  // Whether the connection is still there after more strangers have come than there is room for.
  bool SurvivesStrangers(Client& client) {
    std::vector<Client> strangers;
    for (int i = 0; i < 2 * kConnections; ++i) {
      // One that has just been answered may count as busy for a moment.
      EXPECT_TRUE(Eventually([&] {
        strangers.push_back(Connect());
        Client& stranger = strangers.back();
        return stranger.Send(http::testing_support::Get("/healthz")) && stranger.Receive().status == 200;
      }));
    }
    return Call(client, "VEXA.Test/anyone", "") == 200;
  }

  mutable TestDaemon daemon_;
};

TEST_F(ConnectionOwner, AcceptedCall_MakesConnectionAUsers) {
  const std::string token = daemon_.Login("mallory");
  Client client = Connect();
  ASSERT_EQ(Call(client, "VEXA.Test/user", token), 200);
  EXPECT_TRUE(SurvivesStrangers(client));
}

TEST_F(ConnectionOwner, CallsThatProveNothing_LeaveItAStrangers) {
  const std::string token = daemon_.Login("mallory");
  const struct {
    const char* method;
    std::string token;
    int status;
  } rows[] = {{"VEXA.Test/anyone", token, 200},
              {"VEXA.Test/admin", token, 403},
              {"VEXA.Test/host", token, 403},
              {"VEXA.Test/user", "invalid", 401},
              {"VEXA.Test/user", "", 401}};
  for (const auto& row : rows) {
    Client client = Connect();
    ASSERT_EQ(Call(client, row.method, row.token), row.status) << row.method;
    EXPECT_FALSE(SurvivesStrangers(client)) << row.method;
  }
}

TEST_F(ConnectionOwner, Logout_MakesItAStrangersAgain) {
  const std::string token = daemon_.Login("mallory");
  Client client = Connect();
  ASSERT_EQ(Call(client, "VEXA.Test/user", token), 200);
  ASSERT_EQ(Call(client, "VEXA.Core.Session/logout", token), 200);
  EXPECT_FALSE(SurvivesStrangers(client));
}

TEST_F(ConnectionOwner, LoginThatEndsElsewhere_MakesItAStrangersAgain) {
  const std::string token = daemon_.Login("mallory");
  Client client = Connect();
  ASSERT_EQ(Call(client, "VEXA.Test/user", token), 200);
  Client other = Connect();
  ASSERT_EQ(Call(other, "VEXA.Core.Session/logout", token), 200);
  // Looked at every few seconds. Strangers that come before do not close it.
  EXPECT_TRUE(Eventually([&] { return !SurvivesStrangers(client); }));
}

TEST_F(ConnectionOwner, RootOnTheUnixSocket_IsServedWhenStrangersFillEverything) {
  std::vector<Client> strangers;
  for (int i = 0; i < 2 * kConnections; ++i) strangers.push_back(Connect());
  Client root = Client::Unix(daemon_.config().socket);
  EXPECT_EQ(Call(root, "VEXA.Test/user", ""), 200);
}

}  // namespace
}  // namespace vexa::test
