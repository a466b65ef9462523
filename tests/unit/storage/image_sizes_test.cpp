// Sizes of image files: of regular files below the roots, and without waiting for a file system that hangs.
#include "host/storage/image_sizes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>

#include "tests/unit/storage/temporary_folder.h"

namespace vexa::storage {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

disks::ListedImage ImageAt(const std::string& path) { return {"id", "name", path, std::nullopt}; }

TEST(ImageSizesTest, Measure_RegularFilesBelowRoots_HaveSizes) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.Path("images"));
  std::filesystem::create_directory(folder.Path("other"));
  for (const char* name : {"images/a.iso", "other/a.iso"}) std::ofstream(folder.Path(name)) << "twelve bytes";
  std::filesystem::create_symlink(folder.Path("other/a.iso"), folder.Path("images/link.iso"));
  std::vector<disks::ListedImage> images;
  for (const char* name : {"images/a.iso", "images/gone.iso", "images/link.iso", "other/a.iso", "images"}) {
    images.push_back(ImageAt(folder.Path(name)));
  }
  images.push_back(ImageAt(""));
  ImageSizes({folder.Path("images")}, seconds(60)).Measure(images);
  EXPECT_EQ(images[0].size, 12u);
  for (std::size_t i = 1; i < images.size(); ++i) EXPECT_FALSE(images[i].size) << images[i].path;
}

TEST(ImageSizesTest, Measure_FolderHangs_ReturnsSoonAndBlocksOneThread) {
  const auto release = std::make_shared<std::promise<void>>();
  const std::shared_future<void> released(release->get_future());
  const auto begun = std::make_shared<std::atomic<int>>(0);
  {
    ImageSizes sizes({"/r"}, milliseconds(100),
                     [released, begun](const auto&, const std::string& path) -> std::optional<std::uint64_t> {
                       if (path == "/r/hung/a.iso") {
                         ++*begun;
                         released.wait();
                       }
                       return 12;
                     });
    for (int i = 0; i < 3; ++i) {
      std::vector<disks::ListedImage> images{ImageAt("/r/hung/a.iso")};
      sizes.Measure(images);
      EXPECT_FALSE(images[0].size);
    }
    EXPECT_LE(*begun, 1) << "it is not asked again while it hangs";
  }
  release->set_value();
}

}  // namespace
}  // namespace vexa::storage
