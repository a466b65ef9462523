#include "host/http/http_response.h"
#include "tests/support/matchers.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

namespace vexa::http {
namespace {

std::string HeaderOf(const HttpResponse& response,
                     ConnectionAfterResponse after = ConnectionAfterResponse::kKeepAlive) {
  std::string out;
  AppendResponseHeader(out, response, "0123456789abcdef", "Sun, 06 Nov 1994 08:49:37 GMT", after);
  return out;
}

TEST(ResponseHeader, Header_PlainResponse_HasExactlyServerFields) {
  HttpResponse response;
  response.body = "hello";
  EXPECT_EQ(HeaderOf(response),
            "HTTP/1.1 200 OK\r\n"
            "Date: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
            "X-Request-Id: 0123456789abcdef\r\n"
            "X-Content-Type-Options: nosniff\r\n"
            "Content-Type: application/json\r\n"
            "Content-Length: 5\r\n"
            "Cache-Control: no-store\r\n"
            "\r\n");
}

TEST(ResponseHeader, Reply_Closing_SendsConnectionClose) {
  EXPECT_THAT(HeaderOf({}, ConnectionAfterResponse::kClose), HasSubstr("\r\nConnection: close\r\n"));
  EXPECT_THAT(HeaderOf({}, ConnectionAfterResponse::kKeepAliveForHttp10), HasSubstr("\r\nConnection: keep-alive\r\n"));
}

TEST(ResponseHeader, Header_LineEndInField_OmitsField) {
  HttpResponse response;
  response.headers = {{"X-A", "a\r\nSet-Cookie: stolen=1"},
                      {"X-B\r\nX-C", "b"},
                      {"X-D", std::string("d\0d", 3)},
                      {"X-E", "e\nf"},
                      {"", "g"},
                      {"X-F", "fine"}};
  const std::string header = HeaderOf(response);
  EXPECT_THAT(header, Not(HasSubstr("stolen")));
  EXPECT_THAT(header, Not(HasSubstr("X-B")));
  EXPECT_THAT(header, Not(HasSubstr("X-D")));
  EXPECT_THAT(header, Not(HasSubstr("X-E")));
  EXPECT_THAT(header, Not(HasSubstr("\r\n: g")));
  EXPECT_THAT(header, HasSubstr("\r\nX-F: fine\r\n"));
}

TEST(ResponseHeader, Header_LineEndInContentType_ReplacesIt) {
  HttpResponse response;
  response.content_type = "text/html\r\nX-A: a";
  EXPECT_THAT(HeaderOf(response), HasSubstr("\r\nContent-Type: application/octet-stream\r\n"));
}

TEST(ResponseHeader, Header_ServerFieldFromHandler_IsIgnored) {
  HttpResponse response;
  response.headers = {
      {"content-length", "777777"}, {"Transfer-Encoding", "chunked"}, {"Connection", "x"}, {"Server", "s"}};
  const std::string header = HeaderOf(response);
  EXPECT_THAT(header, Not(HasSubstr("777777")));
  EXPECT_THAT(header, Not(HasSubstr("chunked")));
  EXPECT_THAT(header, Not(HasSubstr("Connection")));
  EXPECT_THAT(header, Not(HasSubstr("Server")));
}

TEST(ResponseHeader, Header_CacheControlFromHandler_ReplacesDefault) {
  HttpResponse response;
  response.headers = {{"cache-control", "max-age=60"}};
  EXPECT_THAT(HeaderOf(response), HasSubstr("cache-control: max-age=60\r\n"));
  EXPECT_THAT(HeaderOf(response), Not(HasSubstr("no-store")));
}

TEST(ResponseHeader, Header_NoContent_HasNoLength) {
  HttpResponse response;
  response.status = 204;
  EXPECT_THAT(HeaderOf(response), Not(HasSubstr("\r\nContent-Length")));
}

TEST(HttpDate, HttpDate_KnownTime_HasProtocolForm) { EXPECT_EQ(HttpDate(784111777), "Sun, 06 Nov 1994 08:49:37 GMT"); }

TEST(RequestId, RequestId_ManyThreads_IsUniqueAndSixteenHexDigits) {
  std::vector<std::vector<std::string>> made(4);
  std::vector<std::thread> threads;
  for (auto& list : made) {
    threads.emplace_back([&list] {
      for (int i = 0; i < 5000; ++i) list.push_back(NewRequestId());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<std::string> all;
  for (const auto& list : made) {
    for (const std::string& id : list) {
      EXPECT_EQ(id.size(), 16U);
      EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos);
      EXPECT_TRUE(all.insert(id).second) << id;
    }
  }
}

}  // namespace
}  // namespace vexa::http
