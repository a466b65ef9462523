// A guest's settings as a text that people edit: "name = value" lines, values as JSON, comments after "#".
#pragma once

#include <json/value.h>

#include <string>

#include "host/base/result.h"

namespace vexa::cli {

// The settings (cli/guest_words.h) in the reply to "get", in the units of "set": what the text shows. A setting that is
// missing from the reply, or has another type there, is left out.
Json::Value SettingsOf(const Json::Value& guest);

// The text for them; missing settings become comments. `title` is part of the first line.
std::string SettingsText(const std::string& title, const Json::Value& settings);

// Parses such a text: the settings that it contains. kInvalid, with the line's number: a line that is neither a
// setting, a comment nor empty; an unknown name; a duplicate; a value that is not JSON or has another type.
Result<Json::Value> ParseSettings(const std::string& text);

// The members of `after` that differ from `before` or are missing there.
Json::Value ChangedSettings(const Json::Value& before, const Json::Value& after);

}  // namespace vexa::cli
