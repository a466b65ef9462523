// Requests from a network: how the bytes were split into packets changes neither what a request is nor where it ends.
#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "host/http/http_parser.h"
#include "host/http/http_rules.h"

namespace {

using vexa::fuzz::Check;
using vexa::http::RequestParser;

constexpr std::size_t kBodyLimit = 300;
// Between chunks, fewer bytes than this are not examined yet.
constexpr std::size_t kMinBytesBetweenChunks = 5;

struct Outcome {
  int status = 0;
  bool done = false;
  std::size_t consumed = 0;
  std::size_t waiting = 0;  // passed in, and examined again when more arrives
  std::string body;
};

// The refusal of the last bytes may still be pending.
bool MayStillBeRefused(const Outcome& outcome) {
  return outcome.status == 0 && !outcome.done && outcome.waiting < kMinBytesBetweenChunks;
}

// Passes `bytes` in pieces of size `piece`, as a network might.
Outcome ReadBody(RequestParser& parser, std::string_view bytes, std::size_t piece) {
  Outcome outcome;
  std::string waiting;
  outcome.done = !parser.expects_body();
  while (!outcome.done && outcome.status == 0 && !bytes.empty()) {
    waiting += bytes.substr(0, piece);
    bytes.remove_prefix(std::min(piece, bytes.size()));
    const RequestParser::Progress progress = parser.ParseBody(waiting);
    Check(progress.consumed <= waiting.size(), "no more is consumed than there is");
    Check(!(progress.done && progress.status != 0), "a request is not both done and refused");
    waiting.erase(0, progress.consumed);
    outcome.consumed += progress.consumed;
    outcome.done = progress.done;
    outcome.status = progress.status;
  }
  Check(outcome.status == 0 || outcome.status == 400 || outcome.status == 413, "a body is refused in one of two ways");
  outcome.waiting = waiting.size();
  outcome.body = parser.request().body;
  Check(outcome.body.size() <= kBodyLimit, "no body exceeds the limit");
  return outcome;
}

Outcome ReadRequest(std::string_view header, std::string_view body, std::size_t piece) {
  RequestParser parser(kBodyLimit);
  Outcome outcome;
  outcome.status = parser.ParseHeader(header);
  const int by_rules = vexa::http::CheckRequestHeader(header);
  Check(by_rules == 0 || outcome.status == by_rules, "what the rules refuse is refused");
  if (outcome.status != 0) return outcome;
  const std::string authorization = parser.request().authorization;
  const std::string cookie = parser.request().cookie;
  const bool keep_alive = parser.keep_alive();
  outcome = ReadBody(parser, body, piece);
  Check(parser.request().authorization == authorization && parser.request().cookie == cookie,
        "a body does not change who calls");
  Check(parser.keep_alive() == keep_alive, "a body does not change what follows it");
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view body = vexa::fuzz::Text(data, size);
  const std::string header = std::string(vexa::fuzz::TakeUntil(body, "\r\n\r\n")) + "\r\n\r\n";
  const Outcome whole = ReadRequest(header, body, std::string_view::npos);
  for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{7}}) {
    const Outcome cut = ReadRequest(header, body, piece);
    if (whole.status != 0 && MayStillBeRefused(cut)) continue;
    Check(cut.status == whole.status && cut.done == whole.done, "packets do not change the outcome");
    if (!whole.done) continue;
    Check(cut.consumed == whole.consumed && cut.body == whole.body, "packets do not change the request");
  }
  return 0;
}
