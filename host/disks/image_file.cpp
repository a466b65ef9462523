#include "host/disks/image_file.h"

#include <algorithm>
#include <string_view>

#include "host/base/log_text.h"

namespace vexa::guests {
namespace {

using hypervisor::ImageFormat;

// The format is in QEMU's documentation ("The QCOW2 image format"). All numbers are big-endian.
constexpr std::string_view kMagic = "QFI\xfb";
constexpr unsigned kClusterBits = 16;
constexpr std::uint64_t kCluster = std::uint64_t{1} << kClusterBits;
constexpr std::size_t kHeaderLength = 104;
constexpr std::size_t kSizeOffset = 24;  // the size (8 bytes), the encryption (4), the entries of the first table (4)
constexpr std::size_t kHeadLength = 16;
constexpr std::uint64_t kMaxTableBytes = std::uint64_t{32} << 20;

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

// What one entry of the first-level table covers: a cluster full of entries, each for one cluster.
std::uint64_t BytesPerEntry(unsigned cluster_bits) { return std::uint64_t{1} << (2 * cluster_bits - 3); }

EmptyImage MakeEmptyQcow2(std::uint64_t size) {
  const std::uint64_t needed = DivideRoundingUp(size, BytesPerEntry(kClusterBits));
  const std::uint64_t table_clusters = std::max<std::uint64_t>(DivideRoundingUp(needed * 8, kCluster), 1);
  const std::uint64_t entries = table_clusters * kCluster / 8;
  std::string header(kMagic);
  Append(header, 3, 4);             // the version
  Append(header, 0, 8);             // no backing file
  Append(header, 0, 4);             // and no name of one
  Append(header, kClusterBits, 4);  //
  Append(header, size, 8);          //
  Append(header, 0, 4);             // no encryption
  Append(header, entries, 4);       // of the first-level table
  Append(header, 3 * kCluster, 8);  // which exists
  Append(header, kCluster, 8);      // the table of reference counts
  Append(header, 1, 4);             // of one cluster
  Append(header, 0, 4);             // no snapshots
  Append(header, 0, 8);             //
  Append(header, 0, 8);             // no features
  Append(header, 0, 8);             //
  Append(header, 0, 8);             //
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

Error About(const std::string& path, ErrorCode code, const std::string& what) {
  return Error(code, "The image '" + cluster::ShownPath(path) + "' " + what);
}

Error UnsupportedImage(const std::string& path, const std::string& what) {
  return About(path, ErrorCode::kInvalid, what + ": grow it with 'qemu-img resize' while the guest is off");
}

Result<Growth> PlanQcow2Growth(const DiskFiles& files, const std::string& path, std::uint64_t size) {
  const auto header = files.ReadAt(path, 0, kHeaderLength);
  if (!header) return header.error();
  if (header->size() < 72 || !header->starts_with(kMagic))
    return About(path, ErrorCode::kInvalid, "is not a qcow2 image");
  const std::uint64_t version = NumberAt(*header, 4, 4);
  const auto cluster_bits = static_cast<unsigned>(NumberAt(*header, 20, 4));
  const std::uint64_t entries = NumberAt(*header, 36, 4);
  const bool is_known = (version == 2 || (version == 3 && header->size() == kHeaderLength)) && cluster_bits >= 9 &&
                        cluster_bits <= 21 && NumberAt(*header, 32, 4) == 0;
  if (!is_known) return UnsupportedImage(path, "is of an unusual kind");
  if (NumberAt(*header, 60, 4) != 0) return UnsupportedImage(path, "has snapshots");
  if (version == 3 && (NumberAt(*header, 72, 8) != 0 || NumberAt(*header, 88, 8) != 0)) {
    return UnsupportedImage(path, "was not closed properly, or has unusual features");
  }
  const std::uint64_t now = NumberAt(*header, kSizeOffset, 8);
  if (now > size) return About(path, ErrorCode::kConflict, "has " + std::to_string(now) + " bytes already");
  const std::uint64_t cluster = std::uint64_t{1} << cluster_bits;
  const std::uint64_t needed = DivideRoundingUp(size, BytesPerEntry(cluster_bits));
  const std::uint64_t room = DivideRoundingUp(entries * 8, cluster) * cluster / 8;
  if (needed > room || needed * 8 > kMaxTableBytes) return UnsupportedImage(path, "has no room in its tables");
  if (needed > entries) {
    const std::uint64_t table = NumberAt(*header, 40, 8);
    const auto rest = files.ReadAt(path, table + entries * 8, (needed - entries) * 8);
    if (!rest) return rest.error();
    if (rest->find_first_not_of('\0') != std::string::npos) return UnsupportedImage(path, "has no room in its tables");
  }
  Growth growth{path, 0, 0, header->substr(kSizeOffset, kHeadLength), {}};
  Append(growth.to_head, size, 8);
  Append(growth.to_head, 0, 4);
  Append(growth.to_head, std::max(needed, entries), 4);
  return growth;
}

Error Otherwise(const std::string& path) { return About(path, ErrorCode::kConflict, "was changed by another program"); }

Status Change(const DiskFiles& files, const std::string& path, std::uint64_t from, std::uint64_t to) {
  const auto length = files.Length(path);
  if (!length) return length.error();
  if (*length == to) return {};
  if (*length != from) return Otherwise(path);
  return files.SetLength(path, to);
}

Status Change(const DiskFiles& files, const std::string& path, const std::string& from, const std::string& to) {
  const auto now = files.ReadAt(path, kSizeOffset, kHeadLength);
  if (!now) return now.error();
  if (*now == to) return {};
  if (*now != from) return Otherwise(path);
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
  if (*length > size) return About(path, ErrorCode::kConflict, "has " + std::to_string(*length) + " bytes already");
  return Growth{path, *length, size, {}, {}};
}

Result<GrowthState> StateOf(const DiskFiles& files, const Growth& growth) {
  const auto state = [](const auto& now, const auto& from, const auto& to) {
    if (now == from) return GrowthState::kBefore;
    return now == to ? GrowthState::kAfter : GrowthState::kOther;
  };
  if (growth.to_head.empty()) {
    const auto length = files.Length(growth.path);
    if (!length) return length.error();
    return state(*length, growth.from_length, growth.to_length);
  }
  const auto head = files.ReadAt(growth.path, kSizeOffset, kHeadLength);
  if (!head) return head.error();
  return state(*head, growth.from_head, growth.to_head);
}

Status Grow(const DiskFiles& files, const Growth& growth) {
  if (growth.to_head.empty()) return Change(files, growth.path, growth.from_length, growth.to_length);
  return Change(files, growth.path, growth.from_head, growth.to_head);
}

Status UndoGrowth(const DiskFiles& files, const Growth& growth) {
  if (growth.to_head.empty()) return Change(files, growth.path, growth.to_length, growth.from_length);
  return Change(files, growth.path, growth.to_head, growth.from_head);
}

}  // namespace vexa::guests
