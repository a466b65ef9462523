// The folder and the unfinished file of an upload. For host/storage/uploads*.cpp only.
#pragma once

#include <cstdint>

#include "host/base/descriptor.h"
#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/storage/upload_record.h"

namespace vexa::storage {

// `what`: "written", "read", … A full disk is kNoRoom, anything else kUnavailable.
Refusal FileFailed(const Upload& upload, const char* what, int error_number);

// Opens the image folder that the upload is in. Refuses with kUnavailable when another folder is in its place.
Result<Descriptor, Refusal> OpenUploadRoot(const Upload& upload);

// Opens the file with what has arrived. Errors: an errno(3) value; EPERM when it is not a file that an upload made.
Result<Descriptor, int> OpenPartial(const Upload& upload, int root);

// The number of bytes that have arrived.
Result<std::uint64_t, Refusal> ReceivedBytes(const Upload& upload, int root);

}  // namespace vexa::storage
