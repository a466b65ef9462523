// What the parts of the domain XML writer share. For host/domain_xml/domain_build*.cpp and domain_overlay*.cpp only.
#pragma once

#include <cstdint>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <string_view>

#include "host/domain_xml/domain_build.h"

namespace vexa::hypervisor::domain_build {

// domain_build_values.cpp

// `text` where every byte of an invalid sequence and every character that XML 1.0 does not allow is '?'.
std::string XmlText(std::string_view text);

// The member of a record, `fallback` when it is absent or null. Errors: kInvalid when it is no integer from `least` to
// `most`, or no text.
Result<std::int64_t> NumberOf(const Json::Value& record, const char* member, std::int64_t fallback, std::int64_t least,
                              std::int64_t most);
Result<std::string> TextOf(const Json::Value& record, const char* member, const std::string& fallback);
// False when it is absent or null; another value as jsoncpp converts it.
bool FlagOf(const Json::Value& record, const char* member);

// A new last child of `parent`, and its attributes and text, all of them escaped.
pugi::xml_node Add(pugi::xml_node parent, const char* name);
pugi::xml_node AddText(pugi::xml_node parent, const char* name, const std::string& text);
void Set(pugi::xml_node element, const char* attribute, const std::string& value);

// Says who made the definition, as the last child of <metadata>, adding that element if it is absent.
enum class Kept { kNo, kYes };  // whether the definition stays defined while the guest is off
void WriteMark(pugi::xml_node domain, const std::string& host_id, Kept kept);

// The member "nvram", or "" when it is absent. Errors: kInvalid when it is not a plain absolute path.
Result<std::string> NvramOf(const Json::Value& guest);

// domain_build_targets.cpp

struct Bus {
  int mode;  // as "vdisk_mode" says it
  const char* name;
  const char* target_prefix;
};
inline constexpr int kIde = 2;
inline constexpr int kSata = 3;
inline constexpr int kScsi = 4;
inline constexpr std::size_t kMaxIdeDrives = 4;
inline constexpr Json::ArrayIndex kMaxIsoImages = 2;

const Bus& BusOf(int mode);  // of a known mode
Result<std::int64_t> ModeOf(const Json::Value& disk);
Result<std::string> FormatOf(const Json::Value& disk);  // "raw" or "qcow2"

// The name of the place `index` on a bus: "vda", …, "vdz", "vdaa", …
std::string TargetName(const Bus& bus, std::size_t index);

// The place on `bus` that `name` names; not set when it names none. libvirt takes the place from the name.
std::optional<std::size_t> TargetIndex(const std::string& name, const Bus& bus);

// Writers of one part of the XML each. They add to `context.domain` or `context.devices`.

struct Context {
  const GuestRecords& records;
  const BuildOptions& options;
  pugi::xml_node domain{};
  pugi::xml_node devices{};

  bool legacy_machine = false;  // a PC of old with IDE; else one with PCI Express
  int boot_order = 0;           // the last one given out
  std::size_t scsi_controllers = 0;

  const Json::Value& guest() const { return records.guest; }
  bool is_test() const { return options.domain_type == "test"; }
};

// Whether any disk is on IDE, which new machines do not have. domain_build_disks.cpp
bool NeedsLegacyMachine(const GuestRecords& records);

// All parts.
Status WriteGuest(Context& context);  // domain_build.cpp

Status WriteIdentity(Context& context);   // domain_build_machine.cpp
Status WriteProcessor(Context& context);  // <vcpu>, <cputune>, <cpu>
Status WriteSystem(Context& context);     // <os>, <features>, <clock>, what follows power events
Status WriteDisks(Context& context);      // domain_build_disks.cpp: disks and CD-ROM drives
Status WriteNics(Context& context);       // domain_build_nics.cpp
Status WriteUsb(Context& context);        // domain_build_devices.cpp: controllers and devices of the host
Status WriteConsole(Context& context);    // video, keyboard, serial console, agent

}  // namespace vexa::hypervisor::domain_build
