#include "cli/setup_unit.h"

#include <fmt/format.h>

#include "cli/embed_drop_in.h"
#include "host/base/files.h"

namespace vexa::cli {
namespace {

constexpr const char* kFoldersFile = "guests.conf";
constexpr const char* kEmbedFile = "embed.conf";
constexpr const char* kMark = "# Made by 'vexa setup'.\n";  // debian/vexad.postrm looks for it
constexpr std::size_t kMaxBytes = 1024 * 1024;

std::string FolderOf(const std::string& units) { return units + "/vexad.service.d"; }

bool IsOwn(const std::string& text) { return text.starts_with(kMark); }

}  // namespace

std::vector<DropIn> DropInsFor(const std::vector<std::string>& folders, const std::string& hypervisor) {
  std::vector<DropIn> drop_ins;
  std::string lines;
  // A folder that is gone keeps no service from starting.
  for (const std::string& folder : folders) lines += fmt::format("ReadWritePaths=\"-{}\"\n", folder);
  if (!lines.empty()) drop_ins.push_back({kFoldersFile, std::string(kMark) + "[Service]\n" + lines});
  if (hypervisor == "embed") drop_ins.push_back({kEmbedFile, std::string(kMark) + kEmbedDropIn});
  return drop_ins;
}

Result<UnitChange> WriteDropIns(const std::string& units, const std::vector<DropIn>& drop_ins) {
  UnitChange change;
  for (const DropIn& drop_in : drop_ins) {
    const std::string file = FolderOf(units) + "/" + drop_in.name;
    const Result<std::string> old = ReadFile(file, kMaxBytes);
    if (!old && old.error().code() != ErrorCode::kNotFound) return old.error();
    if (old && *old == drop_in.text) continue;
    if (old && !IsOwn(*old)) {
      if (kMark + *old != drop_in.text) change.kept.push_back({file, drop_in.text});
      continue;
    }
    if (Status made = CreateDirectories(FolderOf(units), 0755); !made) return made.error();
    if (Status written = WriteFileAtomically(file, drop_in.text, 0644); !written) return written.error();
    change.has_changed = true;
  }
  return change;
}

std::string OwnEmbedDropIn(const std::string& units) {
  const std::string file = FolderOf(units) + "/" + kEmbedFile;
  const Result<std::string> text = ReadFile(file, kMaxBytes);
  return text && IsOwn(*text) ? file : "";
}

}  // namespace vexa::cli
