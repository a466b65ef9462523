#include "host/store/open_once.h"

#include <sys/stat.h>

#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <tuple>

#include "host/store/lmdb_error.h"

namespace vexa::store {
namespace {

using Place = std::pair<FolderId, std::type_index>;

struct Registry {
  std::mutex mutex;
  std::condition_variable changed;
  // Expired while the object is being opened or closed.
  std::map<Place, std::weak_ptr<void>> objects;
};

// Never destroyed: stores may outlive static destructors.
Registry& CurrentRegistry() {
  static Registry* const registry = new Registry;
  return *registry;
}

void Forget(const Place& place) {
  Registry& current = CurrentRegistry();
  const std::lock_guard lock(current.mutex);
  current.objects.erase(place);
  current.changed.notify_all();
}

}  // namespace

Result<FolderId> IdOfFolder(const std::string& directory) {
  struct stat info {};
  if (::stat(directory.c_str(), &info) != 0) return LmdbError("Cannot use the folder '" + directory + "'", errno);
  return FolderId(info.st_dev, info.st_ino);
}

Result<detail::AnyObject> detail::OpenOnce(const FolderId& folder, std::type_index type,
                                           const std::function<Result<AnyObject>()>& open) {
  const Place place(folder, type);
  Registry& current = CurrentRegistry();
  {
    std::unique_lock lock(current.mutex);
    while (true) {
      const auto [found, inserted] = current.objects.try_emplace(place);
      if (inserted) break;
      if (AnyObject object = found->second.lock()) return object;
      current.changed.wait(lock);
    }
  }
  Result<AnyObject> opened = open();
  if (!opened.ok()) {
    Forget(place);
    return opened.error();
  }
  void* const raw = opened->get();
  // Closes the object first and frees its place afterwards, so that no other thread opens the folder in between.
  AnyObject shared(raw, [owned = std::move(opened.value()), place](void*) mutable {
    owned.reset();
    Forget(place);
  });
  const std::lock_guard lock(current.mutex);
  current.objects[place] = shared;
  current.changed.notify_all();
  return shared;
}

}  // namespace vexa::store
