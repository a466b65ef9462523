// A guest's settings as the text of `vexa guest edit`: lines of "name = value", values as JSON, comments after "#".
#pragma once

#include <json/value.h>

#include <string>

#include "host/base/guest_setting.h"
#include "host/base/result.h"

namespace vexa::cli {

// The settings (cli/guest_set_arguments.h) in the reply to "get", converted to the units of "set". A setting that is
// missing from the reply, or has another type there, is left out.
Json::Value SettingsOf(const Json::Value& guest);

// The text for them; missing settings become comments. `title` is part of the first line.
std::string SettingsText(const std::string& title, const Json::Value& settings);

// The value in the comment for a missing setting: its default for true or false, otherwise an empty string or 0.
const char* ExampleOf(const GuestSetting& setting);

// Parses such a text: the settings that it contains. kInvalid, with the line's number: a line that is neither a
// setting, a comment nor empty; an unknown name; a duplicate; a value that is not JSON or has another type.
Result<Json::Value> ParseSettings(const std::string& text);

// The members of `after` that differ from `before` or are missing there.
Json::Value ChangedSettings(const Json::Value& before, const Json::Value& after);

}  // namespace vexa::cli
