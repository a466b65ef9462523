// Copies existing images into new ones, with qemu-img in a process of its own.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "host/base/result.h"
#include "host/disks/source_image.h"
#include "host/domain_xml/domain_parse.h"

namespace vexa::disks {

struct CopyOptions {
  std::string program = "/usr/bin/qemu-img";
  // The copy is ended when its progress stays the same for this long.
  std::chrono::milliseconds stall_timeout = std::chrono::minutes(10);
  std::function<bool()> must_stop{};               // asked several times a second; not set: never
  std::function<void(int percent)> on_progress{};  // called with each new value
};

// Copies the content of `source` into the open image `target`, which is empty, at least as large, and stands alone, and
// syncs it. The process has no other files of this one, and ends with the calling thread.
// Errors, as sentences: kInternal (with what the program said, such as that the disk is full), kUnavailable (it had to
// stop, or made no progress).
Status CopyImage(const SourceImage& source, int target, domain_xml::ImageFormat target_format,
                 const CopyOptions& options);

}  // namespace vexa::disks
