#include "cli/parse_failure.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <vector>

#include "cli/printable.h"
#include "host/base/nearest_name.h"

namespace vexa::cli {
namespace {

// The command that the command line names, as far as it is known.
struct Reached {
  const CLI::App* command;
  std::string path;
};

Reached ReachedCommand(const CLI::App& app) {
  Reached reached{&app, "vexa"};
  for (auto given = app.get_subcommands(); !given.empty(); given = reached.command->get_subcommands()) {
    reached.command = given.front();
    reached.path += " " + reached.command->get_name();
  }
  return reached;
}

std::vector<const CLI::App*> CommandsOf(const CLI::App& group) { return group.get_subcommands({}); }

// "; did you mean 'vexa guest start'?" for `vexa start`: a word that is missing before a command is more likely than a
// wrong letter.
std::string NearestCommand(const Reached& group, const std::string& word) {
  for (const CLI::App* child : CommandsOf(*group.command)) {
    for (const CLI::App* grandchild : CommandsOf(*child)) {
      if (grandchild->get_name() != word || child->get_name() != "guest") continue;
      return fmt::format("; did you mean '{} {} {}'?", group.path, child->get_name(), word);
    }
  }
  std::vector<std::string> words;
  for (const CLI::App* child : CommandsOf(*group.command)) words.push_back(child->get_name());
  const std::vector<std::string_view> names(words.begin(), words.end());
  const std::string_view nearest = NearestName(word, names);
  return nearest.empty() ? std::string() : fmt::format("; did you mean '{} {}'?", group.path, nearest);
}

// Of the command and of all above it, whose options it takes as well.
std::string NearestOption(const CLI::App& command, const std::string& word) {
  std::vector<std::string> options;
  for (const CLI::App* app = &command; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      for (const std::string& name : option->get_lnames()) options.push_back(name);
    }
  }
  const std::vector<std::string_view> names(options.begin(), options.end());
  // The dashes, which all have in common, would make short ones look alike.
  const std::string_view nearest = NearestName(word.substr(std::min(word.find_first_not_of('-'), word.size())), names);
  return nearest.empty() ? std::string() : fmt::format("; did you mean '--{}'?", nearest);
}

// The parser's sentence. It puts the option's name before ours, which contain it already.
std::string SentenceOf(const CLI::ParseError& error) {
  const std::string sentence = error.what();
  const std::string name = sentence.substr(0, sentence.find(": "));
  const bool is_twice = sentence.find("' is not a value of " + name) != std::string::npos;
  return is_twice ? sentence.substr(name.size() + 2) : sentence;
}

}  // namespace

std::string ParseFailureText(const CLI::App& app, const CLI::ParseError& error) {
  const Reached reached = ReachedCommand(app);
  const bool is_group = reached.command->get_require_subcommand_min() > 0;
  const std::vector<std::string> unknown = app.remaining(true);
  const auto option = std::ranges::find_if(unknown, [](const auto& word) { return word.starts_with('-'); });
  std::string sentence = SentenceOf(error);
  std::string advice = fmt::format("Try '{} --help'.", reached.path);
  if (is_group && !unknown.empty() && option != unknown.begin()) {
    const std::string& word = unknown.front();
    sentence = fmt::format("There is no command '{} {}'{}", reached.path, word, NearestCommand(reached, word));
    advice = fmt::format("'{} --help' lists the commands.", reached.path);
  } else if (option != unknown.end()) {
    const std::string word = option->substr(0, option->find('='));
    sentence =
        fmt::format("There is no option '{}' of '{}'{}", word, reached.path, NearestOption(*reached.command, word));
    advice = fmt::format("'{} --help' lists the options.", reached.path);
  } else if (is_group && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
    sentence = fmt::format("'{}' needs a command", reached.path);
  } else if (!unknown.empty()) {
    sentence = fmt::format("'{}' does not take the argument '{}'", reached.path, unknown.front());
  }
  return fmt::format("vexa: {}\n{}\n", Printable(sentence), Printable(advice));
}

}  // namespace vexa::cli
