// The files of a guest's disks and drives while the guest is started.
//
// QEMU opens them by their paths, so a path could be replaced between the check and that moment, for instance by a link
// to another guest's disk. The checked files therefore stay open, and are compared with what QEMU has open afterwards.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "host/base/descriptor.h"
#include "host/base/result.h"
#include "host/domain_xml/domain_files.h"
#include "host/hypervisor/held_file.h"

namespace vexa::guests {

// What to do with an image whose header this process may not read.
enum class IfUnreadable {
  kRefuse,
  kAccept,  // libvirt starts guests with images that only it can read
};

struct FileCheckOptions {
  std::vector<std::string> roots;  // below these, no folder on the path of a file may be a symbolic link either
  IfUnreadable if_unreadable = IfUnreadable::kRefuse;
  std::function<int(int file, struct stat* info)> stat = ::fstat;  // tests replace it
};

// Threads: one at a time.
class CheckedFiles {
 public:
  // Opens and checks the images in `xml`, the definition that the guest is started with. Each must be a regular file,
  // or a block device where its path is below /dev, and not be reached through a symbolic link; paths below /dev may be
  // links. The header of a qcow2 image must not name other files, see ReadStandaloneQcow2.
  // Errors, with the path and the reason: kInvalid (a file that must not be used), kNotFound, kDenied, kInternal.
  static Result<CheckedFiles> Open(const std::string& xml, FileCheckOptions options);

  // The images that could not be opened, or whose headers could not be read.
  const std::vector<std::string>& unreadable() const { return unreadable_; }

  // Adds the firmware that libvirt has chosen for the start, as far as the definition does not name it.
  void AddFirmware(const domain_xml::FirmwareFiles& firmware);

  // Compares the files with the ones that the guest's process has open. Returns the paths that could not be compared,
  // because their file system gives a file another number each time it is opened. Errors: kInvalid when a file is not
  // the one that was checked, or the process has a file open that the definition does not name, such as a backing file.
  Result<std::vector<std::string>> Compare(const std::vector<hypervisor::HeldFile>& held) const;

 private:
  struct Identity {
    bool is_block_device = false;
    dev_t device = 0;  // which contains the file, or the block device itself
    ino_t inode = 0;
    bool operator==(const Identity&) const = default;
  };
  struct File {
    domain_xml::DomainImage image;
    Descriptor descriptor;  // only names the file, and keeps its number from being used again
    Identity identity;
  };
  static Identity IdentityOf(const hypervisor::HeldFile& held);

  CheckedFiles() = default;
  Status Add(const domain_xml::DomainImage& image);
  Result<File> OpenFile(const domain_xml::DomainImage& image) const;
  Status CheckHeader(const File& file);
  Status Accept(Error denied, const std::string& path);
  Result<Identity> Identify(int file, const std::string& path) const;
  bool HasStableIdentity(const File& file) const;
  bool IsNamed(const hypervisor::HeldFile& held) const;
  bool IsNewImage(const hypervisor::HeldFile& held) const;

  FileCheckOptions options_;
  domain_xml::DomainFiles named_;
  std::vector<File> files_;
  // Optional images that did not exist, or were not named, when the others were checked.
  std::vector<domain_xml::DomainImage> missing_;
  std::vector<std::string> unreadable_;
};

}  // namespace vexa::guests
