#include "host/http/http_parser.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace vexa::http {
namespace {

constexpr std::size_t kBodyLimit = 1000;
const std::string kChunkedHeader = "POST / HTTP/1.1\r\nHost: nas\r\nCookie: id=1\r\nTransfer-Encoding: chunked\r\n\r\n";

struct Outcome {
  int status = 0;
  bool done = false;
  std::string rest;
};

// Gives `bytes` in pieces of `piece`, as a network might.
Outcome Feed(RequestParser& parser, const std::string& bytes, std::size_t piece) {
  Outcome outcome;
  for (std::size_t at = 0; at < bytes.size() && outcome.status == 0;) {
    const std::size_t size = std::min(piece, bytes.size() - at);
    outcome.rest += bytes.substr(at, size);
    at += size;
    if (outcome.done) continue;
    const RequestParser::Progress progress = parser.ParseBody(outcome.rest);
    outcome.rest.erase(0, progress.consumed);
    outcome.status = progress.status;
    outcome.done = progress.done;
  }
  return outcome;
}

class Chunks : public testing::TestWithParam<std::size_t> {};

TEST_P(Chunks, Chunks_ExtensionsAndTrailers_AreNotPartOfBody) {
  RequestParser parser(kBodyLimit);
  ASSERT_EQ(parser.ParseHeader(kChunkedHeader), 0);
  ASSERT_TRUE(parser.expects_body());
  const Outcome outcome = Feed(parser,
                               "5;a=b\r\nhello\r\n6\r\n world\r\n0\r\nAuthorization: stolen\r\nCookie: id=2\r\n"
                               "X-Vexa-Acts-For: eve\r\nX-Vexa-Request-Id: 1\r\n\r\nGET ",
                               GetParam());
  EXPECT_TRUE(outcome.done);
  EXPECT_EQ(outcome.rest, "GET ");
  EXPECT_EQ(parser.request().body, "hello world");
  EXPECT_EQ(parser.request().authorization, "");
  EXPECT_EQ(parser.request().cookie, "id=1");
  EXPECT_EQ(parser.request().acts_for, "");
  EXPECT_EQ(parser.request().caller_request_id, "");
}

TEST(RequestParser, Fields_OfRequestsBetweenHosts_AreUnchanged) {
  RequestParser parser(kBodyLimit);
  ASSERT_EQ(parser.ParseHeader("POST / HTTP/1.1\r\nHost: nas\r\nx-vexa-ACTS-for:  a%20b \r\n"
                               "X-Vexa-Request-Id: 0123\r\nContent-Length: 0\r\n\r\n"),
            0);
  EXPECT_EQ(parser.request().acts_for, "a%20b");
  EXPECT_EQ(parser.request().caller_request_id, "0123");
}

TEST_P(Chunks, Chunks_ConnectionCloseInTrailer_IsIgnored) {
  RequestParser parser(kBodyLimit);
  ASSERT_EQ(parser.ParseHeader(kChunkedHeader), 0);
  EXPECT_TRUE(Feed(parser, "0\r\nConnection: close\r\n\r\n", GetParam()).done);
  EXPECT_TRUE(parser.keep_alive());
}

TEST_P(Chunks, Chunks_SumAboveLimit_IsRefused) {
  RequestParser parser(kBodyLimit);
  ASSERT_EQ(parser.ParseHeader(kChunkedHeader), 0);
  std::string bytes;
  for (int i = 0; i < 101; ++i) bytes += "a\r\n0123456789\r\n";
  EXPECT_EQ(Feed(parser, bytes, GetParam()).status, 413);
  EXPECT_LE(parser.request().body.size(), kBodyLimit);
}

TEST_P(Chunks, BadSyntax_IsRefused) {
  for (const char* bad : {"x\r\n", "-1\r\n\r\n", "0x5\r\nhello\r\n", "5\r\nhelloX\r\n0\r\n\r\n",
                          "5\nhello\r\n0\r\n\r\n", "5 5\r\nhello\r\n", ";a\r\n", "fffffffffffffffff\r\n",
                          "5;\x01=a\r\nhello\r\n", "0\r\nContent-Length: 3\r\n\r\n", "0\r\nno colon\r\n\r\n"}) {
    RequestParser parser(kBodyLimit);
    ASSERT_EQ(parser.ParseHeader(kChunkedHeader), 0);
    const Outcome outcome = Feed(parser, std::string(bad) + "\r\n\r\n", GetParam());
    EXPECT_TRUE(outcome.status == 400 || outcome.status == 413) << bad << " gave " << outcome.status;
    EXPECT_FALSE(outcome.done) << bad;
  }
}

// Another reader could take such a byte for the end of the line, and see a different chunk.
TEST_P(Chunks, Chunks_ControlCharacterInQuotedExtension_IsRefused) {
  for (const std::string size : {"5", "0"}) {
    const std::string data = size == "5" ? "hello\r\n0\r\n\r\n" : "\r\n";
    for (const char bad : {'\n', '\0', '\x01', '\x7f'}) {
      RequestParser parser(kBodyLimit);
      ASSERT_EQ(parser.ParseHeader(kChunkedHeader), 0);
      const Outcome outcome = Feed(parser, size + ";a=\"x" + bad + "y\"\r\n" + data, GetParam());
      EXPECT_EQ(outcome.status, 400) << "character " << int{bad} << " in a chunk of size " << size;
    }
    RequestParser parser(kBodyLimit);
    ASSERT_EQ(parser.ParseHeader(kChunkedHeader), 0);
    EXPECT_TRUE(Feed(parser, size + ";a=\"x\ty\\\" \xc3\xa9\";b=c\r\n" + data, GetParam()).done) << size;
  }
}

TEST_P(Chunks, BodyWithLength_EndsAtItsLength) {
  RequestParser parser(kBodyLimit);
  ASSERT_EQ(parser.ParseHeader("POST / HTTP/1.1\r\nHost: nas\r\nContent-Length: 5\r\n\r\n"), 0);
  const Outcome outcome = Feed(parser, "helloGET /", GetParam());
  EXPECT_TRUE(outcome.done);
  EXPECT_EQ(outcome.rest, "GET /");
  EXPECT_EQ(parser.request().body, "hello");
}

INSTANTIATE_TEST_SUITE_P(PieceSizes, Chunks, testing::Values(1, 2, 3, 7, 100'000));

TEST(RequestParser, Header_FillsTheRequest) {
  RequestParser parser(kBodyLimit);
  ASSERT_EQ(parser.ParseHeader(
                "PUT /a?b HTTP/1.1\r\nHost: nas\r\ncontent-type:  application/json \r\nAuthorization: Bearer t\r\n"
                "Cookie: id=1\r\nX-VEXA-csrf: c\r\nOrigin: https://nas\r\nContent-Range: bytes 0-0/1\r\n"
                "Content-Length: 0\r\n\r\n"),
            0);
  const HttpRequest& request = parser.request();
  EXPECT_EQ(request.method, "PUT");
  EXPECT_EQ(request.target, "/a?b");
  EXPECT_EQ(request.content_type, "application/json");
  EXPECT_EQ(request.authorization, "Bearer t");
  EXPECT_EQ(request.cookie, "id=1");
  EXPECT_EQ(request.csrf_token, "c");
  EXPECT_EQ(request.origin, "https://nas");
  EXPECT_EQ(request.content_range, "bytes 0-0/1");
  EXPECT_FALSE(parser.expects_body());
  EXPECT_TRUE(parser.keep_alive());
}

TEST(RequestParser, AnnouncedBody_Always_HasTheLengthInTheHeader) {
  const auto announced = [](const std::string& fields) {
    RequestParser parser(1000);
    EXPECT_EQ(parser.ParseHeader("POST / HTTP/1.1\r\nHost: nas\r\n" + fields + "\r\n"), 0) << fields;
    return parser.request().announced_body_bytes;
  };
  EXPECT_EQ(announced(""), 0u);
  EXPECT_EQ(announced("Content-Length: 0\r\n"), 0u);
  EXPECT_EQ(announced("Content-Length: 1000\r\n"), 1000u);
  EXPECT_EQ(announced("Transfer-Encoding: chunked\r\n"), std::numeric_limits<std::size_t>::max());
}

TEST(RequestParser, Target_InAbsoluteForm_IsPath) {
  RequestParser parser(kBodyLimit);
  ASSERT_EQ(parser.ParseHeader("GET http://nas:80/a?b HTTP/1.1\r\nHost: nas:80\r\n\r\n"), 0);
  EXPECT_EQ(parser.request().target, "/a?b");
}

TEST(RequestParser, BodyThatIsAnnounced_TakesNoMemory) {
  RequestParser parser(kBodyLimit);
  ASSERT_EQ(parser.ParseHeader("POST / HTTP/1.1\r\nHost: nas\r\nContent-Length: 900\r\n\r\n"), 0);
  EXPECT_LT(parser.request().body.capacity(), 100U);
}

TEST(RequestParser, Parse_ContentLengthAboveLimit_IsRefusedBeforeBody) {
  RequestParser parser(kBodyLimit);
  EXPECT_EQ(parser.ParseHeader("POST / HTTP/1.1\r\nHost: nas\r\nContent-Length: 1001\r\n\r\n"), 413);
}

TEST(RequestParser, Expectations_OnlyContinueIsKnown) {
  RequestParser known(kBodyLimit);
  EXPECT_EQ(known.ParseHeader("POST / HTTP/1.1\r\nHost: nas\r\nExpect: 100-Continue\r\nContent-Length: 1\r\n\r\n"), 0);
  EXPECT_TRUE(known.expects_continue());
  RequestParser old(kBodyLimit);
  EXPECT_EQ(old.ParseHeader("POST / HTTP/1.0\r\nExpect: 100-continue\r\nContent-Length: 1\r\n\r\n"), 0);
  EXPECT_FALSE(old.expects_continue());
  RequestParser unknown(kBodyLimit);
  EXPECT_EQ(unknown.ParseHeader("POST / HTTP/1.1\r\nHost: nas\r\nExpect: tea\r\nContent-Length: 1\r\n\r\n"), 417);
}

TEST(RequestParser, KeepAlive_FollowsVersionAndConnection) {
  const struct {
    const char* header;
    bool keep;
  } rows[] = {
      {"GET / HTTP/1.1\r\nHost: a\r\n\r\n", true},
      {"GET / HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n", false},
      {"GET / HTTP/1.1\r\nHost: a\r\nConnection: te, Close\r\n\r\n", false},
      {"GET / HTTP/1.0\r\n\r\n", false},
      {"GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", true},
  };
  for (const auto& row : rows) {
    RequestParser parser(kBodyLimit);
    ASSERT_EQ(parser.ParseHeader(row.header), 0);
    EXPECT_EQ(parser.keep_alive(), row.keep) << row.header;
  }
}

}  // namespace
}  // namespace vexa::http
