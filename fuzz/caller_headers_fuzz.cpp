// The header fields that say who calls: a cookie is found exactly where a browser would have put it, and the name that
// another host acts for survives the way there unchanged or not at all.
//
// The input's lines: a Cookie header; a value of X-Vexa-Acts-For; the rest is a user's name and a request's id.
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "host/api/identity.h"
#include "host/base/json_parse.h"
#include "host/transport/origin.h"

namespace {

using vexa::fuzz::Check;
namespace transport = vexa::transport;

constexpr std::string_view kName = vexa::api::kSessionCookie;

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(' ');
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

// RFC 6265, section 4.2.1, once more: the value of the first pair with this name.
std::string_view ExpectedCookie(std::string_view header) {
  while (!header.empty()) {
    const std::string_view pair = Trimmed(vexa::fuzz::TakeUntil(header, ";"));
    const std::size_t equals = pair.find('=');
    if (equals != std::string_view::npos && pair.substr(0, equals) == kName) return pair.substr(equals + 1);
  }
  return {};
}

void CheckActingUser(std::string_view user) {
  if (user.empty()) return;
  Check(user.size() <= transport::kMaxActingUserBytes && vexa::IsValidUtf8(user), "a user's name is a short text");
  Check(vexa::fuzz::IsOneLine(user), "a user's name is one line");
}

// The header lines that a host sends for `origin`, as the next host reads them.
void CheckSent(const transport::Origin& origin) {
  std::string user;
  std::string request_id;
  for (const std::string& line : transport::OriginHeaders(origin)) {
    for (const char c : line) Check(c >= 0x20 && c < 0x7f, "a header line is visible ASCII");
    const std::size_t colon = line.find(": ");
    Check(colon != std::string::npos, "a header line has a name and a value");
    const std::string value = line.substr(colon + 2);
    const bool is_user = std::string_view(line).substr(0, colon) == transport::kActsForField;
    (is_user ? user : request_id) = is_user ? transport::ActingUserOf(value) : value;
    if (!is_user) Check(transport::IsRequestId(value), "only a request id is sent as one");
    if (is_user) Check(user == origin.user, "the name arrives unchanged");
  }
  Check(request_id.empty() == !transport::IsRequestId(origin.request_id), "every request id is sent");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest = vexa::fuzz::Text(data, size);
  const std::string_view cookies = vexa::fuzz::TakeUntil(rest, "\n");
  const std::string_view found = vexa::api::FindCookie(cookies, kName);
  Check(found == ExpectedCookie(cookies), "the first cookie of the name counts");
  Check(found.find(';') == std::string_view::npos, "a cookie is one pair");

  const std::string_view value = vexa::fuzz::TakeUntil(rest, "\n");
  const std::string user = transport::ActingUserOf(value);
  CheckActingUser(user);
  if (!user.empty()) CheckSent({{}, user});
  const std::string_view name = vexa::fuzz::TakeUntil(rest, "\n");
  CheckSent({rest, name});
  return 0;
}
