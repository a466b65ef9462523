// The reader of a request, for functions that cannot be passed one: those of webapi/platform, whose signatures are
// fixed. Everything else is passed a Reader.
#pragma once

#include <cstdint>
#include <memory>

#include "host/base/result.h"
#include "host/records/reader.h"

namespace vexa::records {

// While a scope lives, all functions of webapi/platform that its thread calls read the same state of the store: the
// state at the first read. With nested scopes, the innermost one of the thread applies.
class RequestScope {
 public:
  RequestScope();
  ~RequestScope();
  RequestScope(const RequestScope&) = delete;
  RequestScope& operator=(const RequestScope&) = delete;

  // Identifies the thread's scope uniquely within this process; 0 outside of a scope.
  static std::uint64_t Number();

 private:
  friend class RequestPause;
  friend Result<std::shared_ptr<const Reader>> ReaderOfRequest();

  RequestScope* const outer_;
  const std::uint64_t number_;
  std::shared_ptr<const Reader> reader_;
};

// Suspends the thread's scopes while the request waits for something else or commits, because the store cannot reuse
// space while a snapshot is open. Their readers are closed, and during the pause, the platform's functions read the
// latest state each time. After it, the next read opens a reader of the state at that time. Does nothing outside of a
// scope.
class RequestPause {
 public:
  RequestPause();
  ~RequestPause();
  RequestPause(const RequestPause&) = delete;
  RequestPause& operator=(const RequestPause&) = delete;

 private:
  RequestScope* const paused_;
};

// The reader of the thread's scope; outside of a scope, a new one of the environment's store. Never null. Keep it for
// one call of the platform, and never across a RequestPause. Errors: those of store::Store::Read; kUnavailable without
// an environment.
Result<std::shared_ptr<const Reader>> ReaderOfRequest();

}  // namespace vexa::records
