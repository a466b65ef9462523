#include "host/disks/image_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "host/base/sanitize_for_log.h"

namespace vexa::disks {
namespace {

using domain_xml::ImageFormat;

// The format is in QEMU's documentation ("The QCOW2 image format"). All numbers are big-endian.
constexpr std::string_view kMagic = "QFI\xfb";
constexpr unsigned kClusterBits = 16;
constexpr std::uint64_t kCluster = std::uint64_t{1} << kClusterBits;
constexpr std::size_t kHeaderLength = 104;
constexpr std::size_t kSizeOffset = 24;  // the size (8 bytes), the encryption (4), the entries of the first table (4)
constexpr std::size_t kHeaderPartLength = 16;  // of these three fields
constexpr std::uint64_t kMaxTableBytes = std::uint64_t{32} << 20;
constexpr std::string_view kNoRoom = "its tables have no room";

void Append(std::string& out, std::uint64_t number, unsigned bytes) {
  for (unsigned i = bytes; i-- > 0;) out.push_back(static_cast<char>(number >> (8 * i) & 0xFF));
}

std::uint64_t NumberAt(std::string_view bytes, std::size_t offset, unsigned count) {
  std::uint64_t number = 0;
  for (unsigned i = 0; i < count; ++i) number = number << 8 | static_cast<unsigned char>(bytes[offset + i]);
  return number;
}

std::uint64_t DivideRoundingUp(std::uint64_t number, std::uint64_t by) {
  return number / by + (number % by == 0 ? 0 : 1);
}

// The bytes of the disk behind one entry of the first-level table: a cluster full of 8-byte entries, each for a
// cluster.
std::uint64_t BytesPerEntry(unsigned cluster_bits) { return std::uint64_t{1} << (2 * cluster_bits - 3); }

EmptyImage MakeEmptyQcow2(std::uint64_t size) {
  const std::uint64_t needed = DivideRoundingUp(size, BytesPerEntry(kClusterBits));
  const std::uint64_t table_clusters = std::max<std::uint64_t>(DivideRoundingUp(needed * 8, kCluster), 1);
  const std::uint64_t entries = table_clusters * kCluster / 8;
  std::string header(kMagic);
  Append(header, 3, 4);  // the version
  Append(header, 0, 8);  // no backing file
  Append(header, 0, 4);  // whose name is empty
  Append(header, kClusterBits, 4);
  Append(header, size, 8);
  Append(header, 0, 4);             // no encryption
  Append(header, entries, 4);       // of the first-level table
  Append(header, 3 * kCluster, 8);  // where that table is
  Append(header, kCluster, 8);      // where the table of reference counts is
  Append(header, 1, 4);             // its length in clusters
  Append(header, 0, 4);             // no snapshots
  Append(header, 0, 8);             // their position
  Append(header, 0, 8);             // no incompatible features
  Append(header, 0, 8);             // no compatible features
  Append(header, 0, 8);             // no automatically cleared features
  Append(header, 4, 4);             // reference counts of 16 bits
  Append(header, kHeaderLength, 4);
  Append(header, 0, 8);  // no extensions
  std::string table;
  Append(table, 2 * kCluster, 8);
  std::string counts;
  for (std::uint64_t i = 0; i < 3 + table_clusters; ++i) Append(counts, 1, 2);
  EmptyImage image;
  image.length = (3 + table_clusters) * kCluster;
  image.pieces = {{0, std::move(header)}, {kCluster, std::move(table)}, {2 * kCluster, std::move(counts)}};
  return image;
}

// `reason` is a clause.
Error CannotGrow(const std::string& path, std::string_view reason) {
  return Error(ErrorCode::kInvalid,
               fmt::format("The image '{}' cannot grow in place: {}. Use 'qemu-img resize' while the guest is off",
                           SanitizePathForLog(path), reason));
}

Error AlreadyLarger(const std::string& path, std::uint64_t bytes) {
  return Error(ErrorCode::kConflict,
               fmt::format("The image '{}' already has {} bytes", SanitizePathForLog(path), bytes));
}

Result<Growth> PlanQcow2Growth(const DiskFiles& files, const std::string& path, std::uint64_t size) {
  const auto header = files.ReadAt(path, 0, kHeaderLength);
  if (!header) return header.error();
  if (header->size() < 72 || !header->starts_with(kMagic)) {
    return Error(ErrorCode::kInvalid, fmt::format("The image '{}' is not a qcow2 image", SanitizePathForLog(path)));
  }
  const std::uint64_t version = NumberAt(*header, 4, 4);
  const auto cluster_bits = static_cast<unsigned>(NumberAt(*header, 20, 4));
  const std::uint64_t entries = NumberAt(*header, 36, 4);
  const bool is_known = (version == 2 || (version == 3 && header->size() == kHeaderLength)) && cluster_bits >= 9 &&
                        cluster_bits <= 21 && NumberAt(*header, 32, 4) == 0;
  if (!is_known) return CannotGrow(path, "its kind of qcow2 is not supported");
  if (NumberAt(*header, 60, 4) != 0) return CannotGrow(path, "it has snapshots");
  if (version == 3 && (NumberAt(*header, 72, 8) != 0 || NumberAt(*header, 88, 8) != 0)) {
    return CannotGrow(path, "it was not closed properly, or has features that are not supported");
  }
  const std::uint64_t now = NumberAt(*header, kSizeOffset, 8);
  if (now > size) return AlreadyLarger(path, now);
  const std::uint64_t cluster = std::uint64_t{1} << cluster_bits;
  const std::uint64_t needed = DivideRoundingUp(size, BytesPerEntry(cluster_bits));
  const std::uint64_t room = DivideRoundingUp(entries * 8, cluster) * cluster / 8;
  if (needed > room || needed * 8 > kMaxTableBytes) return CannotGrow(path, kNoRoom);
  if (needed > entries) {
    const std::uint64_t table = NumberAt(*header, 40, 8);
    const auto rest = files.ReadAt(path, table + entries * 8, (needed - entries) * 8);
    if (!rest) return rest.error();
    if (rest->find_first_not_of('\0') != std::string::npos) return CannotGrow(path, kNoRoom);
  }
  Growth growth{path, 0, 0, header->substr(kSizeOffset, kHeaderPartLength), {}};
  Append(growth.to_header, size, 8);
  Append(growth.to_header, 0, 4);
  Append(growth.to_header, std::max(needed, entries), 4);
  return growth;
}

Error ChangedByOthers(const std::string& path) {
  return Error(ErrorCode::kConflict,
               fmt::format("The image '{}' was changed by another program", SanitizePathForLog(path)));
}

Status Change(const DiskFiles& files, const std::string& path, std::uint64_t from, std::uint64_t to) {
  const auto length = files.Length(path);
  if (!length) return length.error();
  if (*length == to) return {};
  if (*length != from) return ChangedByOthers(path);
  return files.SetLength(path, to);
}

Status Change(const DiskFiles& files, const std::string& path, const std::string& from, const std::string& to) {
  const auto now = files.ReadAt(path, kSizeOffset, kHeaderPartLength);
  if (!now) return now.error();
  if (*now == to) return {};
  if (*now != from) return ChangedByOthers(path);
  return files.WriteAt(path, {kSizeOffset, to});
}

}  // namespace

EmptyImage MakeEmptyImage(ImageFormat format, std::uint64_t size) {
  if (format == ImageFormat::kRaw) return {size, {}};
  return MakeEmptyQcow2(size);
}

Result<Growth> PlanGrowth(const DiskFiles& files, const std::string& path, ImageFormat format, std::uint64_t size) {
  if (format == ImageFormat::kQcow2) return PlanQcow2Growth(files, path, size);
  const auto length = files.Length(path);
  if (!length) return length.error();
  if (*length > size) return AlreadyLarger(path, *length);
  return Growth{path, *length, size, {}, {}};
}

Result<GrowthState> StateOf(const DiskFiles& files, const Growth& growth) {
  const auto state = [](const auto& now, const auto& from, const auto& to) {
    if (now == from) return GrowthState::kBefore;
    return now == to ? GrowthState::kAfter : GrowthState::kOther;
  };
  if (growth.to_header.empty()) {
    const auto length = files.Length(growth.path);
    if (!length) return length.error();
    return state(*length, growth.from_length, growth.to_length);
  }
  const auto header = files.ReadAt(growth.path, kSizeOffset, kHeaderPartLength);
  if (!header) return header.error();
  return state(*header, growth.from_header, growth.to_header);
}

Status Grow(const DiskFiles& files, const Growth& growth) {
  if (growth.to_header.empty()) return Change(files, growth.path, growth.from_length, growth.to_length);
  return Change(files, growth.path, growth.from_header, growth.to_header);
}

Status UndoGrowth(const DiskFiles& files, const Growth& growth) {
  if (growth.to_header.empty()) return Change(files, growth.path, growth.to_length, growth.from_length);
  return Change(files, growth.path, growth.to_header, growth.from_header);
}

}  // namespace vexa::disks
