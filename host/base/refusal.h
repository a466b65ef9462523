// The reason why this host refuses an operation on a guest.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "host/base/result.h"
#include "webapi/error_codes.h"

namespace vexa {

// Codes that only an edit of a guest has, beside those of host_error.
inline constexpr int kBadEdit = host_error::kBadParameter;  // a parameter that a guest cannot have
// Processors could not be dedicated to a running guest.
inline constexpr int kNotPinned = host_error::kPartsNotReserved;

struct Refusal {
  // The code of the reply. The callers in webapi/guest translate most of them into advice for users.
  int code = host_error::kFailed;
  std::string reason;  // a sentence for the administrator, with the values that led to the refusal
};

// The refusal as a failed result, or success. For plan functions, which record the refusal and commit nothing.
inline Result<void, Refusal> OkUnless(std::optional<Refusal> refusal) {
  if (refusal) return *std::move(refusal);
  return {};
}

// A refusal with kFailed and the error's text.
Refusal RefusalFor(const Error& error);
// The same for errors of file operations on disks, except that kBusy, a disk that a VM process has open, becomes
// kAlreadyRunning.
Refusal FileRefusalFor(const Error& error);

}  // namespace vexa
