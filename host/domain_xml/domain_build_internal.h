// Shared by the parts of the domain XML writer. For host/domain_xml/domain_build*.cpp and domain_overlay*.cpp only.
#pragma once

#include <cstdint>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <string_view>

#include "host/base/guest_setting.h"
#include "host/domain_xml/domain_build.h"
#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml::build {

using parse::Invalid;
using parse::Quote;

// domain_build_values.cpp

// `text` with '?' in place of every byte of an invalid sequence and every character that XML 1.0 does not allow.
std::string XmlText(std::string_view text);

// The member of a record, `fallback` when it is absent or null. Errors: kInvalid when it is not an integer from `min`
// to `max`, or not a string.
Result<std::int64_t> NumberOf(const Json::Value& record, const char* member, std::int64_t fallback, std::int64_t min,
                              std::int64_t max);
// The same for a setting; the range is that of the setting.
Result<std::int64_t> NumberOf(const Json::Value& record, const GuestSetting& setting, std::int64_t fallback);
Result<std::string> StringOf(const Json::Value& record, const char* member, const std::string& fallback);
// False when it is absent or null; any other value as jsoncpp converts it.
bool FlagOf(const Json::Value& record, const char* member);

// Appends a child to `parent`, or sets attributes and text. Everything is escaped.
pugi::xml_node Add(pugi::xml_node parent, const char* name);
std::string TextOf(const pugi::xml_document& document);
pugi::xml_node AddText(pugi::xml_node parent, const char* name, const std::string& text);
void Set(pugi::xml_node element, const char* attribute, const std::string& value);

// Whether the definition stays in libvirt while the guest is off.
enum class Persistence { kNo, kYes };
// Adds the ownership tag as the last child of <metadata>, which is added if absent: the host made the definition.
void WriteOwnershipTag(pugi::xml_node domain, const std::string& host_id, Persistence persistence);

// The member "nvram", or "" when it is absent. Errors: kInvalid when it is not a plain absolute path.
Result<std::string> NvramOf(const Json::Value& guest);

// What the guest boots from: "disk" (also when the member is absent) or "iso". Errors: kInvalid for anything else.
Result<std::string> BootSourceOf(const Json::Value& guest);

// The member "iso_images" as a list, which is empty when the member is absent. Errors: kInvalid when it is not a list
// of at most two.
Result<Json::Value> IsoImagesOf(const Json::Value& guest);

// domain_build_targets.cpp

struct Bus {
  int mode;  // value of "vdisk_mode"
  const char* name;
  const char* target_prefix;
};
inline constexpr int kIde = 2;
inline constexpr int kSata = 3;
inline constexpr int kScsi = 4;
inline constexpr std::size_t kMaxIdeDrives = 4;

const Bus& BusOf(int mode);  // for a known mode
Result<std::int64_t> ModeOf(const Json::Value& disk);
Result<std::string> FormatOf(const Json::Value& disk);  // "raw" or "qcow2"

// The target name of position `index` on a bus: "vda", …, "vdz", "vdaa", …
std::string TargetName(const Bus& bus, std::size_t index);

// The inverse: the position on `bus` of the target `name`, as libvirt derives it; not set for any other name.
std::optional<std::size_t> TargetIndex(const std::string& name, const Bus& bus);

// Writers, each for one part of the XML. They add to `context.domain` or `context.devices`.

struct Context {
  const GuestRecords& records;
  const BuildOptions& options;
  pugi::xml_node domain{};
  pugi::xml_node devices{};

  bool legacy_machine = false;  // machine type "pc", which has IDE; otherwise "q35" with PCI Express
  int boot_order = 0;           // the last number assigned
  std::size_t scsi_controllers = 0;

  const Json::Value& guest() const { return records.guest; }
  bool is_test() const { return options.domain_type == "test"; }
};

// Whether any disk is on IDE, which new machine types do not have. domain_build_disks.cpp
bool NeedsLegacyMachine(const GuestRecords& records);

// Calls all writers below.
Status WriteGuest(Context& context);  // domain_build.cpp

Status WriteIdentity(Context& context);   // domain_build_machine.cpp
Status WriteProcessor(Context& context);  // <vcpu>, <cputune>, <cpu>
Status WriteSystem(Context& context);     // <os>, <features>, <clock>, actions on power events
Status WriteDisks(Context& context);      // domain_build_disks.cpp: disks and CD-ROM drives
Status WriteNics(Context& context);       // domain_build_nics.cpp
Status WriteUsb(Context& context);        // domain_build_devices.cpp: controllers and host devices
Status WriteConsole(Context& context);    // video, keyboard, serial console, agent

}  // namespace vexa::domain_xml::build
