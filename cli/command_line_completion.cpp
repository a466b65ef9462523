// vexa completion.
#include <iostream>

#include "cli/commands.h"
#include "cli/completion.h"

namespace vexa::cli {

void AddCompletionCommands(const Command& app) {
  const Command completion = app.AddGroup("completion", "Print the script that completes command lines in a shell");
  completion.Footer(
      "\nNames of guests and other objects are completed, too, when the server answers within 2 s.\n\nExamples:\n"
      "  source <(vexa completion bash)\n  source <(vexa completion zsh)");
  completion.AddCommand("bash", "For bash").OnRun([](const GlobalOptions&) {
    std::cout << kBashCompletion;
    return ExitCode::kOk;
  });
  completion.AddCommand("zsh", "For zsh").OnRun([](const GlobalOptions&) {
    std::cout << kZshCompletion;
    return ExitCode::kOk;
  });
}

}  // namespace vexa::cli
