#include "host/store/lmdb_store.h"

#include <sys/stat.h>

#include <utility>

#include "host/base/files.h"
#include "host/store/embedded_store.h"
#include "host/store/lmdb_keyspace.h"
#include "host/store/open_once.h"

namespace vexa::store {

Result<std::shared_ptr<Store>> OpenLmdbStore(const LmdbOptions& options) {
  if (options.directory.empty()) return Error(ErrorCode::kInvalid, "The store needs a folder");
  if (Status created = CreateDirectories(options.directory, S_IRWXU); !created.ok()) return created.error();
  const Result<FolderId> folder = IdOfFolder(options.directory);
  if (!folder.ok()) return folder.error();
  auto store = OpenOnce<EmbeddedStore>(*folder, [&]() -> Result<std::unique_ptr<EmbeddedStore>> {
    Result<std::unique_ptr<LmdbKeyspace>> keyspace = LmdbKeyspace::Open(options);
    if (!keyspace.ok()) return keyspace.error();
    return std::make_unique<EmbeddedStore>(std::move(keyspace).value());
  });
  if (!store.ok()) return store.error();
  return std::shared_ptr<Store>(std::move(store).value());
}

}  // namespace vexa::store
