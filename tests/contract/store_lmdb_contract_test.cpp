// The LMDB store meets the contract of every store.
#include "host/store/lmdb_store.h"
#include "tests/contract/store_contract.h"

namespace vexa::store {
namespace {

std::shared_ptr<Store> OpenEmbedded(const std::string& directory, std::size_t change_log_length) {
  auto store = OpenLmdbStore({directory, kStoreMapBytes, change_log_length});
  if (!store.ok()) ADD_FAILURE() << store.error().ToString();
  return store.ok() ? *store : nullptr;
}

INSTANTIATE_TEST_SUITE_P(Lmdb, StoreContract, testing::Values(StoreFactory{"Lmdb", OpenEmbedded}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace vexa::store
