#include "cli/completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstddef>
#include <iostream>
#include <map>
#include <optional>

#include "cli/client_options.h"
#include "cli/contexts.h"
#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"

namespace vexa::cli {

const char* const kBashCompletion = R"sh(# Completion of vexa in bash. Load it with: source <(vexa completion bash)
_vexa() {
  local word
  COMPREPLY=()
  while IFS= read -r word; do
    COMPREPLY+=("$(printf %q "$word")")
  done < <(vexa __complete -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -F _vexa vexa
)sh";

const char* const kZshCompletion = R"sh(#compdef vexa
# Completion of vexa in zsh. Load it with: source <(vexa completion zsh)
_vexa() {
  local -a found
  found=("${(@f)$(vexa __complete -- "${(@)words[2,CURRENT]}" 2>/dev/null)}")
  found=(${found:#})
  (( ${#found} )) && compadd -a found
}
if [ "$funcstack[1]" = "_vexa" ]; then
  _vexa "$@"
else
  compdef _vexa vexa
fi
)sh";

namespace {

std::map<const CLI::Option*, std::vector<std::string>>& KnownValues() {
  static std::map<const CLI::Option*, std::vector<std::string>> values;
  return values;
}

// What the words before the last one mean.
struct Position {
  const CLI::App* command;
  const CLI::Option* awaiting = nullptr;  // the option whose value is the last word
  std::size_t arguments = 0;              // of the command, so far
  GlobalOptions global{};
};

const CLI::Option* FindOption(const CLI::App* command, const std::string& word) {
  for (; command != nullptr; command = command->get_parent()) {
    if (const CLI::Option* const option = command->get_option_no_throw(word)) return option;
  }
  return nullptr;
}

const CLI::App* FindCommand(const CLI::App& group, const std::string& word) {
  const auto commands = group.get_subcommands([&](const CLI::App* command) { return command->get_name() == word; });
  return commands.empty() ? nullptr : commands.front();
}

bool TakesValue(const CLI::Option& option) { return option.get_items_expected_max() > 0; }

void ReadGlobalOption(const std::string& name, const std::string& value, GlobalOptions& global) {
  const std::pair<const char*, std::string*> options[] = {{"--server", &global.server},
                                                          {"--socket", &global.socket},
                                                          {"--context", &global.context},
                                                          {"--token-file", &global.token_file},
                                                          {"--ca-file", &global.ca_file}};
  for (const auto& [option, member] : options) {
    if (name == option) *member = value;
  }
}

Position PositionAfter(const CLI::App& app, std::span<const std::string> words) {
  Position position{.command = &app};
  std::string option_name;
  for (const std::string& word : words) {
    if (word == "=") continue;  // bash splits --os=linux
    if (position.awaiting != nullptr) {
      ReadGlobalOption(option_name, word, position.global);
      position.awaiting = nullptr;
    } else if (word.starts_with('-') && word.size() > 1) {
      option_name = word.substr(0, word.find('='));
      const CLI::Option* const option = FindOption(position.command, option_name);
      const bool has_value = word.find('=') != std::string::npos;
      if (option != nullptr && TakesValue(*option) && !has_value) position.awaiting = option;
      if (has_value) ReadGlobalOption(option_name, word.substr(word.find('=') + 1), position.global);
    } else if (const CLI::App* const command = FindCommand(*position.command, word)) {
      position.command = command;
      position.arguments = 0;
    } else {
      ++position.arguments;
    }
  }
  return position;
}

std::vector<std::string> ContextNames() {
  std::vector<std::string> names;
  const Result<Contexts> contexts = LoadContexts();
  if (!contexts) return names;
  for (const auto& [name, context] : contexts->all) names.push_back(name);
  return names;
}

std::vector<std::string> NamesOf(GlobalOptions global, const ObjectKind& kind) {
  global.timeout_s = 2;
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return {};
  HttpClient client(*connect);
  const CallOutcome listed = TryApi(client, kind.list_path, "{}");
  std::vector<std::string> names;
  for (const Json::Value& object : VexaVirtualization::json::Elements(Member(listed.data, kind.plural))) {
    names.push_back(Text(Member(object, kind.name)));
  }
  return names;
}

// The values of an option or argument with this placeholder, such as "GUEST".
std::vector<std::string> ValuesFor(const CLI::Option& option, const GlobalOptions& global) {
  if (const auto known = KnownValues().find(&option); known != KnownValues().end()) return known->second;
  const std::string placeholder = option.get_positional() ? option.get_name() : option.get_type_name();
  if (placeholder == "CONTEXT" || option.check_lname("context")) return ContextNames();
  const std::pair<const char*, const ObjectKind*> kinds[] = {{"GUEST", &kGuests},
                                                             {"HOST", &kHosts},
                                                             {"NETWORK", &kNetworks},
                                                             {"IMAGE", &kImages},
                                                             {"REPOSITORY", &kRepositories},
                                                             {"UPLOAD", &kUploads}};
  for (const auto& [name, kind] : kinds) {
    if (placeholder == name) return NamesOf(global, *kind);
  }
  return {};
}

std::vector<std::string> OptionNames(const CLI::App* command) {
  std::vector<std::string> names;
  for (; command != nullptr; command = command->get_parent()) {
    for (const CLI::Option* option : command->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
  }
  return names;
}

// The argument that the next word is for; null when the command takes no more.
const CLI::Option* NextArgument(const Position& position) {
  const CLI::Option* last = nullptr;
  std::size_t index = 0;
  for (const CLI::Option* option : position.command->get_options()) {
    if (!option->get_positional()) continue;
    last = option;
    if (index++ == position.arguments) return option;
  }
  return last != nullptr && last->get_items_expected_max() > 1 ? last : nullptr;
}

std::vector<std::string> Candidates(const Position& position, const std::string& current) {
  if (position.awaiting != nullptr) return ValuesFor(*position.awaiting, position.global);
  if (current.starts_with('-')) return OptionNames(position.command);
  std::vector<std::string> names;
  for (const CLI::App* command : position.command->get_subcommands([](const CLI::App*) { return true; })) {
    names.push_back(command->get_name());
  }
  if (!names.empty()) return names;
  const CLI::Option* const argument = NextArgument(position);
  return argument != nullptr ? ValuesFor(*argument, position.global) : names;
}

}  // namespace

void SetValuesOf(const CLI::Option& option, const std::vector<std::string_view>& values) {
  KnownValues()[&option].assign(values.begin(), values.end());
}

void PrintCompletions(const CLI::App& app, std::span<const std::string> words) {
  if (words.empty()) return;
  const std::string current = words.back() == "=" ? "" : words.back();
  std::vector<std::string> candidates = Candidates(PositionAfter(app, words.first(words.size() - 1)), current);
  std::ranges::sort(candidates);
  candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
  for (const std::string& candidate : candidates) {
    // A name with control characters would do more than complete the line.
    if (candidate.starts_with(current) && Printable(candidate) == candidate) std::cout << candidate << '\n';
  }
}

}  // namespace vexa::cli
