// The records of unfinished edits that touch files; edit.h explains them.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/disks/image_file.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/store/store.h"

namespace vexa::guests {

enum class EditStage { kDoing, kPurging };

struct EditRecord {
  std::string host_id;
  std::string user;
  std::string request_id;
  std::chrono::system_clock::time_point since;  // whole seconds
  EditStage stage = EditStage::kDoing;
  std::vector<std::string> made;  // normal paths
  std::vector<HiddenFile> hidden;
  std::vector<Growth> grown;
  std::string repository_id;  // of the guest
  Trail storage;              // the folders that contain all these files
};

struct StoredEdit {
  store::Revision revision = 0;
  std::string text;
  std::optional<EditRecord> record;  // not set: it is damaged
};

// The name of the file of a disk that was created here.
std::string ImageName(const std::string& disk_id, hypervisor::ImageFormat format);

std::string EditText(const EditRecord& record);

// Not set: no edit is in progress. Errors: those of the store.
Result<std::optional<StoredEdit>> ReadEdit(const store::Snapshot& snapshot, const std::string& guest_id);

// Reports that the guest is being edited, by whom and since when: 915.
Refusal EditedByOther(const StoredEdit& edit);

}  // namespace vexa::guests
