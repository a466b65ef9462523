#include "host/http/http_response.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <ctime>

#include "host/http/http_rules.h"

namespace vexa::http {
namespace {

struct ReasonPhrase {
  int status;
  std::string_view text;
};
constexpr ReasonPhrase kReasons[] = {
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {204, "No Content"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {307, "Temporary Redirect"},
    {308, "Permanent Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Content Too Large"},
    {414, "URI Too Long"},
    {415, "Unsupported Media Type"},
    {417, "Expectation Failed"},
    {422, "Unprocessable Content"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
};

// Fields with these names from a handler would contradict the server's own.
constexpr std::string_view kServerFields[] = {"Connection",
                                              "Content-Length",
                                              "Content-Type",
                                              "Date",
                                              "Keep-Alive",
                                              "Server",
                                              "Trailer",
                                              "Transfer-Encoding",
                                              "Upgrade",
                                              "X-Request-Id",
                                              "X-Content-Type-Options"};

std::string_view ReasonOf(int status) {
  const auto* const found = std::find_if(std::begin(kReasons), std::end(kReasons),
                                         [&](const ReasonPhrase& row) { return row.status == status; });
  return found == std::end(kReasons) ? std::string_view("Status") : found->text;
}

void AppendNumber(std::string& out, std::size_t number) {
  std::array<char, 20> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  out.append(digits.data(), static_cast<std::size_t>(end - digits.data()));
}

void AppendField(std::string& out, std::string_view name, std::string_view value) {
  out.append(name).append(": ").append(value).append("\r\n");
}

bool IsSendableField(const std::string& name, const std::string& value) {
  return IsToken(name) && IsFieldValue(value) &&
         std::none_of(std::begin(kServerFields), std::end(kServerFields),
                      [&](std::string_view own) { return EqualsIgnoringCase(own, name); });
}

std::uint64_t RandomStart() {
  std::uint64_t start = 0;
  if (::getrandom(&start, sizeof start, 0) != static_cast<ssize_t>(sizeof start)) {
    start = static_cast<std::uint64_t>(std::time(nullptr)) << 20;
  }
  return start;
}

}  // namespace

bool StatusHasBody(int status) { return status != 204 && status != 304; }

void AppendResponseHeader(std::string& out, const HttpResponse& response, std::string_view request_id,
                          std::string_view date, ConnectionAfterResponse after) {
  out.append("HTTP/1.1 ");
  AppendNumber(out, static_cast<std::size_t>(response.status));
  out.append(" ").append(ReasonOf(response.status)).append("\r\n");
  AppendField(out, "Date", date);
  AppendField(out, "X-Request-Id", request_id);
  AppendField(out, "X-Content-Type-Options", "nosniff");
  if (StatusHasBody(response.status)) {
    const bool valid = IsFieldValue(response.content_type) && !response.content_type.empty();
    AppendField(out, "Content-Type", valid ? std::string_view(response.content_type) : "application/octet-stream");
    out.append("Content-Length: ");
    AppendNumber(out, response.BodyText().size());
    out.append("\r\n");
  }
  bool cache_control = false;
  for (const auto& [name, value] : response.headers) {
    if (!IsSendableField(name, value)) continue;
    cache_control |= EqualsIgnoringCase(name, "Cache-Control");
    AppendField(out, name, value);
  }
  if (!cache_control) AppendField(out, "Cache-Control", "no-store");
  if (after == ConnectionAfterResponse::kClose) AppendField(out, "Connection", "close");
  if (after == ConnectionAfterResponse::kKeepAliveForHttp10) AppendField(out, "Connection", "keep-alive");
  out.append("\r\n");
}

// By hand, because strftime() would use the locale's language.
std::string HttpDate(std::time_t time) {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm parts{};
  gmtime_r(&time, &parts);
  std::array<char, 64> text;
  const int size = std::snprintf(text.data(), text.size(), "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[parts.tm_wday],
                                 parts.tm_mday, kMonths[parts.tm_mon], parts.tm_year + 1900, parts.tm_hour,
                                 parts.tm_min, parts.tm_sec);
  return std::string(text.data(), static_cast<std::size_t>(size));
}

std::string NewRequestId() {
  static std::atomic<std::uint64_t> next{RandomStart()};
  // A one-to-one mix: different numbers stay different, but neighbours do not look alike.
  std::uint64_t id = next.fetch_add(0x9e3779b97f4a7c15U, std::memory_order_relaxed);
  id = (id ^ (id >> 30)) * 0xbf58476d1ce4e5b9U;
  id = (id ^ (id >> 27)) * 0x94d049bb133111ebU;
  id ^= id >> 31;
  std::string text(16, '0');
  for (std::size_t i = text.size(); i-- > 0; id >>= 4) text[i] = "0123456789abcdef"[id & 0xf];
  return text;
}

}  // namespace vexa::http
