// Parses the arguments of `vexa import` for tests, with the options of the program.
#pragma once

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/import_command.h"

namespace vexa::cli {

inline Result<ImportArguments> ParseImportArguments(std::vector<std::string> arguments) {
  CLI::App app;
  RawImportArguments raw;
  RunFunction run;
  AddImportOptions(Command(app, run), raw);
  std::reverse(arguments.begin(), arguments.end());  // CLI::App::parse expects them in reverse order
  try {
    app.parse(arguments);
  } catch (const CLI::ParseError& error) {
    return Error(ErrorCode::kInvalid, error.what());
  }
  return ResolveImportArguments(raw);
}

}  // namespace vexa::cli
