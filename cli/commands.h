// How commands put themselves on the command line. Only command_line*.cpp sees the parser's own header: it is large.
#pragma once

#include <functional>

#include "cli/client_options.h"

namespace CLI {
class App;
}

namespace vexa::cli {

// What the parsed command line asks for.
struct Invocation {
  GlobalOptions global;
  std::function<ExitCode()> run;
};

// Each adds its commands; when one of them is on the command line, it sets `invocation.run`. Both arguments outlive the
// parse and the run.
void AddClientCommands(CLI::App& app, Invocation& invocation);
// After AddClientCommands, whose "guest" it adds to.
void AddHostCommands(CLI::App& app, Invocation& invocation);
// After AddHostCommands: "guest recover" and "host forget".
void AddRecoveryCommands(CLI::App& app, Invocation& invocation);
// After AddClientCommands as well: the rest of "guest", and "log".
void AddActionCommands(CLI::App& app, Invocation& invocation);
// As well: "guest set" and "guest edit".
void AddEditCommands(CLI::App& app, Invocation& invocation);
void AddErrorCommand(CLI::App& app, Invocation& invocation);
void AddAccountCommands(CLI::App& app, Invocation& invocation);
void AddClusterCommands(CLI::App& app, Invocation& invocation);
void AddRepositoryCommands(CLI::App& app, Invocation& invocation);
void AddImageCommands(CLI::App& app, Invocation& invocation);
void AddImportCommand(CLI::App& app, Invocation& invocation);

// The options of `vexa import` alone, which fill `words`.
struct ImportWords;
void AddImportOptions(CLI::App& import, ImportWords& words);

}  // namespace vexa::cli
