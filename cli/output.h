// The formats in which commands print data for programs: --output json, yaml and name.
#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

namespace vexa::cli {

enum class DataFormat { kJson, kYaml, kName };

// The format of PrintJson (cli/client_options.h); the command line sets it before a command runs. Threads: one.
void SetDataFormat(DataFormat format);
DataFormat CurrentDataFormat();

// `value` in the format, with line ends.
std::string RenderData(const Json::Value& value, DataFormat format);

// Block style, in ASCII only; strings that could be read as anything else are in double quotes.
std::string RenderYaml(const Json::Value& value);

// One printable line for each object in `value`, which is a list of them, or an object with one list of them, or a
// single object: its name, otherwise its id. Objects with neither have no line. Backslashes are not doubled, so that
// the name can be passed to another command.
std::string RenderNames(const Json::Value& value);

// Whether text on standard output may be coloured: a terminal, and no $NO_COLOR.
bool UsesColour();

}  // namespace vexa::cli
