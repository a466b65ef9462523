// vexa error.
#include <memory>
#include <optional>

#include "cli/commands.h"
#include "cli/error_command.h"

namespace vexa::cli {

void AddErrorCommand(const Command& app) {
  const Command error = app.AddCommand("error", "Explain an error code of the API, or list all");
  const auto code = std::make_shared<std::optional<int>>();
  error.AddOption("CODE", *code, "The code");
  error.OnRun(code, RunError);
}

}  // namespace vexa::cli
