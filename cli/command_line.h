// The command line: which commands and options there are.
#pragma once

namespace vexa::cli {

// Runs the command and returns the exit code.
int RunCommandLine(int argc, char** argv);

}  // namespace vexa::cli
