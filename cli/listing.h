// Tables of the lists in a server's replies, and the parameters and errors that several commands share.
#pragma once

#include <json/value.h>

#include <span>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::cli {

// Like Text (cli/reply.h), but numbers have at most 3 decimals and no trailing zeros.
std::string ReadableText(const Json::Value& value);

struct Column {
  const char* label;
  const char* member;
  bool is_own_id = false;  // the object's own id: left out unless ids are shown
  bool is_age = false;     // left out while the output is watched, because it changes every time
};

// A table on standard output; elements that are not objects become empty rows.
enum class Ids { kHidden, kShown };
void PrintRows(const Json::Value& list, std::span<const Column> columns, Ids ids = Ids::kShown);

// The elements of an array as text (cli/reply.h), separated by commas; "" for anything else.
std::string JoinValues(const Json::Value& list);

// {"<name>": "<value>"}
std::string ParameterJson(const char* name, const std::string& value);

// kCorrupt: the server's reply lacks `what`.
Error MissingInReply(std::string_view what);
// kInvalid: `what` on the command line is empty or not UTF-8.
Error EmptyOrNotUtf8(std::string_view what);

}  // namespace vexa::cli
