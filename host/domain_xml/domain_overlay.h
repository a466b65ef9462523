// Applies the guest's current records to the base: the definition that its owner had before the import.
//
// The base is parsed as an import would parse it. Where the current records equal the records parsed from the base, the
// base's elements stay word for word; where they differ, the elements are changed as little as possible, to what the
// builder writes. For host/domain_xml/domain_*.cpp only.
#pragma once

#include <pugixml.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/domain_xml/domain_build.h"
#include "host/domain_xml/domain_build_internal.h"
#include "host/domain_xml/domain_parse.h"

namespace vexa::domain_xml::overlay {

using parse::Invalid;
using parse::Quote;

// Loads options.base_xml, which must not be empty, into `document` and applies the differences. The caller has checked
// the other options. Errors: those of BuildDomainXml.
Status Apply(const GuestRecords& records, const BuildOptions& options, pugi::xml_document& document);

struct Overlay {
  const GuestRecords& records;
  const BuildOptions& options;
  const ImportedGuest& base;  // the records parsed from the base
  pugi::xml_node domain{};    // the <domain> of the base, which becomes the result
  pugi::xml_node devices{};   // its <devices>
  pugi::xml_node built{};     // the builder's <domain> for the guest, without disks, drives and network interfaces

  // Elements of the result in the order of the records, for the boot order.
  std::vector<pugi::xml_node> disks{};
  std::vector<pugi::xml_node> drives{};

  const Json::Value& guest() const { return records.guest; }
  bool is_emulated() const { return options.domain_type == "qemu"; }
};

// Each function changes one aspect of `overlay.domain`. Errors: those of BuildDomainXml.

Status ApplyIdentity(Overlay& overlay);  // domain_overlay_machine.cpp: name, description, ownership tag, emulator
Status ApplyMemory(Overlay& overlay);
Status ApplyFirmware(Overlay& overlay);
Status ApplyFeatures(Overlay& overlay);   // features of Hyper-V, and of KVM only
Status ApplyProcessor(Overlay& overlay);  // domain_overlay_processor.cpp: <cpu>, <vcpu>
Status ApplyTuning(Overlay& overlay);     // weight, pins, cgroups
Status ApplyScreen(Overlay& overlay);     // domain_overlay_devices.cpp: video card, keyboard layout
Status ApplyUsb(Overlay& overlay);        // domain_overlay_usb.cpp: controllers, host devices
Status ApplyDisks(Overlay& overlay);      // domain_overlay_disks.cpp
Status ApplyDrives(Overlay& overlay);     // domain_overlay_drives.cpp: CD-ROM drives
Status ApplyNics(Overlay& overlay);       // domain_overlay_nics.cpp
Status ApplyBootOrder(Overlay& overlay);  // domain_overlay_boot.cpp; after disks and drives

// domain_overlay_values.cpp

// Whether both are the same value; numbers are compared regardless of their type.
bool SameValue(const Json::Value& left, const Json::Value& right);

// Whether a setting of the guest's record equals that of the base's record, which counts as `fallback` when it lacks
// the setting. True for a record without the setting (absent or null): it is older than the setting, and must not
// change its owner's definition.
bool IsUnchanged(const Overlay& overlay, const char* member, const Json::Value& fallback = Json::Value());

// Whether a boolean setting differs from the base's; false for a record without the setting.
bool IsFlagChanged(const Overlay& overlay, const char* member);

// Each sets an attribute, the text of an element or a child, which is added if absent.
void Put(pugi::xml_node element, const char* attribute, const std::string& value);
void PutText(pugi::xml_node element, const std::string& text);
pugi::xml_node ChildOf(pugi::xml_node parent, const char* name);

// Replaces `old` with a copy of `replacement`, or appends the copy to `parent` when `old` is empty.
pugi::xml_node Replace(pugi::xml_node parent, pugi::xml_node old, pugi::xml_node replacement);

void RemoveChildren(pugi::xml_node parent, std::string_view name);
void RemoveChildren(pugi::xml_node parent, std::span<const char* const> names);
void RemoveAttributes(pugi::xml_node element, std::span<const char* const> names);
void RemoveWhenEmpty(pugi::xml_node element);

// Inserts a copy of `addition` after the last child of the same name, or appends it.
pugi::xml_node Insert(pugi::xml_node parent, pugi::xml_node addition);

bool HasAttributeValue(pugi::xml_node element, const char* attribute, std::string_view value);

// domain_overlay_targets.cpp: positions on buses

// The target name for a disk or drive that is added or moved to `bus`: `wanted` when it is a free position there,
// otherwise the first free position that is not in a record. `itself` does not count as occupying a position. Errors:
// kInvalid when the machine type does not have the bus, or the bus is full.
Result<std::string> AssignTarget(const Overlay& overlay, const build::Bus& bus, const std::string& wanted,
                                 pugi::xml_node itself);

// Whether the machine type has IDE.
bool HasIde(const Overlay& overlay);

}  // namespace vexa::domain_xml::overlay
