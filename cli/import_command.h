// `vexa import`: has the server import the guests that libvirt's domain XML describes.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/client_options.h"
#include "host/base/result.h"
#include "host/domain_xml/domain_parse.h"

namespace vexa::cli {

inline constexpr std::uint64_t kMaxDiskGib = domain_xml::kMaxDiskMib / 1024;

enum class OnExisting { kRefuse, kReplace };
enum class ImportMode { kWrite, kDryRun };

// Exactly one of `files`, `uri` and `manifest` is set.
struct ImportArguments {
  std::vector<std::string> files;
  std::string uri;         // import every domain of this libvirt connection
  std::string manifest;    // a JSON file that lists the files and their options; docs/import.md has its members
  std::string repository;  // by id or name; "" without one
  std::string host;        // likewise
  std::map<std::string, std::uint64_t> disk_sizes_mib;
  std::map<std::string, std::string> networks;  // ids or names, by the name in the definition
  OnExisting on_existing = OnExisting::kRefuse;
  ImportMode mode = ImportMode::kWrite;
  bool copies_disks = false;  // into the repository
};

// The arguments of the command line, before they are checked.
struct RawImportArguments {
  std::vector<std::string> files;
  std::string uri;
  std::string manifest;
  bool replace = false;
  bool dry_run = false;
  bool copy_disks = false;
  std::vector<std::string> disk_sizes;  // NAME=GiB
  std::vector<std::string> networks;    // NAME=NETWORK
  std::string repository;
  std::string host;
};

// kInvalid, with a sentence about the first invalid argument.
Result<ImportArguments> ResolveImportArguments(const RawImportArguments& raw);

// Sends the guests to the server, which imports each completely or not at all; a guest that cannot be imported does not
// prevent the others. Prints a line for each guest and its notes, or a line on standard error; with ImportMode::kDryRun
// one JSON array of all records, with --json one of all results.
ExitCode RunImport(const GlobalOptions& global, const ImportArguments& arguments);

// A guest to import: where its XML is, and the options of its import.
struct ImportSource {
  std::string label;  // its name in result lines
  std::string file;   // read when `xml` is not set
  std::optional<std::string> xml;
  bool autostart = false;             // whether libvirt was set to start it
  std::string expected_id;            // refused when the XML has another id; "" accepts any
  domain_xml::ImportOptions options;  // may have names in place of ids; see import_names.h
};

// The guests of a manifest. Files are relative to the manifest's folder. kInvalid names the invalid member.
Result<std::vector<ImportSource>> ReadManifest(const std::string& path);

}  // namespace vexa::cli
