// The command line: which commands and options there are.
#pragma once

namespace vexa::cli {

// Runs what the arguments say and returns the exit code.
int RunCommandLine(int argc, char** argv);

}  // namespace vexa::cli
