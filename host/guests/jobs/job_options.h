// What every job that changes files of a guest needs.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/refusal.h"
#include "host/disks/disk_files.h"
#include "host/storage/storage_watch.h"
#include "host/store/store.h"

namespace vexa::guests {

struct JobOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;  // of this host
  // Folders that contain the files of guests' disks. Only regular files below them are created, changed and removed,
  // and none that another record names (disk_users.h).
  std::vector<std::string> image_roots;
  // Checks that the folders of files are still the same. Null: they always are.
  std::shared_ptr<StorageWatch> storage;
  // Asks the hypervisor whether the guest runs: 910 when it does, 949 when that is unknown. Not set: guests cannot run
  // here.
  std::function<Refused(const std::string& guest_id)> refuse_active;
  std::function<std::chrono::system_clock::time_point()> now = std::chrono::system_clock::now;
  // Called before each step (every commit, change of a file and sync of a folder) with a name that is unique within one
  // job; for tests that stop there.
  std::function<void(std::string_view step)> before_step;
  FileCalls file_calls;  // tests replace those of the system
};

}  // namespace vexa::guests
