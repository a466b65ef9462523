// The sizes of image files, read with a timeout because file systems can hang.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/disks/image_records.h"
#include "host/storage/bounded_calls.h"

namespace vexa::storage {

// The size in bytes of a regular file below one of the roots; not set for anything else. May hang.
using SizeOfImage =
    std::function<std::optional<std::uint64_t>(const std::vector<std::string>& roots, const std::string& path)>;

// A folder that does not respond is probed again only after its last probe has returned, so few threads hang however
// many callers ask for the images.
// Threads: any, at the same time.
class ImageSizes {
 public:
  explicit ImageSizes(std::vector<std::string> roots, std::chrono::milliseconds timeout = std::chrono::seconds(2));
  ImageSizes(std::vector<std::string> roots, std::chrono::milliseconds timeout, SizeOfImage size_of);

  // Sets the size of each image that this host has, except for those in folders that do not respond in time. The
  // timeout is for all images together.
  void Measure(std::vector<disks::ListedImage>& images);

 private:
  const std::shared_ptr<const std::vector<std::string>> roots_;
  const SizeOfImage size_of_;
  BoundedCalls calls_;
};

}  // namespace vexa::storage
