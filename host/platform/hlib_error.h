// The codes of the base library's last error (HLIBCErrGet of webapi/platform/base.h), and how its functions set it.
#pragma once

#include "host/base/result.h"

namespace vexa::base {

// In the order of the numbers; logs show them as four hexadecimal digits.
enum class HlibError : unsigned int {
  kNone = 0x0000,         // nothing has failed on this thread yet
  kBadArgument = 0x0100,  // a null pointer, a negative capacity, an index outside the list
  kNoMemory = 0x0200,
  kNoSuchUser = 0x0300,
  kUnavailable = 0x0400,  // no account provider is installed, or it cannot answer now
  kInternal = 0x0500,     // the provider failed for a reason of its own
};

// A source line. (The compiler of the fuzz targets does not have std::source_location.)
struct Place {
  const char* file;
  int line;
  static constexpr Place Here(const char* file = __builtin_FILE(), int line = __builtin_LINE()) { return {file, line}; }
};

// Sets the calling thread's last error; the place is the caller's.
void SetHlibError(HlibError code, Place place = Place::Here());

// The code for an account provider's error.
HlibError HlibErrorOf(const Error& error);

}  // namespace vexa::base
