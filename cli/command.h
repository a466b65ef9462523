// Commands and options of the command line. These classes hide the parser, because its header is large: only
// command.cpp and command_line.cpp include it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cli/client_options.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace vexa::cli {

// Refers to an option or argument of a command. Valid as long as the parser exists.
class Option {
 public:
  explicit Option(CLI::Option& option) : option_(&option) {}

  Option& Required();
  // The name of the value in the help, such as "PATH".
  Option& Placeholder(const char* name);
  Option& InRange(int first, int last);
  // Any other value is refused with the nearest of these, which must outlive the parser.
  Option& OneOf(std::vector<std::string_view> values);
  Option& Excludes(const Option& other);
  // For a list: the option is repeated for each value. Otherwise, an argument after it would count as another value.
  Option& TakesOneValue();

  // Whether the command line contains it. Call it after the parse.
  bool IsGiven() const;

 private:
  CLI::Option* option_;
};

using RunFunction = std::function<ExitCode(const GlobalOptions& global)>;

// Refers to a command, or to the program itself. Valid as long as the parser exists.
class Command {
 public:
  // The parse stores the function of the chosen command in `run`, which must outlive the parse.
  Command(CLI::App& app, RunFunction& run) : app_(&app), run_(&run) {}

  Command AddCommand(const char* name, const char* help) const;
  // A command that is only used with one of its subcommands.
  Command AddGroup(const char* name, const char* help) const;
  // A group that has been added before.
  Command Group(const char* name) const;

  // Shown at the end of the help, and of the help of all commands added later.
  void Footer(const std::string& text) const;

  // A name with dashes is an option, any other an argument. `value` is set by the parse, and must outlive it;
  // command.cpp lists the types that it can have.
  template <class Value>
  Option AddOption(const std::string& name, Value& value, const std::string& help) const;
  // An option without a value.
  Option AddFlag(const char* name, bool& value, const char* help) const;
  Option AddFlag(const char* name, std::function<void()> on_use, const char* help) const;

  void OnRun(RunFunction run) const;
  // The same for a function that also takes the command's options.
  template <class Options, class Run>
  void OnRun(const std::shared_ptr<Options>& options, Run run) const {
    OnRun([options, run](const GlobalOptions& global) { return run(global, *options); });
  }
  // The same for a command that only shows something: it also has the option --watch.
  void OnRunOrWatch(RunFunction run) const;
  template <class Options, class Run>
  void OnRunOrWatch(const std::shared_ptr<Options>& options, Run run) const {
    OnRunOrWatch([options, run](const GlobalOptions& global) { return run(global, *options); });
  }

 private:
  CLI::App* app_;
  RunFunction* run_;
};

}  // namespace vexa::cli
