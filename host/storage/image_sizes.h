// The sizes of image files, found without waiting for file systems that hang.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/disks/image_records.h"
#include "host/storage/storage_calls.h"

namespace vexa::guests {

// The size of the file in bytes when it is one that may be an image below one of the roots. May hang.
using SizeOfImage =
    std::function<std::optional<std::uint64_t>(const std::vector<std::string>& roots, const std::string& path)>;

// A folder that does not respond is asked again once its last question has returned: however many ask for the images,
// few threads hang.
// Threads: any, at the same time.
class ImageSizes {
 public:
  explicit ImageSizes(std::vector<std::string> roots, std::chrono::milliseconds deadline = std::chrono::seconds(2));
  ImageSizes(std::vector<std::string> roots, std::chrono::milliseconds deadline, SizeOfImage size_of);

  // Sets the size of each image that this host has. Without one remain those in folders that do not respond before the
  // deadline, which is for all of them together.
  void Measure(std::vector<ListedImage>& images);

 private:
  const std::shared_ptr<const std::vector<std::string>> roots_;
  const SizeOfImage size_of_;
  BoundedCalls calls_;
};

}  // namespace vexa::guests
