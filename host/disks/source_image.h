// Existing images of disks that new disks are copied from.
//
// The format is determined here, from the bytes that each format begins with, and passed to the program that copies: it
// never guesses. Only images that stand alone are accepted, because that program opens every file that an image names,
// with this service's rights. Everything read here may be hostile.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/base/descriptor.h"
#include "host/base/result.h"

namespace vexa::disks {

enum class SourceFormat { kRaw, kQcow2, kVmdk, kVdi };

// As the copying program calls it: "raw", "qcow2", "vmdk", "vdi".
const char* SourceFormatName(SourceFormat format);

struct SourceImage {
  std::string path;
  Descriptor file;  // open for reading; what is copied, whatever is at the path by then
  SourceFormat format = SourceFormat::kRaw;
  std::uint64_t size = 0;  // of the disk that a guest sees, in bytes
};

// Opens the image at `path`, a regular file below one of `roots` that is reached without symbolic links.
// Errors, as sentences with the path: kInvalid (it is elsewhere, not a regular file, damaged, of another format, or
// needs another file), kNotFound, kInternal (it cannot be read).
Result<SourceImage> OpenSourceImage(const std::vector<std::string>& roots, const std::string& path);

}  // namespace vexa::disks
