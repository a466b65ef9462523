// The codes of the base library's last error (HLIBCErrGet of webapi/platform/base.h), and how its functions set it.
#pragma once

#include "host/base/result.h"

namespace vexa::platform {

// Logs display the codes as four hexadecimal digits.
enum class HlibError : unsigned int {
  kNone = 0x0000,         // nothing has failed on this thread yet
  kBadArgument = 0x0100,  // a null pointer, a negative capacity, an index outside the list
  kNoMemory = 0x0200,
  kNoSuchUser = 0x0300,
  kUnavailable = 0x0400,  // no account provider is installed, or it is currently unavailable
  kInternal = 0x0500,     // any other failure of the provider
};

// As std::source_location, which the compiler of the fuzz targets does not have.
struct SourceLocation {
  const char* file;
  int line;
  static constexpr SourceLocation Current(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    return {file, line};
  }
};

// Sets the calling thread's last error. `location` defaults to the source line of the call.
void SetHlibError(HlibError code, SourceLocation location = SourceLocation::Current());

// The code for an account provider's error.
HlibError HlibErrorFor(const Error& error);

}  // namespace vexa::platform
