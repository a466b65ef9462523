// What becomes of the elements that have no place in records: they are kept, unless a row says more.
#include <algorithm>
#include <array>

#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml::parse {
namespace {

constexpr std::size_t kMaxElements = 100;
constexpr std::string_view kKept = "kept";

bool Always(pugi::xml_node /*element*/) { return true; }
bool Is(pugi::xml_node element, const char* attribute, std::string_view value) {
  return element.attribute(attribute).value() == value;
}
bool IsVnc(pugi::xml_node element) { return Is(element, "type", "vnc"); }
bool IsVncWithPassword(pugi::xml_node element) { return IsVnc(element) && element.attribute("passwd"); }
bool IsUsb(pugi::xml_node element) { return Is(element, "type", "usb"); }
bool IsSecure(pugi::xml_node element) { return Is(element, "secure", "yes"); }
bool HasTemplate(pugi::xml_node element) { return static_cast<bool>(element.attribute("template")); }
bool HasEmulated(pugi::xml_node element) { return static_cast<bool>(element.child("backend").attribute("type")); }
bool IsTuned(pugi::xml_node driver) {
  return std::ranges::any_of(driver.attributes(), [](pugi::xml_attribute attribute) {
    const std::string_view name = attribute.name();
    return name != "name" && name != "type";
  });
}

struct ElementRow {
  std::string_view path;  // below <domain>
  bool (*applies)(pugi::xml_node element);
  std::string_view outcome;
};

// The first row with the path that applies counts. domain_overlay_*.cpp is what makes these sentences true.
constexpr auto kRows = std::to_array<ElementRow>({
    {"blkiotune", Always, "kept where libvirt has cgroups; dropped: on other hosts"},
    {"clock", Always, "kept; a host that emulates guests drops the timers 'hypervclock' and 'kvmclock'"},
    {"cpu", Always,
     "kept until 'cpu_passthru' is edited; a new number of CPUs changes its topology; a host that emulates guests "
     "changes 'host-passthrough' to 'maximum'"},
    {"cputune", Always,
     "kept until the number of CPUs is edited; <vcpupin> changed to processors that the host dedicates; shares and "
     "quotas dropped: on hosts without cgroups"},
    {"features", Always,
     "kept; <hyperv> changed when 'hyperv_enlighten' is edited; a host that emulates guests drops <hyperv> and <kvm>"},
    {"features/smm", Always, "kept: secure boot may need it, also after 'use_ovmf' is edited"},
    {"launchSecurity", Always, "kept: only hosts with this technique can start the guest"},
    {"memtune", Always, "kept where libvirt has cgroups; dropped: on other hosts"},
    {"metadata", Always, "kept; this system's own tag is added"},
    {"os/firmware", Always,
     "kept, also enrolled keys; changed to firmware without secure boot when 'use_ovmf' is edited"},
    {"os/loader", IsSecure, "kept, with secure boot; changed to firmware without it when 'use_ovmf' is edited"},
    {"os/loader", Always, "kept; changed to firmware that libvirt chooses when 'use_ovmf' is edited"},
    {"os/nvram", HasTemplate, "kept, with its template: the file belongs to the guest from now on"},
    {"os/nvram", Always, "kept: the file belongs to the guest from now on"},
    {"qemu:commandline", Always, "kept; files in its arguments are neither copied nor removed with the guest"},
    {"devices/disk/driver", IsTuned,
     "kept: cache mode, I/O mode, error policy; 'discard' follows the disk's 'unmap'; an edit of the bus drops I/O "
     "threads and queues"},
    {"devices/disk/iotune", Always, kKept},
    {"devices/disk/product", Always, "kept; dropped: when the disk's bus is edited"},
    {"devices/disk/serial", Always, kKept},
    {"devices/disk/vendor", Always, "kept; dropped: when the disk's bus is edited"},
    {"devices/disk/wwn", Always, "kept; dropped: when the disk's bus is edited"},
    {"devices/emulator", Always, "kept on hosts that have this program; dropped: on others, where libvirt chooses one"},
    {"devices/graphics", IsVncWithPassword,
     "kept, with what it listens on and its password, which consoles of this system do not ask for"},
    {"devices/graphics", IsVnc, "kept, with what it listens on; consoles of this system use the first VNC screen"},
    {"devices/graphics", Always, "kept, with what it listens on; consoles of this system need a VNC screen"},
    {"devices/hostdev", IsUsb,
     "kept, and in the guest's 'usbs'; dropped: when it is removed there, and on hosts without USB"},
    {"devices/hostdev", Always, "kept: only hosts that have this device can start the guest"},
    {"devices/filesystem", Always, "kept: the guest's machine may open everything in this folder"},
    {"devices/memballoon", Always, "kept, with the period of its statistics"},
    {"devices/tpm", HasEmulated, "kept; the state of an emulated TPM stays where libvirt has it, and is not copied"},
});

// What records hold, notes cover, or has no meaning of its own.
constexpr auto kCovered = std::to_array<std::string_view>(
    {"name", "uuid", "description", "memory", "currentMemory", "vcpu", "os", "devices", "devices/disk",
     "devices/interface", "devices/video", "devices/controller", "devices/input", "devices/memory"});

class ElementList {
 public:
  explicit ElementList(ImportedGuest& result) : result_(result) {}

  void Read(pugi::xml_node domain) {
    AddChildren(domain, "", "");
    for (const char* part : {"features", "os"}) AddRows(domain.child(part), std::string(part) + "/", part);
    AddChildren(domain.child("devices"), "devices/", "devices");
    std::size_t index = 0;
    for (const pugi::xml_node disk : domain.child("devices").children("disk")) {
      AddRows(disk, "devices/disk/", fmt::format("devices/disk[{}]", ++index));
    }
  }

 private:
  // All children that are not covered.
  void AddChildren(pugi::xml_node parent, const std::string& prefix, const std::string& place) {
    for (const pugi::xml_node child : parent.children()) {
      if (child.type() != pugi::node_element) continue;
      const std::string path = prefix + child.name();
      if (std::ranges::find(kCovered, path) != kCovered.end()) continue;
      const ElementRow* const row = Find(path, child);
      Add(place, child, row ? row->outcome : kKept);
    }
  }

  // The children with a row.
  void AddRows(pugi::xml_node parent, const std::string& prefix, const std::string& place) {
    for (const pugi::xml_node child : parent.children()) {
      if (const ElementRow* row = Find(prefix + child.name(), child)) Add(place, child, row->outcome);
    }
  }

  static const ElementRow* Find(const std::string& path, pugi::xml_node element) {
    const auto* const found =
        std::ranges::find_if(kRows, [&](const ElementRow& row) { return row.path == path && row.applies(element); });
    return found == kRows.end() ? nullptr : found;
  }

  void Add(const std::string& place, pugi::xml_node element, std::string_view outcome) {
    if (result_.elements.size() > kMaxElements) return;
    if (result_.elements.size() == kMaxElements) {
      result_.elements.push_back({"…", "there are more elements than are listed here"});
      return;
    }
    result_.elements.push_back({PathOf(place, element), std::string(outcome)});
  }

  // With a number, from 1, when the parent has several elements of the name.
  static std::string PathOf(const std::string& place, pugi::xml_node element) {
    std::string path = place + (place.empty() ? "" : "/") + Unquoted(element.name());
    std::size_t before = 0;
    for (auto at = element.previous_sibling(element.name()); at; at = at.previous_sibling(element.name())) ++before;
    if (before > 0 || element.next_sibling(element.name())) path += fmt::format("[{}]", before + 1);
    return path;
  }

  // Safe for a terminal, and not too long.
  static std::string Unquoted(std::string_view name) {
    const std::string quoted = Quote(name);
    return quoted.substr(1, quoted.size() - 2);
  }

  ImportedGuest& result_;
};

}  // namespace

void ReadElements(pugi::xml_node domain, Context& context) { ElementList(context.result).Read(domain); }

}  // namespace vexa::domain_xml::parse
