// Essential checks: the test program ends when one fails.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace vexa::test {

[[noreturn]] inline void Fail(const std::string& sentence) {
  std::fprintf(stderr, "%s\n", sentence.c_str());
  std::abort();
}

// Ends the program unless `good`. Reports `what` failed, with errno's text.
inline void Check(bool good, const char* what) {
  if (good) return;
  std::perror(what);
  std::abort();
}

}  // namespace vexa::test
