// Long request bodies, which only imports may have: their size limit, who may send them, and how many concurrently.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "json/readers.h"
#include "tests/support/test_daemon.h"
#include "tests/system/http_server_test_support.h"

namespace vexa::test {
namespace {

using http::testing_support::Client;
using http::testing_support::Eventually;

const std::string kImportPath = "/webapi/VEXA.Virtualization.Guest/import";
const std::string kGetPath = "/webapi/VEXA.Virtualization.Guest/get";
constexpr std::size_t kMib = std::size_t{1} << 20;

std::string BodyOf(std::size_t bytes) { return R"({"guests":[{"xml":")" + std::string(bytes, ' ') + R"("}]})"; }

// A request whose body is still to come, and that the daemon has admitted or refused.
Client FirstHalfOfRequest(const TestDaemon& daemon, const std::string& token, int& status) {
  Client client = Client::Unix(daemon.config().socket);
  EXPECT_TRUE(client.Send("POST " + kImportPath +
                          " HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\nAuthorization: Bearer " +
                          token + "\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n"));
  status = client.Receive().status;
  return client;
}

TEST(LongBody, LongBody_Import_IsAcceptedFromAdministratorsOnly) {
  const TestDaemon daemon;
  HttpClient admin = daemon.TcpAs("admin");
  const HttpReply taken = admin.PostJson(kImportPath, BodyOf(8 * kMib));
  EXPECT_EQ(ErrorCode(taken), 0);
  const Json::Value results =
      VexaVirtualization::json::Member(VexaVirtualization::json::Member(JsonBody(taken), "data"), "results");
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0]["error"]["code"], 401) << "a definition has at most 4 MiB";
  EXPECT_EQ(ErrorCode(daemon.TcpAs("grace").PostJson(kImportPath, BodyOf(2 * kMib))), 104);
  EXPECT_EQ(ErrorCode(daemon.TcpAs("admin").PostJson(kImportPath, BodyOf(9 * kMib))), 112);
  EXPECT_EQ(ErrorCode(daemon.TcpAs("admin").PostJson(kGetPath, BodyOf(2 * kMib))), 112);
}

// The room of one call is free before the caller has its reply.
TEST(LongBody, LongBodies_OneAfterTheOther_AreAllAccepted) {
  const TestDaemon daemon;
  HttpClient admin = daemon.TcpAs("admin");
  for (int i = 0; i < 30; ++i) ASSERT_EQ(ErrorCode(admin.PostJson(kImportPath, BodyOf(5 * kMib))), 0) << i;
}

// They are in memory before it is known who sends them.
TEST(LongBody, LongBodies_OfOneUser_HaveOnePlace) {
  const TestDaemon daemon;
  const std::string token = daemon.Login("grace");
  int status = 0;
  Client first = FirstHalfOfRequest(daemon, token, status);
  ASSERT_EQ(status, 100);
  FirstHalfOfRequest(daemon, token, status).Close();
  EXPECT_EQ(status, 503);
  EXPECT_EQ(ErrorCode(daemon.TcpAs("grace").PostJson(kGetPath, "{}")), 401) << "other methods have no such places";
  EXPECT_EQ(ErrorCode(daemon.TcpAs("admin").PostJson(kImportPath, BodyOf(2 * kMib))), 0)
      << "other users have their own";
  // A client that leaves gives its place back.
  first.Close();
  EXPECT_TRUE(Eventually([&] {
    FirstHalfOfRequest(daemon, token, status).Close();
    return status == 100;
  }));
}

}  // namespace
}  // namespace vexa::test
