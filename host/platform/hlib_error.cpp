#include "host/platform/hlib_error.h"

#include <cstring>

#include "webapi/platform/base.h"

namespace vexa::platform {
namespace {

struct LastError {
  HlibError code = HlibError::kNone;
  const char* file = "";  // points into a string literal
  int line = 0;
};

thread_local LastError last_error;

}  // namespace

void SetHlibError(HlibError code, SourceLocation location) {
  const char* const path = location.file;
  const char* const slash = std::strrchr(path, '/');
  last_error = {code, slash ? slash + 1 : path, location.line};
}

HlibError HlibErrorFor(const Error& error) {
  switch (error.code()) {
    case ErrorCode::kNotFound:
      return HlibError::kNoSuchUser;
    case ErrorCode::kUnavailable:
    case ErrorCode::kBusy:
      return HlibError::kUnavailable;
    default:
      return HlibError::kInternal;
  }
}

}  // namespace vexa::platform

unsigned int HLIBCErrGet() { return static_cast<unsigned int>(vexa::platform::last_error.code); }
const char* HLIBCErrorGetFile() { return vexa::platform::last_error.file; }
int HLIBCErrorGetLine() { return vexa::platform::last_error.line; }
