// The sentence for a command line that cannot be parsed.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace vexa::cli {

// Two printable lines with line ends: what is wrong, with the nearest known word, and the command that lists all.
std::string ParseFailureText(const CLI::App& app, const CLI::ParseError& error);

// "; did you mean 'start'?" for the one of `known` that is similar to `word`; "" when none is.
std::string DidYouMean(std::string_view word, std::span<const std::string_view> known);

// "'of' is not a value of --placement; did you mean 'off'? Use on or off"
std::string UnknownValueText(std::string_view value, std::string_view option, std::span<const std::string_view> known);

}  // namespace vexa::cli
