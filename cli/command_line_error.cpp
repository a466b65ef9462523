// vexa error.
#include <memory>

#include "cli/commands.h"
#include "cli/error_command.h"

namespace vexa::cli {

void AddErrorCommand(const Command& app) {
  const Command error = app.AddCommand("error", "Explain an error code of the API, or list all");
  const auto options = std::make_shared<ErrorOptions>();
  error.AddOption("CODE", options->code, "The code");
  error.AddFlag("--markdown", options->is_markdown, "Print the page about all codes, docs/errors.md");
  error.OnRun(options, RunError);
}

}  // namespace vexa::cli
