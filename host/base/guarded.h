// Threads that must outlive whatever they call.
#pragma once

#include <syslog.h>

#include <exception>

namespace vexa {

// Calls `act`. An exception that comes out of it, such as one for want of memory, is logged with `what` ("The
// maintenance of guests") instead of ending the process.
template <class Act>
void Guarded(const char* what, const Act& act) noexcept {
  try {
    act();
  } catch (const std::exception& exception) {
    ::syslog(LOG_ERR, "%s failed and goes on: %s", what, exception.what());
  } catch (...) {
    ::syslog(LOG_ERR, "%s failed and goes on: an unknown exception", what);
  }
}

}  // namespace vexa
