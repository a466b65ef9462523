// A guest's settings as a text that people edit: "name = value" lines, values as JSON, comments behind "#".
#pragma once

#include <json/value.h>

#include <string>

#include "host/base/result.h"

namespace vexa::cli {

// The settings (cli/guest_words.h) in the reply of "get", in the units of "set": what the text shows. A setting that
// the reply does not have, or not with its type, is left out.
Json::Value SettingsOf(const Json::Value& guest);

// The text for them; settings that are left out are comments. `title` is told in the first line.
std::string SettingsText(const std::string& title, const Json::Value& settings);

// Reads such a text: the settings that it has. kInvalid, with the line's number: a line that is neither a setting, a
// comment nor empty; an unknown name; one that is there twice; a value that is no JSON or of another type.
Result<Json::Value> ParseSettings(const std::string& text);

// The members of `after` that differ from `before` or are not there.
Json::Value ChangedSettings(const Json::Value& before, const Json::Value& after);

}  // namespace vexa::cli
