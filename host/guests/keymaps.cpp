#include "host/guests/keymaps.h"

#include <filesystem>

#include "host/base/guest_settings.h"

namespace vexa::guests {
namespace {

namespace fs = std::filesystem;

// Parts of the others, in older versions.
bool IsPart(const std::string& name) { return name == "common" || name == "modifiers"; }

}  // namespace

std::vector<std::string> StandardKeymapFolders() {
  return {"/usr/share/qemu/keymaps", "/usr/local/share/qemu/keymaps", "/usr/share/qemu-kvm/keymaps"};
}

std::optional<std::set<std::string>> FindKeymaps(const std::vector<std::string>& folders) {
  for (const std::string& folder : folders) {
    std::set<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
      std::string name = entry->path().filename().string();
      if (IsKeyboardLayout(name) && !IsPart(name)) names.insert(std::move(name));
    }
    if (!names.empty()) return names;
  }
  return std::nullopt;
}

bool HasKeymap(const std::set<std::string>& keymaps, const std::string& layout) {
  return layout.empty() || layout == "Default" || keymaps.contains(layout);
}

}  // namespace vexa::guests
