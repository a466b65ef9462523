#include "host/base/refusal.h"

namespace vexa::guests {

Refusal FailedBecause(const Error& error) { return {kFailed, error.ToString()}; }

Refusal FileFailedBecause(const Error& error) {
  return {error.code() == ErrorCode::kBusy ? kRunsAlready : kFailed, error.ToString()};
}

}  // namespace vexa::guests
