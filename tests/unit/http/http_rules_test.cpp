#include "host/http/http_rules.h"

#include <gtest/gtest.h>

#include <string>

namespace vexa::http {
namespace {

struct HeaderRow {
  const char* name;
  std::string text;
  int status;
};

std::string With(const std::string& fields) { return "POST /webapi/x HTTP/1.1\r\nHost: nas\r\n" + fields + "\r\n"; }
std::string Line(const std::string& request_line) { return request_line + "\r\nHost: nas\r\n\r\n"; }

const std::string kNul(1, '\0');

const HeaderRow kHeaders[] = {
    {"Plain", Line("GET / HTTP/1.1"), 0},
    {"Query", Line("GET /a?b=c%20d&e HTTP/1.1"), 0},
    {"Http10WithoutHost", "GET / HTTP/1.0\r\n\r\n", 0},
    {"EmptyHost", "GET / HTTP/1.1\r\nHost:\r\n\r\n", 0},
    {"Ipv6Host", "GET / HTTP/1.1\r\nHost: [::1]:5000\r\n\r\n", 0},
    {"ContentLength", With("Content-Length: 5\r\n"), 0},
    {"Chunked", With("Transfer-Encoding: chunked\r\n"), 0},
    {"ChunkedInCapitals", With("TRANSFER-ENCODING: Chunked\r\n"), 0},
    {"TabAroundValue", With("Accept:\ta\t\r\n"), 0},
    {"ValueBeyondAscii", With("X-Name: caf\xc3\xa9\r\n"), 0},

    {"Http2Preface", "PRI * HTTP/2.0\r\n\r\n", 505},
    {"Http09", Line("GET / HTTP/0.9"), 505},
    {"Http12", Line("GET / HTTP/1.2"), 505},
    {"Http20", Line("GET / HTTP/2.0"), 505},
    {"VersionInSmallLetters", Line("GET / http/1.1"), 400},
    {"VersionWithTwoDigits", Line("GET / HTTP/1.10"), 400},
    {"NoVersion", Line("GET /"), 400},
    {"TwoBlanks", Line("GET  / HTTP/1.1"), 400},
    {"BlankAfterVersion", Line("GET / HTTP/1.1 "), 400},
    {"TabInRequestLine", Line("GET\t/ HTTP/1.1"), 400},
    {"BlankInTarget", Line("GET /a b HTTP/1.1"), 400},
    {"MethodNoToken", Line("G(T / HTTP/1.1"), 400},
    {"MethodUnknown", Line("BREW / HTTP/1.1"), 501},
    {"MethodInSmallLetters", Line("get / HTTP/1.1"), 501},

    {"AbsoluteForm", Line("GET http://nas/ HTTP/1.1"), 0},
    {"AbsoluteFormWithPort", "GET HTTPS://[::A]:8642/a?b HTTP/1.1\r\nHost: [::a]:8642\r\n\r\n", 0},
    {"AbsoluteFormOfHttp10", "GET http://nas/ HTTP/1.0\r\n\r\n", 0},
    {"AbsoluteFormWithoutPath", Line("GET http://nas HTTP/1.1"), 0},
    {"AbsoluteFormOfOtherHost", Line("GET http://other/ HTTP/1.1"), 400},
    {"AbsoluteFormOfOtherPort", Line("GET http://nas:81/ HTTP/1.1"), 400},
    {"AbsoluteFormWithEmptyHost", "GET http://nas/ HTTP/1.1\r\nHost:\r\n\r\n", 400},
    {"AbsoluteFormWithoutHostField", "GET http://nas/ HTTP/1.1\r\n\r\n", 400},
    {"AbsoluteFormWithoutAuthority", Line("GET http:///a HTTP/1.1"), 400},
    {"AbsoluteFormWithUser", Line("GET http://root@nas/ HTTP/1.1"), 400},
    {"AbsoluteFormWithBackslash", Line("GET http://nas\\a/ HTTP/1.1"), 400},
    {"AbsoluteFormWithFragment", Line("GET http://nas/#a HTTP/1.1"), 400},
    {"AbsoluteFormOfOtherScheme", Line("GET ftp://nas/ HTTP/1.1"), 400},
    {"AbsoluteFormWithOneSlash", Line("GET http:/nas/ HTTP/1.1"), 400},
    {"AbsoluteFormTooLong", Line("GET http://nas/" + std::string(kMaxTargetBytes, 'a') + " HTTP/1.1"), 414},
    {"SchemeOnly", Line("GET https:// HTTP/1.1"), 400},
    {"AuthorityForm", Line("CONNECT nas:80 HTTP/1.1"), 400},
    {"AsteriskForm", Line("OPTIONS * HTTP/1.1"), 400},
    {"Fragment", Line("GET /a#b HTTP/1.1"), 400},
    {"NulInTarget", Line("GET /a" + kNul + " HTTP/1.1"), 400},
    {"ControlInTarget", Line("GET /a\x01 HTTP/1.1"), 400},
    {"DeleteInTarget", Line("GET /a\x7f HTTP/1.1"), 400},
    {"TargetBeyondAscii", Line("GET /\xc3\xa9 HTTP/1.1"), 400},
    {"TargetTooLong", Line("GET /" + std::string(kMaxTargetBytes, 'a') + " HTTP/1.1"), 414},

    {"NoHost", "GET / HTTP/1.1\r\n\r\n", 400},
    {"TwoHosts", With("Host: nas\r\n"), 400},
    {"Http10TwoHosts", "GET / HTTP/1.0\r\nHost: a\r\nHost: a\r\n\r\n", 400},
    {"HostWithBlank", "GET / HTTP/1.1\r\nHost: a b\r\n\r\n", 400},
    {"HostWithUser", "GET / HTTP/1.1\r\nHost: a@b\r\n\r\n", 400},
    {"HostWithPath", "GET / HTTP/1.1\r\nHost: a/b\r\n\r\n", 400},

    {"BothLengthAndChunked", With("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n"), 400},
    {"BothChunkedAndLength", With("Transfer-Encoding: chunked\r\nContent-Length: 5\r\n"), 400},
    {"TwoLengths", With("Content-Length: 5\r\nContent-Length: 5\r\n"), 400},
    {"LengthList", With("Content-Length: 5, 5\r\n"), 400},
    {"LengthSigned", With("Content-Length: +5\r\n"), 400},
    {"LengthNegative", With("Content-Length: -5\r\n"), 400},
    {"LengthHexadecimal", With("Content-Length: 0x5\r\n"), 400},
    {"LengthEmpty", With("Content-Length:\r\n"), 400},
    {"LengthOverflows", With("Content-Length: 18446744073709551617\r\n"), 400},
    {"TwoEncodings", With("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n"), 400},
    {"EncodingList", With("Transfer-Encoding: gzip, chunked\r\n"), 400},
    {"EncodingListChunkedFirst", With("Transfer-Encoding: chunked, identity\r\n"), 400},
    {"EncodingIdentity", With("Transfer-Encoding: identity\r\n"), 400},
    {"EncodingEmpty", With("Transfer-Encoding:\r\n"), 400},
    {"EncodingMisspelled", With("Transfer-Encoding: xchunked\r\n"), 400},
    {"EncodingVerticalTab", With("Transfer-Encoding: \vchunked\r\n"), 400},
    {"EncodingParameter", With("Transfer-Encoding: chunked;q=1\r\n"), 400},
    {"EncodingOnHttp10", "POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n", 400},

    {"BlankBeforeColon", With("Content-Length : 5\r\n"), 400},
    {"TabBeforeColon", With("Transfer-Encoding\t: chunked\r\n"), 400},
    {"ContinuedLine", With("X-A: 1\r\n b\r\n"), 400},
    {"ContinuedLineWithTab", With("X-A: 1\r\n\tb\r\n"), 400},
    {"BlankBeforeFirstField", "GET / HTTP/1.1\r\n Host: nas\r\n\r\n", 400},
    {"NoColon", With("X-A\r\n"), 400},
    {"NoName", With(": a\r\n"), 400},
    {"NulInValue", With("X-A: a" + kNul + "b\r\n"), 400},
    {"NulInName", With("X" + kNul + "A: a\r\n"), 400},
    {"ReturnInValue", With("X-A: a\rb\r\n"), 400},
    {"LineFeedOnly", With("X-A: a\nX-B: b\r\n"), 400},
    {"LineFeedOnlyInRequestLine", "GET / HTTP/1.1\nHost: nas\r\n\r\n", 400},
    {"EscapeInValue", With("X-A: \x1b[31m\r\n"), 400},
    {"TooManyFields", With([] {
       std::string many;
       for (std::size_t i = 0; i < kMaxFields; ++i) many += "X: 1\r\n";
       return many;
     }()),
     431},

    {"TwoAuthorizations", With("Authorization: a\r\nauthorization: a\r\n"), 400},
    {"TwoCookies", With("Cookie: a=1\r\nCookie: b=2\r\n"), 400},
    {"TwoContentTypes", With("Content-Type: a\r\nContent-Type: a\r\n"), 400},
    {"TwoCsrfTokens", With("X-Vexa-CSRF: a\r\nX-VEXA-CSRF: a\r\n"), 400},
    {"TwoActingUsers", With("X-Vexa-Acts-For: a\r\nx-vexa-acts-for: b\r\n"), 400},
    {"TwoRequestIds", With("X-Vexa-Request-Id: a\r\nX-Vexa-Request-ID: a\r\n"), 400},
    {"TwoOrigins", With("Origin: a\r\nOrigin: a\r\n"), 400},
    {"TwoContentRanges", With("Content-Range: bytes 0-1/2\r\nContent-Range: bytes 0-1/2\r\n"), 400},
    {"TwoExpectations", With("Expect: 100-continue\r\nExpect: 100-continue\r\n"), 400},

    {"Empty", "", 400},
    {"NoEnd", "GET / HTTP/1.1\r\nHost: nas\r\n", 400},
    {"BytesBehindTheEnd", Line("GET / HTTP/1.1") + "x", 400},
};

class RequestHeader : public testing::TestWithParam<HeaderRow> {};

TEST(OriginForm, Target_InEitherForm_IsPathAndQuery) {
  const struct {
    const char* target;
    const char* path;
  } rows[] = {{"/a?b", "/a?b"},
              {"http://nas/a?b", "/a?b"},
              {"HTTPS://nas:1/", "/"},
              {"http://nas", "/"},
              {"http://nas?b=/c", "/?b=/c"},
              {"http://nas//x", "//x"},
              {"/http://nas/", "/http://nas/"}};
  for (const auto& row : rows) EXPECT_EQ(OriginForm(row.target), row.path);
}

TEST_P(RequestHeader, Checked_ReturnsTheStatus) { EXPECT_EQ(CheckRequestHeader(GetParam().text), GetParam().status); }

INSTANTIATE_TEST_SUITE_P(All, RequestHeader, testing::ValuesIn(kHeaders),
                         [](const testing::TestParamInfo<HeaderRow>& row) { return std::string(row.param.name); });

TEST(FieldValue, LineEnds_AreNotAccepted) {
  EXPECT_TRUE(IsFieldValue("a\tb \xff"));
  for (const char* bad : {"a\rb", "a\nb", "a\r\nb", "\x7f"}) EXPECT_FALSE(IsFieldValue(bad));
  EXPECT_FALSE(IsFieldValue(std::string_view("a\0b", 3)));
}

}  // namespace
}  // namespace vexa::http
