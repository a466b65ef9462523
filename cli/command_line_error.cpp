// vexa error.
#include <CLI/CLI.hpp>
#include <memory>
#include <optional>

#include "cli/commands.h"
#include "cli/error_command.h"

namespace vexa::cli {

void AddErrorCommand(CLI::App& app, Invocation& invocation) {
  auto* error = app.add_subcommand("error", "Explain an error code of the API, or list all");
  auto code = std::make_shared<std::optional<int>>();
  error->add_option("CODE", *code, "The code");
  error->callback(
      [&invocation, code] { invocation.run = [&invocation, code] { return RunError(invocation.global, *code); }; });
}

}  // namespace vexa::cli
