#include "cli/listing.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <iostream>
#include <string>
#include <vector>

#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/uuid.h"

namespace vexa::cli {
namespace {

// Limit for ids in a message.
constexpr std::size_t kMaxShownIds = 20;

}  // namespace

std::string Shown(const Json::Value& value) {
  if (value.type() != Json::realValue) return Text(value);
  // Above this, a double has no decimals, only meaningless digits.
  constexpr double kMax = 1e15;
  const double number = value.asDouble();
  std::array<char, 32> room{};
  if (!(std::abs(number) < kMax)) return {room.begin(), std::to_chars(room.begin(), room.end(), number).ptr};
  std::string text(room.begin(), std::to_chars(room.begin(), room.end(), number, std::chars_format::fixed, 3).ptr);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text == "-0" ? "0" : text;
}

void PrintRows(const Json::Value& list, std::span<const Column> columns) {
  Table table;
  for (const Column& column : columns) table.head.emplace_back(column.label);
  for (const Json::Value& element : list) {
    auto& row = table.rows.emplace_back();
    for (const Column& column : columns) row.push_back(Shown(Member(element, column.member)));
  }
  PrintTable(std::cout, table);
}

Result<std::string> FindByName(const Json::Value& list, const Naming& naming, const std::string& name) {
  const std::string kind = naming.kind;
  std::vector<std::string> ids;
  for (const Json::Value& element : list) {
    if (Text(Member(element, naming.name)) == name) ids.push_back(Text(Member(element, naming.id)));
  }
  if (ids.size() > 1) {
    std::string shown;
    for (std::size_t i = 0; i < ids.size() && i < kMaxShownIds; ++i) shown += (i == 0 ? "" : ", ") + ids[i];
    if (ids.size() > kMaxShownIds) shown += ", …";
    const std::string kinds = naming.kinds ? naming.kinds : kind + "s";
    return Error(ErrorCode::kConflict, "Several " + kinds + " are called '" + name + "': give the id, one of " + shown);
  }
  if (ids.empty()) {
    return Error(ErrorCode::kNotFound, "There is no " + kind + " called '" + name + "'; see 'vexa " + kind + " list'");
  }
  return ids.front();
}

Result<std::string> FindByIdOrName(const Json::Value& list, const Naming& naming, const std::string& word) {
  const auto has_id = [&](const Json::Value& element) { return Text(Member(element, naming.id)) == word; };
  if (std::any_of(list.begin(), list.end(), has_id)) return word;
  Result<std::string> found = FindByName(list, naming, word);
  if (!found && found.error().code() == ErrorCode::kNotFound && IsUuidForm(word)) return word;
  return found;
}

std::string OneParameter(const char* name, const std::string& value) {
  Json::Value parameters(Json::objectValue);
  parameters[name] = value;
  return RenderJson(parameters, JsonLayout::kOneLine);
}

Error NotUnderstood(const char* what) {
  return Error(ErrorCode::kCorrupt, std::string("The server's reply contains no ") + what);
}

Error NotText(const char* what) {
  return Error(ErrorCode::kInvalid, std::string("The ") + what + " is empty or not valid UTF-8");
}

}  // namespace vexa::cli
