// PUT /upload/<upload id>: a piece of an image that an administrator uploads. The header Content-Range says which.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "host/api/api_table.h"
#include "host/api/identity.h"
#include "host/base/refusal.h"
#include "host/http/http_server.h"

namespace vexa::api {

inline constexpr std::string_view kUploadPath = "/upload/";
inline constexpr std::size_t kMaxPieceBytes = std::size_t{8} << 20;

struct UploadPieceTarget {
  std::string upload_id;  // a UUID in lower case
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
  std::uint64_t total = 0;
};

struct UploadPlan {
  UploadPieceTarget target;
  Caller caller;
};

// "bytes FIRST-LAST/TOTAL" (RFC 9110, section 14.4), with known numbers. Not set for any other text.
std::optional<UploadPieceTarget> ParseContentRange(std::string_view text);

// Decides what can be decided from the header, without waiting: the form of the address and the piece, and who the
// caller is. The refusal's reason may be empty.
std::variant<UploadPlan, Refusal> PlanUpload(const http::HttpRequest& request, const Identity& identity);

// The result of taking a piece: how many bytes of the upload have been received, if that is known.
struct UploadAnswer {
  std::optional<Refusal> refusal;
  std::optional<std::uint64_t> received;
};

// Takes a piece of an administrator. `bytes` has the target's length.
using UploadTaker = std::function<UploadAnswer(const UploadPieceTarget& target, std::string_view bytes)>;

// {"received"} as data, or as the details of the error.
http::HttpResponse MakeUploadReply(const UploadAnswer& answer, const std::string& request_id);

}  // namespace vexa::api
