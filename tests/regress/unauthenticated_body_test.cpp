// A login, which needs no authentication, could have a body of 1 MiB. Parsing took 35 MiB for each, 2.3 GiB for 64.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/test_daemon.h"

namespace {

using vexa::test::ErrorCode;
using vexa::test::HttpReply;
using vexa::test::TestDaemon;

const std::string kLoginPath = "/webapi/VEXA.Core.Session/login";

std::string BodyOf(std::size_t bytes) {
  const std::string frame = R"({"user":""})";
  return R"({"user":")" + std::string(bytes - frame.size(), 'x') + R"("})";
}

TEST(UnauthenticatedBody, Body_AboveLimit_IsRefusedBeforeParsing) {
  TestDaemon daemon;
  for (const char* framing : {"Expect:", "Transfer-Encoding: chunked"}) {
    const auto send = [&](std::size_t bytes) {
      return daemon.Tcp().Send("POST", kLoginPath, {"Content-Type: application/json", framing}, BodyOf(bytes));
    };
    EXPECT_EQ(ErrorCode(send(16 * 1024)), 401) << framing;
    const HttpReply refused = send(16 * 1024 + 1);
    EXPECT_EQ(refused.status, 413) << framing;
    EXPECT_EQ(ErrorCode(refused), 112) << framing;
  }
}

TEST(UnauthenticatedBody, Body_OfAuthenticatedCaller_MayBeLonger) {
  TestDaemon daemon;
  const std::string body = "{" + std::string(1024 * 1024 - 2, ' ') + "}";
  const HttpReply reply = daemon.TcpAs("grace").PostJson("/webapi/VEXA.Core.Session/info", body);
  EXPECT_EQ(ErrorCode(reply), 0);
}

}  // namespace
