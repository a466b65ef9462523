#include "cli/error_command.h"

#include <fmt/format.h>

#include <iostream>

#include "cli/printable.h"
#include "host/base/error_help.h"
#include "host/base/error_table.h"

namespace vexa::cli {
namespace {

Json::Value AsJson(const ErrorRow& row) {
  Json::Value value;
  value["code"] = row.code;
  value["http_status"] = row.http_status;
  value["message"] = std::string(row.sentence);
  value["hint"] = std::string(HintFor(row.code));
  value["causes"] = std::string(CausesOf(row.code));
  return value;
}

}  // namespace

ExitCode RunError(const GlobalOptions& global, const ErrorOptions& options) {
  if (options.is_markdown) {
    std::cout << ErrorPagesAsMarkdown();
    return ExitCode::kOk;
  }
  if (options.code) {
    const ErrorRow* row = FindError(*options.code);
    if (!row) return Report(Error(ErrorCode::kNotFound, fmt::format("There is no error {}", *options.code)));
    if (global.json) return PrintJson(AsJson(*row));
    std::cout << ErrorPage(*row);
    return ExitCode::kOk;
  }
  if (global.json) {
    Json::Value all(Json::arrayValue);
    for (const ErrorRow& row : ErrorTable()) all.append(AsJson(row));
    return PrintJson(all);
  }
  Table table{{"CODE", "HTTP", "MEANING"}, {}};
  for (const ErrorRow& row : ErrorTable()) {
    table.rows.push_back({std::to_string(row.code), std::to_string(row.http_status), std::string(row.sentence)});
  }
  PrintTable(std::cout, table);
  return ExitCode::kOk;
}

}  // namespace vexa::cli
