// The images that a guest's drives can contain.
//
// The images of the cluster are records of the dashboard category "image", each under a UUID: {"name": what users see,
// "path": the file's absolute path}, and "uploaded" when this system made the file (host/storage/uploaded_file.h).
// Instead of an image's id, a drive may also have the path of a file in a shared folder.
#pragma once

#include <cstddef>
#include <string_view>

namespace vexa::records {

inline constexpr char kImageCategory[] = "image";
inline constexpr char kImagePath[] = "path";
inline constexpr char kImageUploaded[] = "uploaded";

// What an empty drive has instead of an image.
inline constexpr std::string_view kEmptyDrive = "unmounted";

// The longest path of an image, in bytes.
inline constexpr std::size_t kMaxImagePathBytes = 4096;

}  // namespace vexa::records
