#include "host/api/upload.h"

#include <fmt/format.h>

#include <charconv>
#include <limits>
#include <utility>

#include "host/api/failure_reason.h"
#include "host/api/handler_call.h"
#include "host/api/http_reply.h"
#include "host/api/reason.h"
#include "host/base/byte_text.h"
#include "host/base/uuid.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

constexpr std::string_view kUnit = "bytes ";

// Reads a decimal number at the start of `text` and what follows it, and removes both.
bool TakeNumber(std::string_view& text, std::string_view then, std::uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  if (!text.starts_with(then)) return false;
  text.remove_prefix(then.size());
  return true;
}

}  // namespace

std::optional<UploadPieceTarget> ParseContentRange(std::string_view text) {
  UploadPieceTarget piece;
  std::uint64_t last = 0;
  if (!text.starts_with(kUnit)) return std::nullopt;
  text.remove_prefix(kUnit.size());
  const bool is_read =
      TakeNumber(text, "-", piece.offset) && TakeNumber(text, "/", last) && TakeNumber(text, "", piece.total);
  if (!is_read || !text.empty() || last < piece.offset || last >= piece.total) return std::nullopt;
  piece.length = last - piece.offset + 1;
  return piece;
}

std::variant<UploadPlan, Refusal> PlanUpload(const http::HttpRequest& request, const Identity& identity) {
  const std::string id = NormalizeUuid(std::string_view(request.target).substr(kUploadPath.size()));
  // Hosts call methods only.
  if (id.empty() || request.peer.is_certified) return Refusal{user_error::kNoSuchAddress, ""};
  if (request.method != "PUT") return Refusal{user_error::kHttpMethodNotAllowed, ""};
  IdentifyResult identified = identity.Identify(request);
  if (const int* code = std::get_if<int>(&identified)) return Refusal{*code, ReasonOfCaller(*code, request)};
  UploadPlan plan;
  plan.caller = std::move(std::get<Caller>(identified));
  if (const int code = CheckCaller(Access::kAdministrator, plan.caller)) {
    return Refusal{code, ReasonOfCaller(code, request)};
  }
  std::optional<UploadPieceTarget> piece = ParseContentRange(request.content_range);
  if (!piece) {
    return Refusal{user_error::kBadParameter, "The header Content-Range is not 'bytes FIRST-LAST/TOTAL'"};
  }
  if (piece->length > kMaxPieceBytes) {
    return Refusal{user_error::kBodyTooLarge, fmt::format("A piece has at most {}", ByteText(kMaxPieceBytes))};
  }
  const bool is_announced = request.announced_body_bytes != std::numeric_limits<std::size_t>::max();
  if (is_announced && request.announced_body_bytes != piece->length) {
    return Refusal{user_error::kBadParameter, "The body does not have the length that Content-Range says"};
  }
  piece->upload_id = id;
  plan.target = *std::move(piece);
  return plan;
}

http::HttpResponse MakeUploadReply(const UploadAnswer& answer, const std::string& request_id) {
  Json::Value received;
  if (answer.received) received["received"] = Json::UInt64{*answer.received};
  VEXA::APIResponse response;
  Json::Value more(Json::objectValue);
  if (!answer.refusal) {
    response.SetSuccess(received);
    return MakeReply(response, more, request_id);
  }
  response.SetError(answer.refusal->code, received);
  if (!answer.refusal->reason.empty()) more[kReason] = answer.refusal->reason;
  http::HttpResponse reply = MakeReply(response, more, request_id);
  if (answer.refusal->code == user_error::kHttpMethodNotAllowed) reply.headers.emplace_back("Allow", "PUT");
  return reply;
}

}  // namespace vexa::api
