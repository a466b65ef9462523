// Request headers from a network: even a careless reader can read an accepted one in only one way.
#include <algorithm>
#include <string>

#include "fuzz/check.h"
#include "host/http/http_rules.h"

namespace {

using vexa::fuzz::Check;

// How often a line begins with `name` and a colon, ignoring case, whatever is between them.
std::size_t CountFields(std::string_view lower_header, std::string_view name) {
  std::size_t count = 0;
  for (std::size_t at = lower_header.find(name); at != std::string_view::npos; at = lower_header.find(name, at + 1)) {
    const std::size_t colon = lower_header.find_first_not_of(" \t", at + name.size());
    if (lower_header[at - 1] == '\n' && colon != std::string_view::npos && lower_header[colon] == ':') ++count;
  }
  return count;
}

void CheckAccepted(std::string_view header) {
  Check(header.ends_with("\r\n\r\n") && header.find("\r\n\r\n") == header.size() - 4, "a header has one end");
  for (std::size_t i = 0; i < header.size(); ++i) {
    Check(header[i] != '\0', "no NUL");
    if (header[i] == '\n') Check(i > 0 && header[i - 1] == '\r', "no bare line feed");
    if (header[i] == '\r') Check(header[i + 1] == '\n', "no bare carriage return");
    if (i > 0 && header[i - 1] == '\n') Check(header[i] != ' ' && header[i] != '\t', "no continued line");
  }

  std::string lower(header);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : static_cast<char>(c);
  });
  const std::size_t lengths = CountFields(lower, "content-length");
  const std::size_t encodings = CountFields(lower, "transfer-encoding");
  Check(lengths + encodings <= 1, "one framing");
  const bool http_1_1 = lower.substr(0, lower.find('\r')).ends_with("http/1.1");
  Check(http_1_1 || encodings == 0, "no chunks before HTTP/1.1");
  Check(CountFields(lower, "host") <= 1 && (!http_1_1 || CountFields(lower, "host") == 1), "one host");
  for (const char* name : {"authorization", "cookie", "origin", "x-vexa-csrf", "content-type", "expect"}) {
    Check(CountFields(lower, name) <= 1, "fields that are acted upon come once");
  }

  const std::size_t target = header.find(' ') + 1;
  const std::size_t target_end = header.find(' ', target);
  const std::string_view text = header.substr(target, target_end - target);
  Check(text.size() <= vexa::http::kMaxTargetBytes, "a target is not too long");
  const std::string origin_form = vexa::http::OriginForm(text);
  Check(origin_form.starts_with('/'), "a target leads to a path");
  const std::size_t prefix = text.size() - std::min(text.size(), origin_form.size());
  Check(text.starts_with('/') || lower.compare(target, 4, "http") == 0, "a target is a path or an http URI");
  Check(text.substr(0, prefix).find('@') == std::string_view::npos, "a target has no user");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view header = vexa::fuzz::Text(data, size);
  const int status = vexa::http::CheckRequestHeader(header);
  Check(status == 0 || status == 400 || status == 414 || status == 431 || status == 501 || status == 505,
        "a refusal has one of five statuses");
  if (status == 0) CheckAccepted(header);
  Check(!vexa::http::IsToken(header) || vexa::http::IsFieldValue(header), "a token is a field value");
  return 0;
}
