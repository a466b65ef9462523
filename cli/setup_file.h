// Changes of a configuration file that keep its comments and its other settings.
#pragma once

#include <string>
#include <vector>

#include "host/base/result.h"

namespace vexa::cli {

struct FileSetting {
  std::string name;
  std::string value;  // as text; WithSetting adds the quotes
};

// `text` with the setting: in place of its line, or else below the comment that shows it, or else at the end. Other
// lines with the setting are removed.
std::string WithSetting(const std::string& text, const FileSetting& setting);

// The value of the setting's line, without quotes; "" without one.
std::string SettingIn(const std::string& text, const std::string& name);

// Replaces the file atomically, after copying its old text to `path`.bak. Returns whether it changed. Both have the
// mode and the owners of the old file; a missing file is made with mode 0644. Errors: kInvalid, with a line for each
// reason, when the daemon would refuse the new configuration, or the old one where nothing changes; those of ReadFile
// and WriteFileAtomically.
Result<bool> ChangeSettings(const std::string& path, const std::vector<FileSetting>& settings);

}  // namespace vexa::cli
