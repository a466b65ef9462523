// The command line of `vexa import` for tests: the words behind "import", as the real options read them.
#pragma once

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/import_command.h"

namespace vexa::cli {

inline Result<ImportArguments> ParseImportArguments(std::vector<std::string> words) {
  CLI::App app;
  ImportWords parsed;
  AddImportOptions(app, parsed);
  std::reverse(words.begin(), words.end());  // as CLI::App::parse takes them
  try {
    app.parse(words);
  } catch (const CLI::ParseError& error) {
    return Error(ErrorCode::kInvalid, error.what());
  }
  return ResolveImportArguments(parsed);
}

}  // namespace vexa::cli
