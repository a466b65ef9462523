#include "cli/command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "cli/completion.h"
#include "cli/parse_failure.h"
#include "cli/watch.h"

namespace vexa::cli {

Option& Option::Required() {
  option_->required();
  return *this;
}

Option& Option::Placeholder(const char* name) {
  option_->type_name(name);
  return *this;
}

Option& Option::InRange(int first, int last) {
  option_->check(CLI::Range(first, last));
  return *this;
}

Option& Option::OneOf(std::vector<std::string_view> values) {
  SetValuesOf(*option_, values);
  const auto check = [name = option_->get_name(), values = std::move(values)](const std::string& value) -> std::string {
    return std::ranges::find(values, value) != values.end() ? "" : UnknownValueText(value, name, values);
  };
  option_->check(check);
  return *this;
}

Option& Option::Excludes(const Option& other) {
  option_->excludes(other.option_);
  return *this;
}

Option& Option::TakesOneValue() {
  option_->allow_extra_args(false);
  return *this;
}

bool Option::IsGiven() const { return option_->count() > 0; }

Command Command::AddCommand(const char* name, const char* help) const {
  return {*app_->add_subcommand(name, help), *run_};
}

Command Command::AddGroup(const char* name, const char* help) const {
  CLI::App* const group = app_->add_subcommand(name, help);
  group->require_subcommand(1);
  return {*group, *run_};
}

Command Command::Group(const char* name) const { return {*app_->get_subcommand(name), *run_}; }

void Command::Footer(const std::string& text) const { app_->footer(text); }

template <class Value>
Option Command::AddOption(const std::string& name, Value& value, const std::string& help) const {
  return Option(*app_->add_option(name, value, help));
}

template Option Command::AddOption(const std::string&, int&, const std::string&) const;
template Option Command::AddOption(const std::string&, std::size_t&, const std::string&) const;
template Option Command::AddOption(const std::string&, std::string&, const std::string&) const;
template Option Command::AddOption(const std::string&, std::optional<int>&, const std::string&) const;
template Option Command::AddOption(const std::string&, std::optional<std::string>&, const std::string&) const;
template Option Command::AddOption(const std::string&, std::optional<std::uint32_t>&, const std::string&) const;
template Option Command::AddOption(const std::string&, std::vector<std::string>&, const std::string&) const;

Option Command::AddFlag(const char* name, bool& value, const char* help) const {
  return Option(*app_->add_flag(name, value, help));
}

Option Command::AddFlag(const char* name, std::function<void()> on_use, const char* help) const {
  return Option(*app_->add_flag_callback(name, std::move(on_use), help));
}

void Command::OnRun(RunFunction run) const {
  app_->callback([target = run_, run = std::move(run)] { *target = run; });
}

void Command::OnRunOrWatch(RunFunction run) const {
  const auto seconds = std::make_shared<std::optional<int>>();
  AddOption("--watch", *seconds, "Repeat the command, and show what has changed (default: every 2 s)")
      .Placeholder("SECONDS")
      .InRange(1, 86'400);
  OnRun([seconds, run = std::move(run)](const GlobalOptions& global) {
    return *seconds ? Watch(global, std::chrono::seconds(**seconds), run) : run(global);
  });
}

}  // namespace vexa::cli
