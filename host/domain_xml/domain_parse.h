// Converts domain XML, as `virsh dumpxml` prints it, into the records of a guest, its disks and its network interfaces.
// The format is libvirt's ("Domain XML format" in its documentation); docs/import.md has the mapping.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/base/result.h"

namespace vexa::domain_xml {

inline constexpr std::size_t kMaxDomainXmlBytes = std::size_t{4} << 20;
inline constexpr int kMaxDomainXmlDepth = 64;
inline constexpr std::size_t kMaxDisks = 64;
inline constexpr std::size_t kMaxNics = 64;
inline constexpr std::uint64_t kMaxDiskMib = 2'147'483'647;

enum class ImageFormat { kRaw, kQcow2 };

struct ImportOptions {
  std::string repository_id{};  // UUID; "": the guest's and disks' records name none
  std::string host_id{};        // likewise

  // Sizes of disks whose image cannot be read, by target name ("vda").
  std::map<std::string, std::uint64_t> disk_sizes_mib;
  // Ids (UUIDs) of networks by the name of the network or bridge; all others get the id from NetworkGroupId.
  std::map<std::string, std::string> networks;

  // The virtual size in bytes of the image at `path`. Not set: images are not read. With kInvalid it refuses the image.
  std::function<Result<std::uint64_t>(const std::string& path, ImageFormat format)> size_of;
};

// What becomes of an element that has no place in records.
struct ElementOutcome {
  std::string path;     // below <domain>: "devices/graphics[2]"
  std::string outcome;  // a clause: "kept …", "dropped: …"
};

struct ImportedGuest {
  std::string id;
  Json::Value guest;
  std::vector<std::pair<std::string, Json::Value>> disks;  // id and record, in the order of the XML
  std::vector<std::pair<std::string, Json::Value>> nics;
  std::string xml;                 // the input, unchanged: it preserves what the records do not cover
  std::vector<std::string> notes;  // one sentence for each thing that the records only approximate
  std::vector<ElementOutcome> elements;
};

// The records of one <domain>. The same XML and options always give the same ids and records.
// Errors: kInvalid, with a sentence that names the element, its value and what would be accepted. Refused before
// parsing: more than kMaxDomainXmlBytes, more than kMaxDomainXmlDepth levels, a DOCTYPE, text that is not UTF-8. Pure
// except for options.size_of. Threads: any, at the same time.
Result<ImportedGuest> ParseDomainXml(std::string_view xml, const ImportOptions& options);

// As {"id", "guest", "disks": [{"id", "object"}], "nics": [{"id", "object"}], "notes": […],
// "elements": [{"path", "outcome"}]}.
Json::Value ToJson(const ImportedGuest& guest);

// Reads the virtual size in bytes: from the header of a qcow2 image, or the length of a raw file or block device.
// Errors: kNotFound, kDenied, kInternal, and kInvalid for what cannot be an image of a guest: a symbolic link, neither
// a regular file nor a block device, or what ReadStandaloneQcow2 refuses.
Result<std::uint64_t> ReadImageSize(const std::string& path, ImageFormat format);

// The name-based UUID (RFC 4122, version 5) of `name` in this system's own namespace.
std::string NameBasedUuid(std::string_view name);

// The id that an import gives to the network or bridge `network_name`.
std::string NetworkGroupId(std::string_view network_name);

}  // namespace vexa::domain_xml
