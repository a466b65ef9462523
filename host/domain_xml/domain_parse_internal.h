// Shared by the parts of the domain XML reader, and with the writer. For host/domain_xml/domain_*.cpp only.
#pragma once

#include <cstdint>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <string_view>

#include "host/domain_xml/domain_parse.h"
#include "host/domain_xml/domain_parse_errors.h"

namespace vexa::domain_xml::parse {

// domain_parse_text.cpp

// Checks the XML (size, encoding, depth, references, no DOCTYPE) and parses it into `document`, whose only element is
// then <domain>.
Status Load(std::string_view xml, pugi::xml_document& document);

// All text directly inside `element`.
std::string TextOf(pugi::xml_node element);

// domain_parse_values.cpp

// `text` in single quotes, safe for a terminal: control characters as '?', at most 80 bytes.
std::string Quote(std::string_view text);

// Removes XML white space at both ends.
std::string_view Trim(std::string_view text);

// A number of decimal digits, possibly surrounded by white space. Empty when it is anything else or exceeds 64 bits.
std::optional<std::uint64_t> ParseUnsigned(std::string_view text);

// One to four hexadecimal digits, with or without "0x".
std::optional<std::uint32_t> ParseHex16(std::string_view text);

// The bytes in one `unit` of memory ("" is KiB); empty for an unknown unit.
std::optional<std::uint64_t> BytesPerUnit(std::string_view unit);

// The number of bytes in an element such as <memory unit='MiB'>. Empty when it is not a number with a known unit or
// exceeds 64 bits.
std::optional<std::uint64_t> MemoryBytes(pugi::xml_node element);

// The path in an <nvram> of <os>; "" when absent or not a file.
std::string NvramPath(pugi::xml_node nvram);

// "aa:bb:cc:dd:ee:ff" in lower case; empty when `text` is not a unicast address.
std::string NormalizeMac(std::string_view text);
// The PCI address ("0000:3b:02.1") of an <interface>'s virtual function; "" for an interface of another type.
std::string VirtualFunctionOf(pugi::xml_node nic);

// Whether `text` has control characters (C0, DEL, C1). `text` is valid UTF-8.
bool HasControlCharacters(std::string_view text);

// Absolute, without "..", and safe for a log line.
bool IsPlainPath(std::string_view path);

// Whether `text` consists of letters, digits and hyphens, as names of keyboard layouts do ("en-us").
bool IsLayoutName(std::string_view text);

// Readers, each for one part of the XML. They fill `context.result` and add notes.

inline constexpr std::size_t kMaxNotes = 100;

struct Context {
  const ImportOptions& options;
  ImportedGuest& result;

  Json::Value& guest() { return result.guest; }

  // Adds a note. After kMaxNotes, one last note says that there are more: hostile XML could fill a terminal.
  template <class... T>
  void Note(fmt::format_string<const T&...> sentence, const T&... values) {
    if (result.notes.size() > kMaxNotes) return;
    result.notes.push_back(result.notes.size() < kMaxNotes ? fmt::format(sentence, values...)
                                                           : "The records approximate more than is listed here.");
  }
};

Status ReadIdentity(pugi::xml_node domain, Context& context);   // domain_parse_machine.cpp: <uuid>, <name>, …
Status ReadProcessor(pugi::xml_node domain, Context& context);  // <vcpu>, <cpu>, <cputune>
Status ReadMemory(pugi::xml_node domain, Context& context);
Status ReadFirmware(pugi::xml_node domain, Context& context);  // domain_parse_boot.cpp: <os>, <features>
Status ReadBootOrder(pugi::xml_node domain, Context& context);
Status ReadVideo(pugi::xml_node devices, Context& context);  // domain_parse_devices.cpp
Status ReadUsb(pugi::xml_node devices, Context& context);
void ReadElements(pugi::xml_node domain, Context& context);  // domain_parse_elements.cpp
Status ReadDisks(pugi::xml_node devices, Context& context);  // domain_parse_disks.cpp
Status ReadNics(pugi::xml_node devices, Context& context);   // domain_parse_nics.cpp

}  // namespace vexa::domain_xml::parse
