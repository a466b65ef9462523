#include "cli/setup_file.h"

#include <fmt/format.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

#include "host/base/files.h"
#include "host/daemon/config.h"

namespace vexa::cli {
namespace {

constexpr std::size_t kMaxBytes = 1024 * 1024;
constexpr mode_t kMode = 0644;

std::vector<std::string> LinesOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string Trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// Whether the line sets `name`; with `prefix` "#", whether it is a comment that shows how.
bool Sets(const std::string& line, const std::string& name, const std::string& prefix = "") {
  const std::string text = Trimmed(line);
  if (!text.starts_with(prefix + name)) return false;
  return Trimmed(text.substr(prefix.size() + name.size())).starts_with('=');
}

// Writes a file with the mode and the owners of another one, which may be missing: the service may read its
// configuration as a member of its group.
Status WriteLike(const std::string& other, const std::string& path, const std::string& text) {
  struct stat info {};
  const bool has_other = ::stat(other.c_str(), &info) == 0;
  if (Status written = WriteFileAtomically(path, text, has_other ? info.st_mode & 0777 : kMode); !written) {
    return written;
  }
  if (!has_other || ::lchown(path.c_str(), info.st_uid, info.st_gid) == 0) return {};
  return SystemError(ErrorCode::kDenied, fmt::format("Cannot write '{}'", path), errno);
}

// What the daemon would say about the file; empty when it accepts it.
std::string ReasonsAgainst(const std::string& path) {
  const char* const arguments[] = {"vexad", "--config", path.c_str()};
  const daemon::CommandLine command = daemon::ParseCommandLine(3, arguments);
  if (command.action == daemon::CommandLine::Action::kExit) return "The lines above are wrong";
  std::string reasons;
  for (const daemon::ConfigProblem& problem : daemon::CheckConfig(command.config)) {
    reasons += (reasons.empty() ? "" : "\n") + daemon::ToLine(problem);
  }
  return reasons;
}

}  // namespace

std::string WithSetting(const std::string& text, const FileSetting& setting) {
  const std::string line = fmt::format("{} = \"{}\"", setting.name, setting.value);
  std::vector<std::string> lines = LinesOf(text);
  std::vector<std::string> result;
  bool is_set = false;
  for (const std::string& old : lines) {
    if (!Sets(old, setting.name)) {
      result.push_back(old);
    } else if (!is_set) {
      result.push_back(line);
      is_set = true;
    }
  }
  if (!is_set) {
    std::size_t place = result.size();
    for (std::size_t i = 0; i < result.size() && place == result.size(); ++i) {
      if (Sets(result[i], setting.name, "#")) place = i + 1;
    }
    result.insert(result.begin() + static_cast<std::ptrdiff_t>(place), line);
  }
  std::string joined;
  for (const std::string& one : result) joined += one + "\n";
  return joined;
}

std::string SettingIn(const std::string& text, const std::string& name) {
  for (const std::string& line : LinesOf(text)) {
    if (!Sets(line, name)) continue;
    std::string value = Trimmed(line.substr(line.find('=') + 1));
    if (value.size() > 1 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
    return value;
  }
  return "";
}

Result<bool> ChangeSettings(const std::string& path, const std::vector<FileSetting>& settings) {
  const Result<std::string> old = ReadFile(path, kMaxBytes);
  if (!old && old.error().code() != ErrorCode::kNotFound) return old.error();
  std::string text = old ? *old : "";
  for (const FileSetting& setting : settings) {
    if (setting.value.find_first_of("\"\\\n") != std::string::npos) {
      return Error(ErrorCode::kInvalid, fmt::format("'{}' cannot be the value of '{}'", setting.value, setting.name));
    }
    if (SettingIn(text, setting.name) != setting.value) text = WithSetting(text, setting);
  }
  // The new text is checked before the daemon can read it, and the old one where nothing changes.
  const std::string draft = path + ".new";
  const Status drafted = WriteLike(path, draft, text);
  if (!drafted) return drafted.error();
  const std::string reasons = ReasonsAgainst(draft);
  const bool is_same = old && text == *old;
  Status written = !reasons.empty() ? Error(ErrorCode::kInvalid, reasons) : Status();
  if (written && old && !is_same) written = WriteLike(path, path + ".bak", *old);
  if (written && !is_same && ::rename(draft.c_str(), path.c_str()) != 0) {
    written = SystemError(ErrorCode::kDenied, fmt::format("Cannot write '{}'", path), errno);
  }
  (void)::unlink(draft.c_str());
  if (!written) return written.error();
  return !is_same;
}

}  // namespace vexa::cli
