// For essential set-up: without it tests cannot continue, so the test program ends.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "host/base/result.h"

namespace vexa::test {

[[noreturn]] inline void FailSetUp(const Error& error) {
  std::fprintf(stderr, "test set-up failed: %s\n", error.ToString().c_str());
  std::abort();
}

template <class T>
T Require(Result<T> result) {
  if (!result) FailSetUp(result.error());
  return std::move(result).value();
}

inline void Require(const Status& status) {
  if (!status) FailSetUp(status.error());
}

}  // namespace vexa::test

namespace vexa {
using test::Require;  // so that the tests of every room see it
}
