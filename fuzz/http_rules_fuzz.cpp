// Request heads from a network: an accepted one can be read in one way only, however careless the reader.
#include <algorithm>
#include <string>

#include "fuzz/check.h"
#include "host/http/http_rules.h"

namespace {

using vexa::fuzz::Check;

// How often a line begins with `name` and a colon, ignoring case, whatever is between them.
std::size_t CountFields(std::string_view lower_head, std::string_view name) {
  std::size_t count = 0;
  for (std::size_t at = lower_head.find(name); at != std::string_view::npos; at = lower_head.find(name, at + 1)) {
    const std::size_t colon = lower_head.find_first_not_of(" \t", at + name.size());
    if (lower_head[at - 1] == '\n' && colon != std::string_view::npos && lower_head[colon] == ':') ++count;
  }
  return count;
}

void CheckAccepted(std::string_view head) {
  Check(head.ends_with("\r\n\r\n") && head.find("\r\n\r\n") == head.size() - 4, "a head has one end");
  for (std::size_t i = 0; i < head.size(); ++i) {
    Check(head[i] != '\0', "no NUL");
    if (head[i] == '\n') Check(i > 0 && head[i - 1] == '\r', "no bare line feed");
    if (head[i] == '\r') Check(head[i + 1] == '\n', "no bare carriage return");
    if (i > 0 && head[i - 1] == '\n') Check(head[i] != ' ' && head[i] != '\t', "no continued line");
  }

  std::string lower(head);
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

  const std::size_t target = head.find(' ') + 1;
  const std::size_t target_end = head.find(' ', target);
  Check(head[target] == '/' && target_end - target <= vexa::daemon::kMaxTargetBytes, "a target is a path");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view head = vexa::fuzz::Text(data, size);
  const int status = vexa::daemon::CheckRequestHead(head);
  Check(status == 0 || status == 400 || status == 414 || status == 431 || status == 501 || status == 505,
        "a refusal has one of five statuses");
  if (status == 0) CheckAccepted(head);
  Check(!vexa::daemon::IsToken(head) || vexa::daemon::IsFieldValue(head), "a token is a field value");
  return 0;
}
