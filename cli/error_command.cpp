#include "cli/error_command.h"

#include <fmt/format.h>

#include <iostream>

#include "cli/printable.h"
#include "host/base/error_table.h"

namespace vexa::cli {
namespace {

Json::Value AsJson(const ErrorRow& row) {
  Json::Value value;
  value["code"] = row.code;
  value["http_status"] = row.http_status;
  value["message"] = std::string(row.sentence);
  return value;
}

}  // namespace

ExitCode RunError(const GlobalOptions& global, std::optional<int> code) {
  if (code) {
    const ErrorRow* row = FindError(*code);
    if (!row) return Report(Error(ErrorCode::kNotFound, fmt::format("There is no error {}", *code)));
    if (global.json) return PrintJson(AsJson(*row));
    std::cout << "HTTP " << row->http_status << ": " << Printable(row->sentence) << '\n';
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
