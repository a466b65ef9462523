#include "host/daemon/config_refusal.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <fstream>
#include <system_error>
#include <utility>

#include "host/base/nearest_name.h"

namespace vexa::daemon {
namespace {

// A setting with its values, as the command line or the file has it.
struct Setting {
  std::string name;
  std::vector<std::string> values;
  bool is_flag = false;  // of the command line

  std::string Text() const { return fmt::format("{}", fmt::join(values, ", ")); }
  std::vector<std::string> AsArguments() const {
    if (values.empty()) return {"--" + name};
    std::vector<std::string> arguments;
    for (const std::string& value : values) {
      arguments.push_back(value.empty() ? "--" + name : fmt::format("--{}={}", name, value));
      if (value.empty()) arguments.push_back(value);
    }
    return arguments;
  }
};

const CLI::Option* FindOption(const CLI::App& app, const std::string& name) {
  return app.get_option_no_throw("--" + name);
}

std::string NearestSetting(const CLI::App& app, const Setting& setting) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options()) {
    if (!setting.is_flag && !option->get_configurable()) continue;
    names.insert(names.end(), option->get_lnames().begin(), option->get_lnames().end());
  }
  const std::vector<std::string_view> known(names.begin(), names.end());
  return std::string(NearestName(setting.name, known));
}

// The parser's message without the name of the flag, which it begins with.
std::string WithoutName(const std::string& message, const std::string& name) {
  const std::string start = fmt::format("--{}: ", name);
  const std::string text = message.starts_with(start) ? message.substr(start.size()) : message;
  const std::size_t end = text.find_last_not_of(" .\n");
  return end == std::string::npos ? text : text.substr(0, end + 1);
}

// Arguments in the order of the parser, which takes a vector from its end.
std::vector<std::string> Reversed(std::vector<std::string> arguments) {
  std::reverse(arguments.begin(), arguments.end());
  return arguments;
}

class Explanation {
 public:
  void Check(const Setting& setting) {
    CommandLine scratch;
    CLI::App app;
    AddSettings(app, scratch);
    if (const CLI::Option* const option = FindOption(app, setting.name); !option) {
      AddUnknown(app, setting);
    } else if (!setting.is_flag && !option->get_configurable()) {
      Add(setting, fmt::format("'{}' is a flag for one start", setting.name),
          fmt::format("Remove it here, and use 'vexad --{}' once", setting.name));
    } else if (IsRelativePathInFile(setting)) {
      Add(setting, fmt::format("'{}' is not an absolute path", setting.Text()), "Begin it with '/'");
    } else {
      CheckValue(app, setting);
    }
  }

  void Add(const Setting& setting, std::string problem, std::string help) {
    refusal_.doubtful.insert(setting.name);
    refusal_.problems.push_back(
        {(setting.is_flag ? "--" : "") + setting.name, setting.Text(), std::move(problem), std::move(help)});
  }

  // Reads the settings that are right. Flags override the file.
  ConfigRefusal Finish() {
    std::set<std::string> flags;
    for (const Setting& setting : usable_) {
      if (setting.is_flag) flags.insert(setting.name);
    }
    std::vector<std::string> arguments;
    for (const Setting& setting : usable_) {
      if (!setting.is_flag && flags.contains(setting.name)) continue;
      const std::vector<std::string> added = setting.AsArguments();
      arguments.insert(arguments.end(), added.begin(), added.end());
      if (setting.name == "calls-per-host") refusal_.has_calls_per_host = true;
    }
    CLI::App app;
    AddSettings(app, refusal_.usable);
    try {
      app.parse(Reversed(std::move(arguments)));
    } catch (const CLI::ParseError& error) {
      // Each by itself is right, so one is there twice.
      const std::string message = error.what();
      const std::string name = message.starts_with("--") ? message.substr(2, message.find(':') - 2) : "settings";
      refusal_.doubtful.insert(name);
      refusal_.problems.push_back({name, "", WithoutName(message, name), "Set it once"});
    }
    return std::move(refusal_);
  }

 private:
  static bool IsRelativePathInFile(const Setting& setting) {
    const bool is_path = setting.name == "data" || setting.name == "store" || setting.name == "account-file";
    const std::string value = setting.values.empty() ? "" : setting.values.front();
    return is_path && !setting.is_flag && !value.empty() && value.front() != '/';
  }

  void AddUnknown(const CLI::App& app, const Setting& setting) {
    const std::string nearest = NearestSetting(app, setting);
    if (!nearest.empty()) refusal_.doubtful.insert(nearest);
    Add(setting, fmt::format("There is no setting '{}'", setting.name),
        nearest.empty() ? "'vexad --help' lists the settings" : fmt::format("Did you mean '{}'?", nearest));
  }

  void CheckValue(CLI::App& app, const Setting& setting) {
    try {
      app.parse(Reversed(setting.AsArguments()));
      usable_.push_back(setting);
    } catch (const CLI::ParseError& error) {
      Add(setting, WithoutName(error.what(), setting.name), fmt::format("'vexad --help' explains '{}'", setting.name));
    }
  }

  ConfigRefusal refusal_;
  std::vector<Setting> usable_;
};

// The flags with the values that follow them. A value before the first flag has no name.
std::vector<Setting> SplitArguments(const std::vector<std::string>& arguments) {
  std::vector<Setting> settings;
  for (const std::string& argument : arguments) {
    if (!argument.starts_with("--")) {
      if (settings.empty()) settings.push_back({"", {}, true});
      settings.back().values.push_back(argument);
      continue;
    }
    const std::size_t equals = argument.find('=');
    Setting setting{argument.substr(2, equals == std::string::npos ? equals : equals - 2), {}, true};
    if (equals != std::string::npos) setting.values.push_back(argument.substr(equals + 1));
    // A list may name its flag for each of its values.
    const auto found = std::find_if(settings.begin(), settings.end(),
                                    [&setting](const Setting& other) { return other.name == setting.name; });
    if (found == settings.end() || setting.values.empty()) {
      settings.push_back(std::move(setting));
    } else {
      found->values.insert(found->values.end(), setting.values.begin(), setting.values.end());
    }
  }
  return settings;
}

std::string FileOf(const std::vector<Setting>& flags, const std::string& default_file) {
  for (const Setting& flag : flags) {
    if (flag.name == "config" && !flag.values.empty()) return flag.values.back();
  }
  return default_file;
}

void CheckFile(const std::string& path, Explanation& explanation) {
  std::ifstream file(path);
  if (!file) return;
  std::vector<CLI::ConfigItem> items;
  try {
    items = CLI::ConfigTOML().from_config(file);
  } catch (const CLI::ParseError& error) {
    explanation.Add({"config", {path}, true}, WithoutName(error.what(), "config"), "Write one 'name = value' a line");
    return;
  }
  std::set<std::string> sections;
  for (const CLI::ConfigItem& item : items) {
    if (item.parents.empty()) {
      explanation.Check({item.name, item.inputs, false});
    } else if (sections.insert(item.parents.front()).second) {
      explanation.Add({fmt::format("[{}]", item.parents.front()), {}, false}, "The file has no sections",
                      "Remove this line and the settings below it that do not exist");
    }
  }
}

}  // namespace

ConfigRefusal ExplainRefusal(const std::vector<std::string>& arguments, const std::string& default_file) {
  const std::vector<Setting> flags = SplitArguments(arguments);
  const std::string file = FileOf(flags, default_file);
  Explanation explanation;
  for (const Setting& flag : flags) {
    if (flag.name.empty()) {
      explanation.Add(flag, fmt::format("'{}' is not a setting", flag.Text()), "Settings begin with '--'");
    } else if (flag.name != "config") {
      explanation.Check(flag);
    } else if (flag.values.empty()) {
      explanation.Add(flag, "The name of the file is missing", "Name the configuration file");
    } else if (!std::ifstream(file)) {
      explanation.Add(flag, fmt::format("The file cannot be read: {}", std::generic_category().message(errno)),
                      "Name a file that exists, and that this account may read");
    }
  }
  CheckFile(file, explanation);
  return explanation.Finish();
}

std::optional<ConfigRefusal> FindUnreadableFile(const std::vector<std::string>& arguments,
                                                const std::string& default_file) {
  const std::string file = FileOf(SplitArguments(arguments), default_file);
  if (std::ifstream(file) || errno == ENOENT || errno == ENOTDIR) return std::nullopt;
  ConfigRefusal refusal = ExplainRefusal(arguments, default_file);
  if (file == default_file) {
    refusal.problems.push_back({"--config", file,
                                fmt::format("The file cannot be read: {}", std::generic_category().message(errno)),
                                "Run the command as an account that may read it, or name another file"});
  }
  return refusal;
}

}  // namespace vexa::daemon
