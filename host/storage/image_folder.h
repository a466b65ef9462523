// Makes folders for images, so that QEMU's account can use them.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::storage {

// How folders and finished images are made available to the account that QEMU runs as.
struct QemuAccess {
  std::optional<gid_t> group;  // gets new folders and images; not set: they keep that of the daemon
  mode_t folder_mode = 0700;
  mode_t file_mode = 0644;
};

// Where QEMU runs as an account of its own (a libvirt's daemon, or embedded in a daemon that is root), a root's folders
// and images belong to that account's group. A daemon that is not root cannot give them away: the account may pass
// through its folders. Otherwise QEMU runs as this process. `hypervisor` is the daemon's setting. Reads the user
// database.
QemuAccess QemuAccessFor(const std::string& hypervisor, const char* account = "libvirt-qemu");

// Makes one folder, durably, unless it exists. One of this process's account that only that account can use, as older
// versions made it, is made available; other folders stay as they are. Errors: kUnavailable, with the path and the
// system's reason.
Status MakeFolder(const std::string& path, const QemuAccess& access);

// Makes the image folder `root` unless it exists, and below it, unless it is empty or exists, the folder `name`.
// Folders above the root are not made. Nothing is made in place of a folder in which files of a repository of `host_id`
// were found before: it is not mounted. Errors: kUnavailable (a folder is not mounted, or may not be made), and those
// of the store. Accesses the file system, which may hang, while no snapshot of its own is open.
Status MakeImageFolder(const store::Store& store, const std::string& host_id, const std::string& root,
                       const std::string& name, const QemuAccess& access);

}  // namespace vexa::storage
