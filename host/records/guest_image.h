// What a guest's drives can contain.
//
// The images of the cluster are records of the dashboard category "image", each under a UUID: {"name": what users see,
// "path": the file's absolute path}. Instead, a user can name a path, which leads to a file in a shared folder.
#pragma once

#include <cstddef>
#include <string_view>

namespace vexa::cluster {

inline constexpr char kImageCategory[] = "image";
inline constexpr char kImagePath[] = "path";

// Takes the place of an image in an empty drive.
inline constexpr std::string_view kEmptyDrive = "unmounted";

// The longest path of an image, in bytes.
inline constexpr std::size_t kMaxImagePathBytes = 4096;

}  // namespace vexa::cluster
