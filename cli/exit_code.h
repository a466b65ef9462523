// The exit codes of the command line client.
#pragma once

namespace vexa::cli {

enum class ExitCode : int {
  kOk = 0,
  kFailed = 1,         // the server, or this host's files, refused or failed
  kUsage = 2,          // the command line cannot be parsed, or is refused
  kUnreachable = 3,    // no complete reply came from the server
  kInterrupted = 130,  // by Ctrl-C, in the shells' convention
};

}  // namespace vexa::cli
