// Notes about everything that no record has a place for.
#include <algorithm>
#include <map>

#include "host/hypervisor/domain_xml_internal.h"

namespace vexa::hypervisor::domain_xml {
namespace {

// Read by the other parts, or nothing a user would miss: every guest here has its own.
constexpr std::string_view kKnownOfDomain[] = {
    "name",    "uuid",    "description", "memory",    "currentMemory", "vcpu", "os",       "features", "cpu",   "clock",
    "cputune", "devices", "on_poweroff", "on_reboot", "on_crash",      "pm",   "resource", "seclabel", "genid",
};
constexpr std::string_view kKnownOfDevices[] = {"emulator", "disk", "interface", "controller", "graphics", "video",
                                                "input",    "hub",  "audio",     "memballoon", "hostdev"};
constexpr std::string_view kKnownOfFeatures[] = {"acpi", "apic", "pae", "hyperv", "vmport", "smm"};
constexpr std::string_view kKnownOfCputune[] = {"shares", "vcpupin"};

using Counts = std::map<std::string, std::size_t>;  // by name, so that notes come in the same order every time

template <std::size_t Size>
Counts CountUnknown(pugi::xml_node parent, const std::string_view (&known)[Size]) {
  Counts counts;
  for (const pugi::xml_node child : parent.children()) {
    const std::string_view name = child.name();
    if (child.type() != pugi::node_element) continue;
    if (std::find(std::begin(known), std::end(known), name) == std::end(known)) ++counts[std::string(name)];
  }
  return counts;
}

// Fit for a terminal, as Quote makes it: an element's name is whatever the XML says.
std::string Unquoted(std::string_view name) {
  const std::string quoted = Quote(name);
  return quoted.substr(1, quoted.size() - 2);
}

void NoteElements(const Counts& counts, const std::string& where, Context& context) {
  for (const auto& [name, count] : counts)
    context.Note("The element <" + Unquoted(name) + ">" + where + " was left out.");
}

void NoteDevices(const Counts& counts, Context& context) {
  for (const auto& [element, count] : counts) {
    const std::string name = Unquoted(element);
    if (count == 1) {
      context.Note("The " + name + " device was left out.");
    } else {
      context.Note("The " + std::to_string(count) + " " + name + " devices were left out.");
    }
  }
}

void NoteHostDevices(pugi::xml_node devices, Context& context) {
  for (const pugi::xml_node device : devices.children("hostdev")) {
    const std::string_view type = device.attribute("type").value();
    if (type != "usb") context.Note("The host device of the type " + Quote(type) + " was left out.");
  }
}

// Others than the actions that every guest here has.
void NoteEvents(pugi::xml_node domain, Context& context) {
  struct Row {
    const char* element;
    std::string_view usual;
  };
  for (const Row& row : {Row{"on_poweroff", "destroy"}, Row{"on_reboot", "restart"}}) {
    const std::string action = TextOf(domain.child(row.element));
    if (!action.empty() && action != row.usual) {
      context.Note("The action " + Quote(action) + " of <" + row.element + "> was left out.");
    }
  }
  const std::string_view clock = domain.child("clock").attribute("offset").value();
  if (!clock.empty() && clock != "utc") context.Note("The clock offset " + Quote(clock) + " was left out.");
}

}  // namespace

void NoteLeftOut(pugi::xml_node domain, Context& context) {
  const pugi::xml_node devices = domain.child("devices");
  NoteElements(CountUnknown(domain, kKnownOfDomain), "", context);
  NoteElements(CountUnknown(domain.child("features"), kKnownOfFeatures), " of <features>", context);
  NoteElements(CountUnknown(domain.child("cputune"), kKnownOfCputune), " of <cputune>", context);
  NoteEvents(domain, context);
  NoteDevices(CountUnknown(devices, kKnownOfDevices), context);
  NoteHostDevices(devices, context);
}

}  // namespace vexa::hypervisor::domain_xml
