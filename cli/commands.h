// How commands register themselves on the command line. Only command_line*.cpp includes the parser's own header,
// because it is large.
#pragma once

#include <functional>

#include "cli/client_options.h"

namespace CLI {
class App;
}

namespace vexa::cli {

// The result of parsing the command line.
struct Invocation {
  GlobalOptions global;
  std::function<ExitCode()> run;
};

// Each adds its commands; a command that is used sets `invocation.run`. Both arguments must outlive the parse and the
// run.
void AddClientCommands(CLI::App& app, Invocation& invocation);
// Call it after AddClientCommands, because it extends "guest".
void AddHostCommands(CLI::App& app, Invocation& invocation);
// Call it after AddHostCommands: "guest recover" and "host forget".
void AddRecoveryCommands(CLI::App& app, Invocation& invocation);
// Also after AddClientCommands: the rest of "guest", and "log".
void AddActionCommands(CLI::App& app, Invocation& invocation);
// Likewise: "guest set" and "guest edit".
void AddEditCommands(CLI::App& app, Invocation& invocation);
void AddErrorCommand(CLI::App& app, Invocation& invocation);
void AddAccountCommands(CLI::App& app, Invocation& invocation);
void AddClusterCommands(CLI::App& app, Invocation& invocation);
void AddRepositoryCommands(CLI::App& app, Invocation& invocation);
void AddImageCommands(CLI::App& app, Invocation& invocation);
void AddImportCommand(CLI::App& app, Invocation& invocation);

// Only the options of `vexa import`, which fill `words`.
struct ImportWords;
void AddImportOptions(CLI::App& import, ImportWords& words);

}  // namespace vexa::cli
