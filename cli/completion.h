// Completion of the command line in bash and zsh.
//
// The shells' scripts ask `vexa __complete -- WORD... CURRENT` for the words that can stand in place of the last one.
// They come from the table of commands; names of guests, hosts and the like from the server, which has 2 s.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace vexa::cli {

inline constexpr std::string_view kCompleteWord = "__complete";

// Prints the words that begin with the last of `words`, one per line. Silent about every failure.
void PrintCompletions(const CLI::App& app, std::span<const std::string> words);

// Remembers the only values that an option can have. Threads: one.
void SetValuesOf(const CLI::Option& option, const std::vector<std::string_view>& values);

extern const char* const kBashCompletion;
extern const char* const kZshCompletion;

}  // namespace vexa::cli
