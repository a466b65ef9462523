#include "host/base/qcow2_header.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/base/sanitize_for_log.h"

namespace vexa {
namespace {

constexpr std::string_view kMagic = "QFI\xfb";
constexpr std::size_t kVersion2Length = 72;
constexpr std::size_t kVersion3Length = 104;
constexpr std::uint64_t kMaxBackingNameBytes = 1023;
constexpr std::uint64_t kMinClusterBits = 9;
constexpr std::uint64_t kMaxClusterBits = 21;

// Where the fields are. Those from kIncompatible on are in version 3 only.
constexpr std::size_t kVersion = 4;
constexpr std::size_t kBackingOffset = 8;
constexpr std::size_t kBackingLength = 16;
constexpr std::size_t kClusterBits = 20;
constexpr std::size_t kSize = 24;
constexpr std::size_t kEncryption = 32;
constexpr std::size_t kIncompatible = 72;
constexpr std::size_t kHeaderLength = 100;

// Bits of incompatible features. The others that are known here: it was not closed properly (0), it is damaged (1), its
// type of compression (3), extended entries (4). QEMU decides about those.
constexpr std::uint64_t kHasDataFile = 1U << 2;
constexpr std::uint64_t kKnownFeatures = 0x1f;

constexpr std::size_t kExtensionHeadLength = 8;
constexpr std::uint64_t kEndOfExtensions = 0;
constexpr std::uint64_t kDataFileName = 0x44415441;

// All numbers are big-endian.
std::uint64_t NumberAt(std::string_view bytes, std::size_t offset, unsigned count) {
  std::uint64_t number = 0;
  for (unsigned i = 0; i < count; ++i) number = number << 8 | static_cast<unsigned char>(bytes[offset + i]);
  return number;
}

Error Invalid(std::string_view clause) { return Error(ErrorCode::kInvalid, std::string(clause)); }
Error EndsTooEarly() { return Invalid("its header ends too early"); }

// Reads the list of extensions in `begin` from `offset` to `end`, where the first cluster or the name of the backing
// file is. As for QEMU, what is behind the end of the file counts as zeros.
Status ReadExtensions(std::string_view begin, std::size_t offset, std::uint64_t end, Qcow2Header& header) {
  const bool is_whole_image = begin.size() < kMaxQcow2HeaderBytes;
  while (offset < end) {
    const std::string_view rest = begin.substr(std::min(offset, begin.size()));
    if (rest.size() < kExtensionHeadLength) {
      const bool is_zero = rest.find_first_not_of('\0') == std::string_view::npos;
      if (is_whole_image && is_zero) return {};
      return is_whole_image ? EndsTooEarly() : Invalid("its header is too long");
    }
    const std::uint64_t type = NumberAt(rest, 0, 4);
    const std::uint64_t length = NumberAt(rest, 4, 4);
    if (type == kEndOfExtensions) return {};
    if (length > end - offset - std::min<std::uint64_t>(kExtensionHeadLength, end - offset)) {
      return Invalid("an extension of its header is too long");
    }
    if (length > rest.size() - kExtensionHeadLength) {
      return is_whole_image ? EndsTooEarly() : Invalid("its header is too long");
    }
    if (type == kDataFileName) header.data_file = rest.substr(kExtensionHeadLength, length);
    offset += kExtensionHeadLength + static_cast<std::size_t>((length + 7) / 8 * 8);
  }
  return {};
}

// The name of the backing file; not set when the image has no backing file.
Result<std::optional<std::string>> BackingFile(std::string_view begin, std::uint64_t cluster) {
  const std::uint64_t offset = NumberAt(begin, kBackingOffset, 8);
  const std::uint64_t length = NumberAt(begin, kBackingLength, 4);
  if (offset == 0 && length == 0) return std::optional<std::string>();
  if (length > kMaxBackingNameBytes || offset > cluster || length > cluster - offset) {
    return Invalid("the name of its backing file is not in its header");
  }
  if (offset >= begin.size()) return std::optional<std::string>("");
  return std::optional<std::string>(begin.substr(offset, length));
}

Status CheckStandsAlone(const Qcow2Header& header, const std::string& path) {
  const std::string displayed = SanitizePathForLog(path);
  const auto refuse = [](std::string sentence) { return Error(ErrorCode::kInvalid, std::move(sentence)); };
  if (header.backing_file) {
    return refuse(
        fmt::format("The image '{}' has the backing file '{}', which QEMU would open as well. Merge both into "
                    "one image with 'qemu-img convert -O qcow2 OLD NEW'",
                    displayed, SanitizePathForLog(*header.backing_file)));
  }
  if (header.data_file) {
    return refuse(
        fmt::format("The image '{}' has its data in another file, '{}', which QEMU would open as well. Merge "
                    "both into one image with 'qemu-img convert -O qcow2 OLD NEW'",
                    displayed, SanitizePathForLog(*header.data_file)));
  }
  if (header.is_encrypted) {
    return refuse(fmt::format("The image '{}' is encrypted, which is not supported. Decrypt it with 'qemu-img convert'",
                              displayed));
  }
  if (header.unknown_features != 0) {
    return refuse(
        fmt::format("The image '{}' has unknown features (bits {:#x}). Convert it with 'qemu-img convert -O "
                    "qcow2 OLD NEW'",
                    displayed, header.unknown_features));
  }
  return {};
}

}  // namespace

Result<Qcow2Header> ParseQcow2Header(std::string_view begin) {
  if (!begin.starts_with(kMagic)) return Invalid("it is not a qcow2 image");
  if (begin.size() < kVersion2Length) return EndsTooEarly();
  Qcow2Header header;
  header.version = static_cast<std::uint32_t>(NumberAt(begin, kVersion, 4));
  if (header.version != 2 && header.version != 3) {
    return Error(ErrorCode::kInvalid, fmt::format("it is a qcow2 image of the unknown version {}", header.version));
  }
  const std::uint64_t cluster_bits = NumberAt(begin, kClusterBits, 4);
  if (cluster_bits < kMinClusterBits || cluster_bits > kMaxClusterBits) {
    return Invalid("the size of its clusters is unknown");
  }
  const std::uint64_t cluster = std::uint64_t{1} << cluster_bits;
  std::uint64_t length = kVersion2Length;
  if (header.version == 3) {
    if (begin.size() < kVersion3Length) return EndsTooEarly();
    length = NumberAt(begin, kHeaderLength, 4);
    if (length < kVersion3Length || length > cluster) return Invalid("the length of its header is wrong");
    if (length > begin.size()) return EndsTooEarly();
    const std::uint64_t features = NumberAt(begin, kIncompatible, 8);
    if ((features & kHasDataFile) != 0) header.data_file = "";
    header.unknown_features = features & ~kKnownFeatures;
  }
  header.size = NumberAt(begin, kSize, 8);
  header.is_encrypted = NumberAt(begin, kEncryption, 4) != 0;
  auto backing_file = BackingFile(begin, cluster);
  if (!backing_file) return backing_file.error();
  header.backing_file = std::move(*backing_file);
  // QEMU looks for extensions before the name of the backing file only. An image with such a name is refused anyway.
  if (Status read = ReadExtensions(begin, static_cast<std::size_t>(length), cluster, header);
      !read && !header.backing_file) {
    return read.error();
  }
  return header;
}

Result<Qcow2Header> ReadStandaloneQcow2(int file, const std::string& path) {
  std::string begin(kMaxQcow2HeaderBytes, '\0');
  std::size_t have = 0;
  while (have < begin.size()) {
    const ssize_t count = ::pread(file, begin.data() + have, begin.size() - have, static_cast<off_t>(have));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      return SystemError(ErrorCode::kInternal, fmt::format("Cannot read the image '{}'", SanitizePathForLog(path)),
                         errno);
    }
    if (count == 0) break;
    have += static_cast<std::size_t>(count);
  }
  begin.resize(have);
  Result<Qcow2Header> header = ParseQcow2Header(begin);
  if (!header) {
    return Error(ErrorCode::kInvalid,
                 fmt::format("The image '{}' cannot be used: {}", SanitizePathForLog(path), header.error().message()));
  }
  if (Status alone = CheckStandsAlone(*header, path); !alone) return alone.error();
  return header;
}

}  // namespace vexa
