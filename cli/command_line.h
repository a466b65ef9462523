// The command line: parses it and runs the command.
#pragma once

namespace vexa::cli {

// Runs the command and returns the exit code.
int RunCommandLine(int argc, char** argv);

}  // namespace vexa::cli
