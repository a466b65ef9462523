// Maps LMDB's return codes to errors of this host.
#pragma once

#include <string>
#include <system_error>

#include "host/base/result.h"

namespace vexa::store {

// `code` is an LMDB or errno(3) value, not 0. Damage is kCorrupt, a full disk or limit kNoSpace, missing rights or a
// read-only disk kDenied, a full reader table kBusy, anything else kInternal.
Error LmdbError(std::string message, int code);

// For a thread that could not be started, with what to do about it: kUnavailable.
Error ThreadError(const std::string& message, const std::system_error& failure);

}  // namespace vexa::store
