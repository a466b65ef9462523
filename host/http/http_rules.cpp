#include "host/http/http_rules.h"

#include <algorithm>
#include <array>

namespace vexa::http {
namespace {

constexpr int kAccepted = 0;

constexpr std::array<std::string_view, 8> kMethods = {"GET",    "POST",    "HEAD",  "PUT",
                                                      "DELETE", "OPTIONS", "PATCH", "TRACE"};

// Fields that identify the caller or describe the body. Each may occur only once: otherwise it would be arbitrary which
// one counts.
enum UniqueField {
  kHost,
  kContentLength,
  kTransferEncoding,
  kAuthorization,
  kCookie,
  kContentType,
  kCsrf,
  kOrigin,
  kExpect,
  kActsFor,
  kRequestId,
  kUpgrade,
  kWebSocketKey,
  kWebSocketVersion,
  kContentRange
};
constexpr std::array<std::string_view, 15> kUniqueFields = {"Host",
                                                            "Content-Length",
                                                            "Transfer-Encoding",
                                                            "Authorization",
                                                            "Cookie",
                                                            "Content-Type",
                                                            "X-Vexa-CSRF",
                                                            "Origin",
                                                            "Expect",
                                                            "X-Vexa-Acts-For",
                                                            "X-Vexa-Request-Id",
                                                            "Upgrade",
                                                            "Sec-WebSocket-Key",
                                                            "Sec-WebSocket-Version",
                                                            "Content-Range"};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool IsTokenCharacter(char c) {
  return IsDigit(c) || (Lower(c) >= 'a' && Lower(c) <= 'z') ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

std::string_view Trimmed(std::string_view text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

// Takes the next line, without its CRLF. False when a line end is not exactly CRLF.
bool TakeLine(std::string_view& rest, std::string_view& line) {
  const std::size_t end = rest.find_first_of("\r\n");
  if (end == std::string_view::npos || rest.substr(end, 2) != "\r\n") return false;
  line = rest.substr(0, end);
  rest.remove_prefix(end + 2);
  return true;
}

bool IsHostValue(std::string_view value) {
  const auto allowed = [](char c) {
    return IsTokenCharacter(c) || c == ':' || c == '[' || c == ']' || c == '(' || c == ')' || c == ';' || c == '=';
  };
  return std::all_of(value.begin(), value.end(), allowed);
}

// The length of "http://" or "https://" at the start of a target; 0 for any other start.
std::size_t SchemeLength(std::string_view target) {
  for (const std::string_view scheme : {std::string_view("http://"), std::string_view("https://")}) {
    if (EqualsIgnoringCase(target.substr(0, scheme.size()), scheme)) return scheme.size();
  }
  return 0;
}

// "host:port" in a target in absolute form (RFC 9112, section 3.2.2).
std::string_view AuthorityOf(std::string_view target) {
  target.remove_prefix(SchemeLength(target));
  return target.substr(0, target.find_first_of("/?"));
}

int CheckTarget(std::string_view target) {
  if (target.size() > kMaxTargetBytes) return 414;
  if (SchemeLength(target) != 0) {
    if (const std::string_view authority = AuthorityOf(target); authority.empty() || !IsHostValue(authority))
      return 400;
  } else if (!target.starts_with('/')) {
    return 400;
  }
  const auto visible = [](char c) { return c > 0x20 && c < 0x7f && c != '#'; };
  return std::all_of(target.begin(), target.end(), visible) ? kAccepted : 400;
}

struct RequestLine {
  int minor_version = 1;
  std::string_view authority;  // of a target in absolute form
};

int CheckRequestLine(std::string_view line, RequestLine& parts) {
  const std::size_t first = line.find(' ');
  const std::size_t second = first == std::string_view::npos ? first : line.find(' ', first + 1);
  if (second == std::string_view::npos) return 400;
  const std::string_view method = line.substr(0, first);
  const std::string_view version = line.substr(second + 1);
  if (!IsToken(method)) return 400;
  if (version.size() != 8 || version.substr(0, 5) != "HTTP/" || !IsDigit(version[5]) || version[6] != '.' ||
      !IsDigit(version[7])) {
    return 400;
  }
  if (version != "HTTP/1.1" && version != "HTTP/1.0") return 505;
  parts.minor_version = version[7] - '0';
  const std::string_view target = line.substr(first + 1, second - first - 1);
  if (const int status = CheckTarget(target); status != kAccepted) return status;
  if (SchemeLength(target) != 0) parts.authority = AuthorityOf(target);
  return std::find(kMethods.begin(), kMethods.end(), method) == kMethods.end() ? 501 : kAccepted;
}

bool IsContentLengthValue(std::string_view value) {
  return !value.empty() && value.size() <= 18 && std::all_of(value.begin(), value.end(), IsDigit);
}

class FieldChecker {
 public:
  // A target in absolute form names the host as well. Two names for it could be read in two ways.
  explicit FieldChecker(std::string_view authority) : authority_(authority) {}

  bool Accept(std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return false;
    // A blank before the colon, or at the start of the line (a continued field), is not a token character.
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = Trimmed(line.substr(colon + 1));
    if (!IsToken(name) || !IsFieldValue(value)) return false;
    for (std::size_t i = 0; i < kUniqueFields.size(); ++i) {
      if (!EqualsIgnoringCase(name, kUniqueFields[i])) continue;
      if (seen_[i]) return false;
      seen_[i] = true;
      if (i == kHost) return IsHostValue(value) && (authority_.empty() || EqualsIgnoringCase(value, authority_));
      if (i == kContentLength) return IsContentLengthValue(value);
      if (i == kTransferEncoding) return EqualsIgnoringCase(value, "chunked");
      break;
    }
    return true;
  }

  bool IsComplete(int minor_version) const {
    if (minor_version == 0) return !seen_[kTransferEncoding];
    return seen_[kHost] && !(seen_[kTransferEncoding] && seen_[kContentLength]);
  }

 private:
  const std::string_view authority_;
  std::array<bool, kUniqueFields.size()> seen_{};
};

}  // namespace

bool IsToken(std::string_view text) { return !text.empty() && std::all_of(text.begin(), text.end(), IsTokenCharacter); }

bool IsFieldValue(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte >= 0x20 && byte != 0x7f) || byte == '\t';
  });
}

bool EqualsIgnoringCase(std::string_view left, std::string_view right) {
  return left.size() == right.size() &&
         std::equal(left.begin(), left.end(), right.begin(), [](char a, char b) { return Lower(a) == Lower(b); });
}

std::string OriginForm(std::string_view target) {
  const std::size_t scheme = SchemeLength(target);
  if (scheme == 0) return std::string(target);
  target.remove_prefix(scheme + AuthorityOf(target).size());
  return target.starts_with('/') ? std::string(target) : "/" + std::string(target);
}

int CheckRequestHeader(std::string_view header) {
  std::string_view line;
  if (!TakeLine(header, line)) return 400;
  RequestLine parts;
  if (const int status = CheckRequestLine(line, parts); status != kAccepted) return status;
  FieldChecker fields(parts.authority);
  for (std::size_t count = 0; TakeLine(header, line); ++count) {
    if (line.empty()) return header.empty() && fields.IsComplete(parts.minor_version) ? kAccepted : 400;
    if (count == kMaxFields) return 431;
    if (!fields.Accept(line)) return 400;
  }
  return 400;
}

}  // namespace vexa::http
