// The options of all jobs that change files of a guest.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/refusal.h"
#include "host/disks/disk_files.h"
#include "host/storage/image_folder.h"
#include "host/storage/storage_watch.h"
#include "host/store/store.h"

namespace vexa::guests {

struct JobOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;  // of this host
  // Folders that contain the files of guests' disks. Only regular files below them are created, changed and removed,
  // except files of other records (file_referrers.h).
  std::vector<std::string> image_roots;
  storage::QemuAccess folder_access;  // of a repository's folder that is made with its first disk
  // Checks that the folders of files are still the same. Null: they always are.
  std::shared_ptr<storage::StorageWatch> storage;
  // Checks with the hypervisor that the guest does not run: 910 when it does, 949 when that is unknown. Not set: guests
  // cannot run here.
  std::function<Result<void, Refusal>(const std::string& guest_id)> check_not_running;
  std::function<std::chrono::system_clock::time_point()> now = std::chrono::system_clock::now;
  // For tests that stop there: called before each step (every commit, change of a file and sync of a folder) with a
  // name that is unique within one job.
  std::function<void(std::string_view step)> before_step;
  disks::FileSystemCalls file_calls;  // tests replace those of the system
};

}  // namespace vexa::guests
