// VEXA.Virtualization.Image upload_…: images that administrators upload. The pieces come by PUT, see host/api/upload.h.
#pragma once

#include <memory>
#include <vector>

#include "host/api/api_table.h"
#include "host/api/upload.h"
#include "host/storage/uploads.h"

namespace vexa::api {

std::vector<ApiRow> UploadRows(const std::shared_ptr<storage::Uploads>& uploads);

UploadTaker TakeUploads(const std::shared_ptr<storage::Uploads>& uploads);

// For storage::Uploads::CleanUp: writes to the cluster log that the image has been added.
void LogUploadedImage(const storage::Upload& upload);

}  // namespace vexa::api
