// Reads the headers of qcow2 images, to accept only images that stand alone.
//
// QEMU opens every file that an image names, with its own rights: a backing file, or the file with the image's data. So
// anyone who provides an image could have a guest read any file that QEMU can read. The format is in QEMU's
// documentation ("The QCOW2 image format"). Everything read here may be hostile.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa {

// How much of an image is read. Images with longer headers are refused.
inline constexpr std::size_t kMaxQcow2HeaderBytes = std::size_t{64} << 10;

struct Qcow2Header {
  std::uint32_t version = 0;  // 2 or 3
  std::uint64_t size = 0;     // of the disk that the guest sees, in bytes
  bool is_encrypted = false;
  // Names of other files, as the image has them; "" when the name is not in the part that was read.
  std::optional<std::string> backing_file;
  std::optional<std::string> data_file;
  std::uint64_t unknown_features = 0;  // bits of incompatible features
};

// Reads the header at the beginning of an image. `begin` has the image's first kMaxQcow2HeaderBytes, or all of a
// shorter image. Errors: kInvalid with a clause, such as "it is not a qcow2 image". Pure.
Result<Qcow2Header> ParseQcow2Header(std::string_view begin);

// Reads the header of the open image `file`; `path` is for messages. Errors, as sentences: kInvalid for an image that
// is damaged, encrypted, has unknown features, or needs another file; kInternal when it cannot be read.
Result<Qcow2Header> ReadStandaloneQcow2(int file, const std::string& path);

}  // namespace vexa
