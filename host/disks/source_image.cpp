#include "host/disks/source_image.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "host/base/qcow2_header.h"
#include "host/base/rooted_file.h"
#include "host/base/sanitize_for_log.h"
#include "host/disks/disk_files.h"

namespace vexa::disks {
namespace {

constexpr std::size_t kSectorBytes = 512;
constexpr std::size_t kHeaderBytes = 1024;
constexpr std::string_view kQcow2Magic("QFI\xfb", 4);
constexpr std::string_view kVmdkMagic = "KDMV";
constexpr std::string_view kVdiMagic("\x7f\x10\xda\xbe", 4);
constexpr std::size_t kVdiMagicOffset = 0x40;
// How much of the text in a VMDK image is read at least: what QEMU reads.
constexpr std::uint64_t kVmdkTextBytes = 20 * kSectorBytes;
constexpr std::uint64_t kMaxVmdkTextBytes = std::uint64_t{1} << 20;

// Formats that are not supported, at the beginning of a file, so that they are not taken for raw images.
constexpr std::pair<std::string_view, const char*> kOthers[] = {
    {"# Disk Descriptor", "a VMDK descriptor, which names other files"},
    {"COWD", "a VMDK image of an old kind"},
    {"vhdxfile", "a VHDX image"},
    {"conectix", "a VHD image"},
    {std::string_view("QED\0", 4), "a QED image"},
    {"WithoutFreeSpace", "a Parallels image"},
    {"WithouFreSpacExt", "a Parallels image"}};

std::uint64_t LittleEndian(std::string_view bytes, std::size_t offset, std::size_t count) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < count && offset + i < bytes.size(); ++i) {
    number |= std::uint64_t{static_cast<unsigned char>(bytes[offset + i])} << (8 * i);
  }
  return number;
}

bool IsZero(std::string_view bytes) {
  return std::ranges::all_of(bytes, [](char c) { return c == 0; });
}

// Fewer bytes when the file ends before.
Result<std::string> ReadPart(int file, std::uint64_t offset, std::size_t count) {
  std::string bytes(count, '\0');
  std::size_t done = 0;
  while (done < count) {
    const ssize_t got = ::pread(file, bytes.data() + done, count - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return SystemError(ErrorCode::kInternal, "it cannot be read", errno);
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  bytes.resize(done);
  return bytes;
}

std::string LowerCase(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 32) : c; });
  return text;
}

// Whether the image has a parent according to its text, or names other files as its extents.
Status CheckVmdkText(const std::string& text) {
  const std::string lower = LowerCase(text);
  if (lower.find("parentfilenamehint") != std::string::npos) {
    return Error(ErrorCode::kInvalid, "it needs another image, its parent");
  }
  constexpr std::string_view kParent = "parentcid=";
  const std::size_t parent = lower.find(kParent);
  if (parent != std::string::npos && lower.substr(parent + kParent.size(), 8) != "ffffffff") {
    return Error(ErrorCode::kInvalid, "it needs another image, its parent");
  }
  constexpr std::string_view kType = "createtype=\"";
  const std::size_t type = lower.find(kType);
  if (type == std::string::npos) return Error(ErrorCode::kInvalid, "it has no type");
  const std::string_view rest = std::string_view(lower).substr(type + kType.size());
  if (rest.starts_with("monolithicsparse\"") || rest.starts_with("streamoptimized\"")) return {};
  return Error(ErrorCode::kInvalid, "it consists of several files");
}

Result<std::uint64_t> VmdkSize(int file, std::string_view header) {
  const std::uint64_t sectors = LittleEndian(header, 12, 8);
  const std::uint64_t text_begin = LittleEndian(header, 28, 8);
  const std::uint64_t text_sectors = LittleEndian(header, 36, 8);
  const bool is_valid = header.size() == kHeaderBytes && sectors > 0 && sectors <= UINT64_MAX / kSectorBytes &&
                        text_begin > 0 && text_begin <= INT64_MAX / kSectorBytes &&
                        text_sectors <= kMaxVmdkTextBytes / kSectorBytes;
  if (!is_valid) return Error(ErrorCode::kInvalid, "its header is damaged");
  const Result<std::string> text =
      ReadPart(file, text_begin * kSectorBytes, std::max(text_sectors * kSectorBytes, kVmdkTextBytes));
  if (!text) return text.error();
  if (const Status checked = CheckVmdkText(*text); !checked) return checked.error();
  return sectors * kSectorBytes;
}

Result<std::uint64_t> VdiSize(std::string_view header) {
  constexpr std::uint64_t kVersion = 0x00010001;
  constexpr std::size_t kUuidBytes = 16;
  const std::uint64_t type = LittleEndian(header, 0x4c, 4);
  const std::uint64_t size = LittleEndian(header, 0x170, 8);
  if (header.size() != kHeaderBytes || LittleEndian(header, 0x44, 4) != kVersion || size == 0) {
    return Error(ErrorCode::kInvalid, "its header is damaged or of an unknown version");
  }
  const bool stands_alone = (type == 1 || type == 2) && IsZero(header.substr(0x1a8, 2 * kUuidBytes));
  if (!stands_alone) return Error(ErrorCode::kInvalid, "it needs another image, its parent");
  return size;
}

Result<std::uint64_t> RawSize(std::string_view header, std::uint64_t length) {
  for (const auto& [magic, what] : kOthers) {
    if (header.starts_with(magic)) {
      return Error(ErrorCode::kInvalid, fmt::format("it is {}; use raw, qcow2, vmdk or vdi", what));
    }
  }
  if (length == 0 || length % kSectorBytes != 0) {
    return Error(ErrorCode::kInvalid, "it has no known format, and its length is not that of a raw image");
  }
  return length;
}

// Determines format and size. Errors as clauses.
Status Examine(SourceImage& image, std::uint64_t length) {
  const Result<std::string> header = ReadPart(image.file.get(), 0, kHeaderBytes);
  if (!header) return header.error();
  Result<std::uint64_t> size = std::uint64_t{0};
  if (header->starts_with(kQcow2Magic)) {
    image.format = SourceFormat::kQcow2;
    const Result<Qcow2Header> qcow2 = ReadStandaloneQcow2(image.file.get(), image.path);
    if (!qcow2) return qcow2.error();
    size = qcow2->size;
  } else if (header->starts_with(kVmdkMagic)) {
    image.format = SourceFormat::kVmdk;
    size = VmdkSize(image.file.get(), *header);
  } else if (std::string_view(*header).substr(std::min(header->size(), kVdiMagicOffset)).starts_with(kVdiMagic)) {
    image.format = SourceFormat::kVdi;
    size = VdiSize(*header);
  } else {
    size = RawSize(*header, length);
  }
  if (!size) return size.error();
  image.size = *size;
  return {};
}

}  // namespace

const char* SourceFormatName(SourceFormat format) {
  constexpr const char* kNames[] = {"raw", "qcow2", "vmdk", "vdi"};
  return kNames[static_cast<std::size_t>(format)];
}

Result<SourceImage> OpenSourceImage(const std::vector<std::string>& roots, const std::string& path) {
  const auto fail = [&](ErrorCode code, const std::string& why) {
    return Error(code, fmt::format("The image '{}' cannot be copied: {}", SanitizePathForLog(path), why));
  };
  const std::vector<std::string> normal_roots = NormalRoots(roots);
  const std::optional<std::string> normal = NormalPath(path);
  const std::string* const root = normal ? FindRoot(normal_roots, *normal) : nullptr;
  if (root == nullptr) return fail(ErrorCode::kInvalid, "it is outside the image folders");
  const Descriptor top(::open(root->empty() ? "/" : root->c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (top.get() < 0) return fail(ErrorCode::kInternal, SystemError(ErrorCode::kInternal, *root, errno).ToString());
  // Not blocking: the name may be that of a pipe.
  SourceImage image{
      *normal, OpenBelow(top.get(), normal->substr(root->size() + 1), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)};
  if (image.file.get() < 0 && errno == ENOENT) return fail(ErrorCode::kNotFound, "there is no such file");
  if (image.file.get() < 0 && (errno == ELOOP || errno == EXDEV)) {
    return fail(ErrorCode::kInvalid, "it is a symbolic link, or in a folder that is one");
  }
  if (image.file.get() < 0) {
    return fail(ErrorCode::kInternal, SystemError(ErrorCode::kInternal, "it cannot be opened", errno).ToString());
  }
  struct stat info {};
  if (::fstat(image.file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return fail(ErrorCode::kInvalid, "it is not a regular file");
  }
  if (const Status examined = Examine(image, static_cast<std::uint64_t>(info.st_size)); !examined) {
    return fail(examined.error().code(), examined.error().ToString());
  }
  return image;
}

}  // namespace vexa::disks
