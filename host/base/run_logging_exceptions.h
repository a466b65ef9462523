// Threads that must survive exceptions from what they call.
#pragma once

#include <syslog.h>

#include <exception>

namespace vexa {

// Calls `act`. An exception from it, such as out of memory, is logged with `what` ("The maintenance of guests") instead
// of ending the process.
template <class Act>
void RunLoggingExceptions(const char* what, const Act& act) noexcept {
  try {
    act();
  } catch (const std::exception& exception) {
    ::syslog(LOG_ERR, "%s failed and continues: %s", what, exception.what());
  } catch (...) {
    ::syslog(LOG_ERR, "%s failed and continues: an unknown exception", what);
  }
}

}  // namespace vexa
