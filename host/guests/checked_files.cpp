#include "host/guests/checked_files.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string_view>
#include <utility>

#include "host/base/access_error.h"
#include "host/base/qcow2_header.h"
#include "host/base/rooted_file.h"
#include "host/base/sanitize_for_log.h"
#include "host/disks/disk_files.h"

namespace vexa::guests {
namespace {

using domain_xml::DomainImage;
using hypervisor::HeldFile;

constexpr std::string_view kDevices = "/dev/";
constexpr std::uint64_t kMaxPidFileBytes = 16;

Error Unusable(const DomainImage& image, ErrorCode code, std::string_view reason) {
  return Error(code, fmt::format("The {} cannot be used: '{}' {}", image.name, SanitizePathForLog(image.path), reason));
}

Error CannotOpen(const DomainImage& image, int error_number) {
  switch (error_number) {
    case ENOENT:
    case ENOTDIR:
      return Unusable(image, ErrorCode::kNotFound, "does not exist");
    case ELOOP:
    case EXDEV:
      return Unusable(image, ErrorCode::kInvalid, "is reached through a symbolic link. Name the file itself");
    default:
      return AccessError(error_number == EACCES || error_number == EPERM ? ErrorCode::kDenied : ErrorCode::kInternal,
                         Unusable(image, ErrorCode::kInternal, "cannot be opened").message(), image.path,
                         AccessTo::kContent, error_number);
  }
}

// Opens the file only to name it, which has no side effects on devices and never blocks. On failure, errno has the
// reason. `roots` comes from NormalRoots().
Descriptor OpenToName(const std::vector<std::string>& roots, const std::string& path) {
  if (path.starts_with(kDevices)) return Descriptor(::open(path.c_str(), O_PATH | O_CLOEXEC));
  const std::string* const root = disks::FindRoot(roots, path);
  if (root == nullptr) return Descriptor(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  const Descriptor folder(::open(root->empty() ? "/" : root->c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (folder.get() < 0) return Descriptor();
  return OpenBelow(folder.get(), path.substr(root->size() + 1), O_PATH | O_NOFOLLOW);
}

// The path under which the system knows the file: its folder may be reached through links.
std::string PathOfSystem(const std::string& path) {
  const std::filesystem::path file(path);
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::canonical(file.parent_path(), error);
  return error ? path : (folder / file.filename()).string();
}

// Whether a process with `held` open has it for another reason than as an image: its own program files, shared memory,
// the memory of the guest, its process id.
bool IsSystemFile(const HeldFile& held) {
  if (!S_ISREG(held.mode)) return !S_ISBLK(held.mode);
  constexpr std::string_view kSystemFolders[] = {"/usr/", "/lib/", "/lib64/", "/dev/", "/proc/", "/sys/", "/memfd:"};
  const auto is_below = [&](std::string_view folder) { return held.path.starts_with(folder); };
  const bool is_pid_file = held.path.ends_with(".pid") && held.size <= kMaxPidFileBytes;
  const bool is_memory =
      held.path.find("/qemu/ram/") != std::string::npos || held.path.find("/qemu_back_mem.") != std::string::npos;
  return is_pid_file || is_memory || std::ranges::any_of(kSystemFolders, is_below);
}

}  // namespace

CheckedFiles::Identity CheckedFiles::IdentityOf(const HeldFile& held) {
  // A process may have device files of its own, so the device counts.
  if (S_ISBLK(held.mode)) return {true, held.block_device, 0};
  return {false, held.device, held.inode};
}

Result<CheckedFiles> CheckedFiles::Open(const std::string& xml, FileCheckOptions options) {
  auto named = domain_xml::ParseDomainFiles(xml);
  if (!named) return named.error();
  CheckedFiles checked;
  checked.options_ = std::move(options);
  checked.options_.roots = disks::NormalRoots(checked.options_.roots);
  checked.named_ = std::move(*named);
  for (const DomainImage& image : checked.named_.images) {
    if (Status added = checked.Add(image); !added) return added.error();
  }
  return checked;
}

Status CheckedFiles::Add(const DomainImage& image) {
  Result<File> file = OpenFile(image);
  if (!file && image.is_optional && file.error().code() == ErrorCode::kNotFound) {
    missing_.push_back(image);
    return {};
  }
  if (!file) return Accept(file.error(), image.path);
  if (image.format == domain_xml::ImageFormat::kQcow2) {
    if (Status checked = CheckHeader(*file); !checked) return checked;
  }
  files_.push_back(std::move(*file));
  return {};
}

void CheckedFiles::AddFirmware(const domain_xml::FirmwareFiles& firmware) {
  if (!firmware.loader.empty()) named_.other_files.push_back(firmware.loader);
  const std::string& path = firmware.variables;
  const bool is_named = std::ranges::find(named_.images, path, &DomainImage::path) != named_.images.end();
  if (path.empty() || is_named) return;
  missing_.push_back({"file with the UEFI variables", path, domain_xml::ImageFormat::kRaw, true});
}

Result<CheckedFiles::File> CheckedFiles::OpenFile(const DomainImage& image) const {
  const std::optional<std::string> path = disks::NormalPath(image.path);
  if (!path) return Unusable(image, ErrorCode::kInvalid, "is not the absolute path of a file");
  File file{image, OpenToName(options_.roots, *path), {}};
  file.image.path = *path;
  if (file.descriptor.get() < 0) return CannotOpen(file.image, errno);
  const auto identity = Identify(file.descriptor.get(), *path);
  if (!identity) return Unusable(file.image, identity.error().code(), identity.error().ToString());
  file.identity = *identity;
  return file;
}

// Reads the file that was opened, wherever its path leads by now.
Status CheckedFiles::CheckHeader(const File& file) {
  const std::string link = fmt::format("/proc/self/fd/{}", file.descriptor.get());
  const Descriptor readable(::open(link.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (readable.get() < 0) return Accept(CannotOpen(file.image, errno), file.image.path);
  const auto header = ReadStandaloneQcow2(readable.get(), file.image.path);
  return header ? Status() : Status(header.error());
}

// Returns `error` unless it only means that this process lacks rights, and the options accept that.
Status CheckedFiles::Accept(Error error, const std::string& path) {
  if (error.code() != ErrorCode::kDenied || options_.if_unreadable == IfUnreadable::kRefuse) return error;
  unreadable_.push_back(path);
  return {};
}

// Errors: the reason why `path` cannot be an image.
Result<CheckedFiles::Identity> CheckedFiles::Identify(int file, const std::string& path) const {
  struct stat info {};
  if (options_.stat(file, &info) != 0) return SystemError(ErrorCode::kInternal, "cannot be examined", errno);
  const bool may_be_device = path.starts_with(kDevices);
  if (S_ISREG(info.st_mode)) return Identity{false, info.st_dev, info.st_ino};
  if (S_ISBLK(info.st_mode) && may_be_device) return Identity{true, info.st_rdev, 0};
  if (S_ISLNK(info.st_mode)) return Error(ErrorCode::kInvalid, "is a symbolic link. Name the file itself");
  return Error(ErrorCode::kInvalid,
               may_be_device ? "is neither a block device nor a regular file" : "is not a regular file");
}

// Whether the path leads to the same file each time it is opened. A path that now leads elsewhere is stable too.
bool CheckedFiles::HasStableIdentity(const File& file) const {
  std::optional<Identity> first;
  for (int i = 0; i < 2; ++i) {
    const Descriptor opened = OpenToName(options_.roots, file.image.path);
    if (opened.get() < 0) return true;
    const auto identity = Identify(opened.get(), file.image.path);
    if (!identity) return true;
    if (first && *first != *identity) return false;
    first = *identity;
  }
  return true;
}

bool CheckedFiles::IsNamed(const HeldFile& held) const {
  const auto is_same = [&](const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && info.st_dev == held.device && info.st_ino == held.inode;
  };
  const auto is_below = [&](const std::string& folder) {
    std::error_code error;
    const std::string path = std::filesystem::canonical(folder, error).string();
    return !error && path != "/" && held.path.starts_with(path + "/");
  };
  // Where this process may not look a file up, only its path can be compared.
  const auto is_unreadable = [&](const std::string& path) {
    struct stat info {};
    return is_same(path) || (::stat(path.c_str(), &info) != 0 && held.path == PathOfSystem(path));
  };
  const auto contains = [&](const std::string& argument) { return argument.find(held.path) != std::string::npos; };
  // libvirt puts what a guest writes to a transient disk into such a file.
  const auto is_overlay = [&](const File& file) {
    return held.path.starts_with(PathOfSystem(file.image.path) + ".TRANSIENT");
  };
  return std::ranges::any_of(named_.other_files, is_same) || std::ranges::any_of(named_.shared_folders, is_below) ||
         std::ranges::any_of(named_.arguments, contains) || std::ranges::any_of(files_, is_overlay) ||
         std::ranges::any_of(unreadable_, is_unreadable);
}

// Whether it is an image that has been made since the others were checked, such as new UEFI variables.
bool CheckedFiles::IsNewImage(const HeldFile& held) const {
  return std::ranges::any_of(missing_, [&](const DomainImage& image) {
    const Result<File> file = OpenFile(image);
    return file && file->identity == IdentityOf(held);
  });
}

Result<std::vector<std::string>> CheckedFiles::Compare(const std::vector<HeldFile>& held) const {
  std::vector<std::string> not_compared;
  std::vector<std::string> expected_paths;
  for (const File& file : files_) {
    if (std::ranges::find(held, file.identity, IdentityOf) != held.end()) continue;
    const std::string path = PathOfSystem(file.image.path);
    const bool is_held = std::ranges::find(held, path, &HeldFile::path) != held.end();
    if (is_held && !HasStableIdentity(file)) {
      not_compared.push_back(file.image.path);
      expected_paths.push_back(path);
    } else if (is_held || !file.image.is_optional) {
      return Error(ErrorCode::kInvalid, fmt::format("QEMU does not have the file '{}' open that was checked for the {}",
                                                    SanitizePathForLog(file.image.path), file.image.name));
    }
  }
  for (const HeldFile& other : held) {
    const bool is_expected = std::ranges::find(files_, IdentityOf(other), &File::identity) != files_.end() ||
                             std::ranges::find(expected_paths, other.path) != expected_paths.end() ||
                             IsSystemFile(other) || IsNamed(other) || IsNewImage(other);
    if (is_expected) continue;
    return Error(ErrorCode::kInvalid, fmt::format("QEMU has opened '{}', which is not an image of the guest",
                                                  SanitizePathForLog(other.path)));
  }
  return not_compared;
}

}  // namespace vexa::guests
