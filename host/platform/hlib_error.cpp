#include "host/platform/hlib_error.h"

#include <cstring>

#include "webapi/platform/base.h"

namespace vexa::base {
namespace {

struct LastError {
  HlibError code = HlibError::kNone;
  const char* file = "";  // part of a literal
  int line = 0;
};

thread_local LastError last_error;

}  // namespace

void SetHlibError(HlibError code, Place place) {
  const char* const path = place.file;
  const char* const slash = std::strrchr(path, '/');
  last_error = {code, slash ? slash + 1 : path, place.line};
}

HlibError HlibErrorOf(const Error& error) {
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

}  // namespace vexa::base

unsigned int HLIBCErrGet() { return static_cast<unsigned int>(vexa::base::last_error.code); }
const char* HLIBCErrorGetFile() { return vexa::base::last_error.file; }
int HLIBCErrorGetLine() { return vexa::base::last_error.line; }
