#include "host/base/result.h"

#include <system_error>

namespace vexa {

std::string_view ErrorCodeName(ErrorCode code) {
  switch (code) {
    case ErrorCode::kInvalid:
      return "invalid";
    case ErrorCode::kNotFound:
      return "not_found";
    case ErrorCode::kConflict:
      return "conflict";
    case ErrorCode::kDenied:
      return "denied";
    case ErrorCode::kBusy:
      return "busy";
    case ErrorCode::kUnavailable:
      return "unavailable";
    case ErrorCode::kNoSpace:
      return "no_space";
    case ErrorCode::kCorrupt:
      return "corrupt";
    case ErrorCode::kUnknown:
      return "unknown";
    case ErrorCode::kInternal:
      return "internal";
  }
  return "internal";
}

Error SystemError(ErrorCode code, std::string message, int error_number) {
  return Error(code, std::move(message), std::generic_category().message(error_number));
}

}  // namespace vexa
