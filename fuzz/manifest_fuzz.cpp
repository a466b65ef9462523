// An import manifest: an accepted one has all values that an import needs, and every other text is refused with a
// sentence.
#include <string>

#include "cli/import_command.h"
#include "fuzz/check.h"
#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"
#include "tests/support/temp_dir.h"

namespace {

using vexa::NormalizeUuid;
using vexa::fuzz::Check;

void CheckUuid(const std::string& id) { Check(!id.empty() && NormalizeUuid(id) == id, "an id is a UUID"); }

void CheckSource(const vexa::cli::ImportSource& source) {
  Check(!source.label.empty() && !source.file.empty() && !source.xml, "a guest has a file");
  if (!source.expected_id.empty()) CheckUuid(source.expected_id);
  // Without one, the server takes its own.
  for (const std::string& id : {source.options.repository_id, source.options.host_id}) {
    if (!id.empty()) CheckUuid(id);
  }
  for (const auto& [name, id] : source.options.networks) CheckUuid(id);
  for (const auto& [name, size_mib] : source.options.disk_sizes_mib) {
    Check(size_mib >= 1024 && size_mib <= vexa::domain_xml::kMaxDiskMib, "a disk has an allowed size");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const vexa::test::TempDir folder;
  static const std::string path = folder.File("manifest.json");
  Check(vexa::WriteFileAtomically(path, std::string(vexa::fuzz::Text(data, size)), 0600).ok(), "the file is written");
  const auto sources = vexa::cli::ReadManifest(path);
  if (sources.ok()) {
    for (const vexa::cli::ImportSource& source : *sources) CheckSource(source);
    return 0;
  }
  Check(sources.error().code() == vexa::ErrorCode::kInvalid, "a refusal is kInvalid");
  Check(vexa::IsValidUtf8(sources.error().ToString()), "a refusal is text");
  Check(sources.error().ToString().find_first_of("\n\x1b") == std::string::npos, "a refusal is one line");
  return 0;
}
