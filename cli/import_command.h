// `vexa import`: guests described by libvirt's domain XML become records of the store.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/domain_xml/domain_xml.h"
#include "host/records/domain_record.h"
#include "host/store/store.h"

namespace vexa::cli {

enum class OnExisting { kRefuse, kReplace };
enum class ImportMode { kWrite, kDryRun };

// Exactly one of `files`, `uri` and `manifest` is set.
struct ImportArguments {
  std::vector<std::string> files;
  std::string uri;       // import every domain of this libvirt connection
  std::string manifest;  // a JSON file that lists the files and their options; docs/import.md has its members
  std::optional<std::string> repository_id;
  std::optional<std::string> host_id;
  std::map<std::string, std::uint64_t> disk_sizes_mib;
  std::map<std::string, std::string> networks;
  OnExisting on_existing = OnExisting::kRefuse;
  ImportMode mode = ImportMode::kWrite;
};

// What the command line says, before it is looked at.
struct ImportWords {
  std::vector<std::string> files;
  std::string uri;
  std::string manifest;
  bool replace = false;
  bool dry_run = false;
  std::vector<std::string> disk_sizes;  // NAME=GiB
  std::vector<std::string> networks;    // NAME=UUID
  std::string repository_id;
  std::string host_id;
};

// kInvalid, with a sentence about the first of the words that cannot be.
Result<ImportArguments> ResolveImportArguments(const ImportWords& words);

// Imports one guest after the other. Each is written whole or not at all; a guest that cannot be imported does not keep
// the others from it. `out` gets a line for each guest and its notes, or with ImportMode::kDryRun one JSON array of all
// records and nothing is written; `err` gets a line for each guest that failed.
// An error when any guest failed (kInvalid), or when nothing could be begun.
Status RunImport(const ImportArguments& arguments, store::Store& store, std::ostream& out, std::ostream& err);

// A guest to import: where its XML is and what it is imported with.
struct ImportSource {
  std::string label;  // names it in result lines
  std::string file;   // read when `xml` is not set
  std::optional<std::string> xml;
  bool autostart = false;   // whether libvirt was to start it by itself
  std::string expected_id;  // refused when the XML has another one; "" for any
  hypervisor::ImportOptions options;
};

// The guests of a manifest. Files are relative to the manifest's folder. kInvalid names the member that cannot be.
Result<std::vector<ImportSource>> ReadManifest(const std::string& path);

// A record of a disk or a network interface.
struct StoredPart {
  std::string key;
  store::Revision revision = 0;
};

// A guest's record and live state as the store has them; revision 0 when there is none.
struct StoredGuest {
  store::Revision revision = 0;
  Json::Value record;
  store::Revision live_revision = 0;
  store::Revision renames_revision = 0;  // of guests::RenamesKey()
  // The records of disks and network interfaces that the guest's record lists and that name the guest as theirs.
  std::vector<StoredPart> parts;
};

// Writes the records of `guest` and the definition that it had, provided that the stored guest is still as `replaced`
// says. What domain XML does not say ("autorun", "ha_group_id", and "nvram" where the XML names none) is kept from the
// replaced record; records of disks and network interfaces that are the replaced guest's own and that the new one does
// not use are deleted. The live state stays with what is known about its order while the guest stays on
// the same host, and goes otherwise: what one host told says nothing about another.
store::Transaction MakeImportTransaction(const hypervisor::ImportedGuest& guest, const guests::DomainRecord& domain,
                                         const StoredGuest& replaced);

}  // namespace vexa::cli
