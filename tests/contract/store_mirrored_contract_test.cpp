// The mirrored store meets the contract of every store while its primary works.
#include "host/store/lmdb_store.h"
#include "host/store/mirrored_store.h"
#include "tests/contract/store_contract.h"

namespace vexa::store {
namespace {

std::shared_ptr<Store> OpenMirrored(const std::string& directory, std::size_t change_log_length) {
  auto primary = OpenLmdbStore({directory + "/store", kStoreMapBytes, change_log_length});
  if (!primary.ok()) {
    ADD_FAILURE() << primary.error().ToString();
    return nullptr;
  }
  MirrorOptions options;
  options.directory = directory + "/mirror";
  options.batch_delay = std::chrono::milliseconds(10);
  auto store = MirroredStore::Make(*primary, options);
  if (!store.ok()) ADD_FAILURE() << store.error().ToString();
  return store.ok() ? *store : nullptr;
}

INSTANTIATE_TEST_SUITE_P(Mirrored, StoreContract, testing::Values(StoreFactory{"Mirrored", OpenMirrored}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace vexa::store
