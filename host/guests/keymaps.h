// The keyboard layouts of the screens that QEMU on this machine provides.
// Threads: any, at the same time.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vexa::guests {

// The folders in which QEMU's packages have their keymaps.
std::vector<std::string> StandardKeymapFolders();

// The names in the first of the folders that has any: "de", "en-us", … Not set: none has any, so the layouts are
// unknown. Reads the file system.
std::optional<std::set<std::string>> FindKeymaps(const std::vector<std::string>& folders);

// Whether a guest can have the layout: "" and "Default" stand for QEMU's own.
bool HasKeymap(const std::set<std::string>& keymaps, const std::string& layout);

}  // namespace vexa::guests
