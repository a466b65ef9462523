// Folders to mount on, in a mount namespace of the test program's own.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "host/storage/storage_watch.h"
#include "host/store/store.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {

inline void WriteText(const char* path, const std::string& text) { std::ofstream(path) << text; }

// Moves this program into a mount namespace, once; as another user than root with a user namespace around it. False:
// the machine does not permit that. To be called before there are other threads.
inline bool CanMount() {
  static const bool can = [] {
    const std::string uid = std::to_string(::getuid());
    const std::string gid = std::to_string(::getgid());
    if (::unshare(CLONE_NEWNS) != 0) {
      if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
      WriteText("/proc/self/setgroups", "deny");
      WriteText("/proc/self/uid_map", "0 " + uid + " 1");
      WriteText("/proc/self/gid_map", "0 " + gid + " 1");
    }
    return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  }();
  return can;
}

// A user namespace is not to be had once there are other threads.
inline const bool kCouldMountFromTheStart = CanMount();

inline constexpr char kCannotMount[] = "this machine permits neither a mount namespace nor a user namespace";

// A folder; whatever is mounted in it goes with it.
class MountPoint {
 public:
  explicit MountPoint(const std::string& name) : path_(folder_.File(name)) {
    std::filesystem::create_directories(path_);
  }
  ~MountPoint() {
    while (::umount2(path_.c_str(), MNT_DETACH) == 0) continue;
  }

  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  const TempDir& folder() const { return folder_; }

  bool MountTmpfs() const { return ::mount("tmpfs", path_.c_str(), "tmpfs", 0, "size=1m") == 0; }
  bool Bind(const std::string& from) const {
    return ::mount(from.c_str(), path_.c_str(), nullptr, MS_BIND, nullptr) == 0;
  }
  bool Unmount() const { return ::umount2(path_.c_str(), MNT_DETACH) == 0; }

 private:
  TempDir folder_;
  std::string path_;
};

// The repositories of a host whose disks are below `root`. The store must outlive what gets the options.
inline storage::StorageOptions StorageOptionsOf(store::Store& store, const std::string& host_id,
                                                const std::string& root) {
  storage::StorageOptions options;
  options.store = std::shared_ptr<store::Store>(&store, [](store::Store*) {});
  options.host_id = host_id;
  options.roots = {root};
  options.timeout = std::chrono::seconds(60);
  return options;
}

inline void WriteImage(const std::string& path) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path) << "image";
}

}  // namespace vexa::test
