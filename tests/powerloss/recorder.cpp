// Records what a program does to the files below a folder: power_recorder FOLDER RECORDING PROGRAM [ARGUMENT…]
//
// The program runs under ptrace(2), so that every call is seen: of the program, of its libraries, and of the C
// library for its own purposes. Only writes through a memory map are not seen; the recording says which files were
// mapped. The exit code is the program's.
#include <cstdio>

#include "tests/powerloss/file_calls.h"
#include "tests/support/check.h"

int main(int argc, char** argv) {
  if (argc < 4) vexa::test::Fail("usage: power_recorder FOLDER RECORDING PROGRAM [ARGUMENT…]");
  std::FILE* const output = std::fopen(argv[2], "wbxe");
  vexa::test::Check(output != nullptr, argv[2]);
  vexa::powerloss::FileCalls calls(argv[1], output);
  return vexa::powerloss::RunTraced(argv + 3, calls);
}
