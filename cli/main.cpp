#include <clocale>
#include <exception>
#include <iostream>

#include "cli/command_line.h"
#include "cli/exit_code.h"

int main(int argc, char** argv) {
  // All text is UTF-8 in any locale of the caller; wcwidth needs to know that.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  try {
    const int code = vexa::cli::RunCommandLine(argc, argv);
    std::cout.flush();
    if (std::cout) return code;
    std::cerr << "vexa: Cannot write to standard output\n";
  } catch (const std::exception& exception) {
    std::cerr << "vexa: " << exception.what() << '\n';
  }
  return static_cast<int>(vexa::cli::ExitCode::kFailed);
}
