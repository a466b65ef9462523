#include "host/storage/image_sizes.h"

#include <map>
#include <utility>

#include "host/base/rooted_file.h"

namespace vexa::storage {
namespace {

constexpr std::size_t kMaxGroups = 32;  // at most this many threads measure at a time

// The images of one or more folders, measured by one thread.
struct Group {
  std::vector<std::size_t> positions;
  std::vector<std::string> paths;
  std::vector<std::optional<std::uint64_t>> sizes;
};

// A folder is in the same group in every call, so that BoundedCalls recognises one that hangs.
std::size_t GroupOf(const std::string& path) {
  return std::hash<std::string>()(path.substr(0, path.rfind('/') + 1)) % kMaxGroups;
}

}  // namespace

ImageSizes::ImageSizes(std::vector<std::string> roots, std::chrono::milliseconds timeout)
    : ImageSizes(std::move(roots), timeout,
                 [](const auto& below, const std::string& path) { return SizeOfRegularFileBelow(below, path); }) {}

ImageSizes::ImageSizes(std::vector<std::string> roots, std::chrono::milliseconds timeout, SizeOfImage size_of)
    : roots_(std::make_shared<const std::vector<std::string>>(std::move(roots))),
      size_of_(std::move(size_of)),
      calls_(timeout) {}

void ImageSizes::Measure(std::vector<disks::ListedImage>& images) {
  std::map<std::size_t, std::shared_ptr<Group>> groups;
  for (std::size_t i = 0; i < images.size(); ++i) {
    std::shared_ptr<Group>& group = groups[GroupOf(images[i].path)];
    if (!group) group = std::make_shared<Group>();
    group->positions.push_back(i);
    group->paths.push_back(images[i].path);
  }
  std::vector<std::pair<BoundedCalls::Call, std::shared_ptr<Group>>> calls;
  for (const auto& [number, group] : groups) {
    // The call may outlive this object, so it owns what it uses.
    BoundedCalls::Call call = calls_.Begin(std::to_string(number), [group = group, roots = roots_, size_of = size_of_] {
      for (const std::string& path : group->paths) group->sizes.push_back(size_of(*roots, path));
    });
    calls.emplace_back(std::move(call), group);
  }
  for (auto& [call, group] : calls) {
    if (!call.Wait()) continue;
    for (std::size_t i = 0; i < group->sizes.size(); ++i) images[group->positions[i]].size = group->sizes[i];
  }
}

}  // namespace vexa::storage
