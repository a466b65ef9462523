// `vexa import`: turns guests described by libvirt's domain XML into records of the store.
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

// The words of the command line, before they are checked.
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

// kInvalid, with a sentence about the first invalid word.
Result<ImportArguments> ResolveImportArguments(const ImportWords& words);

// Imports one guest after another. Each is written completely or not at all; a guest that cannot be imported does not
// prevent the others. `out` receives a line for each guest and its notes; with ImportMode::kDryRun it receives one JSON
// array of all records, and nothing is written. `err` receives a line for each failed guest.
// An error when any guest failed (kInvalid), or when the import could not start.
Status RunImport(const ImportArguments& arguments, store::Store& store, std::ostream& out, std::ostream& err);

// A guest to import: where its XML is, and the options of its import.
struct ImportSource {
  std::string label;  // its name in result lines
  std::string file;   // read when `xml` is not set
  std::optional<std::string> xml;
  bool autostart = false;   // whether libvirt was set to start it
  std::string expected_id;  // refused when the XML has another id; "" accepts any
  hypervisor::ImportOptions options;
};

// The guests of a manifest. Files are relative to the manifest's folder. kInvalid names the invalid member.
Result<std::vector<ImportSource>> ReadManifest(const std::string& path);

// A record of a disk or a network interface.
struct StoredPart {
  std::string key;
  store::Revision revision = 0;
};

// A guest's record and live state in the store; revision 0 when absent.
struct StoredGuest {
  store::Revision revision = 0;
  Json::Value record;
  store::Revision live_revision = 0;
  store::Revision renames_revision = 0;  // of guests::RenamesKey()
  // The records of disks and network interfaces that the guest's record lists and that name this guest as their owner.
  std::vector<StoredPart> parts;
};

// Writes the records of `guest` and its original definition, provided that the stored guest is still equal to
// `replaced`. What domain XML does not contain ("autorun", "ha_group_id", and "nvram" where the XML names none) is kept
// from the replaced record; records of disks and network interfaces that belong to the replaced guest and are not used
// by the new one are deleted. The live state and its sequences stay while the guest stays on the same host, and are
// removed otherwise: one host's report says nothing about another.
store::Transaction MakeImportTransaction(const hypervisor::ImportedGuest& guest, const guests::DomainRecord& domain,
                                         const StoredGuest& replaced);

}  // namespace vexa::cli
