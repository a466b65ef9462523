// The keyboard layouts of guests' screens.
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <syslog.h>

#include "host/base/guest_settings.h"
#include "host/guests/guest_control_impl.h"
#include "host/guests/keymaps.h"
#include "host/records/keys.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {

// The hypervisor may be on another machine, and the test driver has no screens.
void LibvirtGuestControl::ReadKeymaps() {
  const bool is_here = IsEmbedded() || options_.hypervisor.mode.find(":///") != std::string::npos;
  std::optional<std::set<std::string>> keymaps;
  if (!options_.keymap_folders.empty()) {
    keymaps = FindKeymaps(options_.keymap_folders);
  } else if (is_here && !IsTestMode()) {
    keymaps = FindKeymaps(StandardKeymapFolders());
  }
  const MutexLock lock(node_info_mutex_);
  keymaps_ = std::move(keymaps);
}

std::optional<std::set<std::string>> LibvirtGuestControl::Keymaps() const {
  const MutexLock lock(node_info_mutex_);
  return keymaps_;
}

Result<void, Refusal> LibvirtGuestControl::CheckLayout(const std::string& layout) const {
  const auto keymaps = Keymaps();
  if (!keymaps || HasKeymap(*keymaps, layout)) return {};
  return Refusal{
      kBadEdit, fmt::format("The parameter 'kb_layout' is '{}', and QEMU on this host has only 'Default', '{}'", layout,
                            fmt::join(*keymaps, "', '"))};
}

// A layout that is missing here does not keep the guest from starting.
void LibvirtGuestControl::ReportLayout(const records::Guest& guest) const {
  const auto keymaps = Keymaps();
  const std::string layout = json::StringMember(guest.records.guest, keys::kb_layout);
  if (!keymaps || HasKeymap(*keymaps, layout) || !IsKeyboardLayout(layout)) return;
  ::syslog(
      LOG_WARNING,
      "The guest %s has the keyboard layout '%s', which QEMU on this host does not have. It gets QEMU's own layout",
      guest.records.id.c_str(), layout.c_str());
}

}  // namespace vexa::guests
