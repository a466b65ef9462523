#include "cli/listing.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>
#include <iostream>
#include <string>
#include <vector>

#include "cli/printable.h"
#include "cli/reply.h"
#include "cli/watch.h"
#include "json/readers.h"

namespace vexa::cli {
std::string ReadableText(const Json::Value& value) {
  if (value.type() != Json::realValue) return Text(value);
  // Above this, a double has no decimals, only meaningless digits.
  constexpr double kMax = 1e15;
  const double number = value.asDouble();
  std::array<char, 32> buffer{};
  if (!(std::abs(number) < kMax)) return {buffer.begin(), std::to_chars(buffer.begin(), buffer.end(), number).ptr};
  std::string text(buffer.begin(),
                   std::to_chars(buffer.begin(), buffer.end(), number, std::chars_format::fixed, 3).ptr);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text == "-0" ? "0" : text;
}

void PrintRows(const Json::Value& list, std::span<const Column> all_columns, Ids ids) {
  std::vector<Column> columns;
  for (const Column& column : all_columns) {
    const bool is_left_out = (column.is_own_id && ids == Ids::kHidden) || (column.is_age && IsWatching());
    if (!is_left_out) columns.push_back(column);
  }
  Table table;
  for (const Column& column : columns) table.header.emplace_back(column.label);
  for (const Json::Value& element : list) {
    auto& row = table.rows.emplace_back();
    for (const Column& column : columns) row.push_back(ReadableText(Member(element, column.member)));
  }
  PrintTable(std::cout, table);
}

std::string JoinValues(const Json::Value& list) {
  std::vector<std::string> values;
  for (const Json::Value& element : VexaVirtualization::json::Elements(list)) values.push_back(Text(element));
  return fmt::format("{}", fmt::join(values, ", "));
}

std::string ParameterJson(const char* name, const std::string& value) {
  Json::Value parameters(Json::objectValue);
  parameters[name] = value;
  return RenderJson(parameters, JsonLayout::kOneLine);
}

Error MissingInReply(std::string_view what) {
  return Error(ErrorCode::kCorrupt, fmt::format("The server's reply contains no {}", what));
}

Error EmptyOrNotUtf8(std::string_view what) {
  return Error(ErrorCode::kInvalid, fmt::format("The {} is empty or not valid UTF-8", what));
}

}  // namespace vexa::cli
