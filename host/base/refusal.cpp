#include "host/base/refusal.h"

namespace vexa {

Refusal RefusalFor(const Error& error) { return {host_error::kFailed, error.ToString()}; }

Refusal FileRefusalFor(const Error& error) {
  return {error.code() == ErrorCode::kBusy ? host_error::kAlreadyRunning : host_error::kFailed, error.ToString()};
}

}  // namespace vexa
