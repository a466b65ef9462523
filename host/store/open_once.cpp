#include "host/store/open_once.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <map>
#include <tuple>

#include "host/base/mutex.h"
#include "host/store/lmdb_error.h"

namespace vexa::store {
namespace {

using ObjectId = std::pair<FolderId, std::type_index>;

struct Registry {
  Mutex mutex;
  ConditionVariable changed;
  // Expired while the object is being opened or closed.
  std::map<ObjectId, std::weak_ptr<void>> objects VEXA_GUARDED_BY(mutex);
};

// Never destroyed: stores may outlive static destructors.
Registry& GlobalRegistry() {
  static Registry* const registry = new Registry;
  return *registry;
}

void Unregister(const ObjectId& id) {
  Registry& registry = GlobalRegistry();
  const MutexLock lock(registry.mutex);
  registry.objects.erase(id);
  registry.changed.NotifyAll();
}

}  // namespace

Result<FolderId> IdOfFolder(const std::string& directory) {
  struct stat info {};
  if (::stat(directory.c_str(), &info) != 0)
    return LmdbError(fmt::format("Cannot use the folder '{}'", directory), errno);
  return FolderId(info.st_dev, info.st_ino);
}

Result<detail::AnyObject> detail::OpenOnce(const FolderId& folder, std::type_index type,
                                           const std::function<Result<AnyObject>()>& open) {
  const ObjectId id(folder, type);
  Registry& registry = GlobalRegistry();
  {
    const MutexLock lock(registry.mutex);
    while (true) {
      const auto [found, inserted] = registry.objects.try_emplace(id);
      if (inserted) break;
      if (AnyObject object = found->second.lock()) return object;
      registry.changed.Wait(registry.mutex);
    }
  }
  Result<AnyObject> opened = [&] {
    try {
      return open();
    } catch (...) {
      Unregister(id);  // or the next one would wait forever
      throw;
    }
  }();
  if (!opened.ok()) {
    Unregister(id);
    return opened.error();
  }
  void* const raw = opened->get();
  // Closes the object first and unregisters it afterwards, so that no other thread opens the folder in between.
  AnyObject shared(raw, [owned = std::move(opened.value()), id](void*) mutable {
    owned.reset();
    Unregister(id);
  });
  const MutexLock lock(registry.mutex);
  registry.objects[id] = shared;
  registry.changed.NotifyAll();
  return shared;
}

}  // namespace vexa::store
