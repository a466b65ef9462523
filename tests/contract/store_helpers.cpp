#include <cstdlib>
#include <iostream>

#include "tests/contract/store_contract.h"

namespace vexa::store {

TemporaryFolder::TemporaryFolder() {
  path_ = (std::filesystem::temp_directory_path() / "vexa_store_XXXXXX").string();
  if (::mkdtemp(path_.data()) == nullptr) ADD_FAILURE() << "no temporary folder";
}

TemporaryFolder::~TemporaryFolder() {
  if (testing::Test::HasFailure()) {
    std::cerr << "The folder is left for inspection: " << path_ << "\n";
    return;
  }
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

Revision Put(Store& store, const std::string& key, const std::string& text) {
  const Result<Revision> done = store.Commit({{}, {{key, text}}});
  EXPECT_TRUE(done.ok()) << done.error().ToString();
  return done.ok() ? *done : 0;
}

Revision Erase(Store& store, const std::string& key) {
  const Result<Revision> done = store.Commit({{}, {{key, std::nullopt}}});
  EXPECT_TRUE(done.ok()) << done.error().ToString();
  return done.ok() ? *done : 0;
}

std::unique_ptr<Snapshot> ReadOf(const Store& store) {
  Result<std::unique_ptr<Snapshot>> snapshot = store.Read();
  EXPECT_TRUE(snapshot.ok()) << snapshot.error().ToString();
  return snapshot.ok() ? std::move(snapshot).value() : nullptr;
}

std::string TextOf(const Store& store, const std::string& key) {
  const auto snapshot = ReadOf(store);
  const auto value = snapshot->Get(key);
  EXPECT_TRUE(value.ok()) << value.error().ToString();
  return value.ok() && *value ? std::string((*value)->text) : "(absent)";
}

Revision RevisionOf(const Store& store, const std::string& key) {
  const auto snapshot = ReadOf(store);
  const auto value = snapshot->Get(key);
  EXPECT_TRUE(value.ok()) << value.error().ToString();
  return value.ok() && *value ? (*value)->revision : 0;
}

int Increment(Store& store, const std::string& key) {
  for (int conflicts = 0;; ++conflicts) {
    Transaction transaction;
    {
      const auto snapshot = store.Read();
      if (!snapshot.ok()) return -1;
      const auto value = snapshot.value()->Get(key);
      if (!value.ok()) return -1;
      const long count = *value ? std::stol(std::string((*value)->text)) : 0;
      transaction.compares.push_back({key, *value ? (*value)->revision : 0});
      transaction.operations.push_back({key, std::to_string(count + 1)});
    }
    const Result<Revision> done = store.Commit(transaction);
    if (done.ok()) return conflicts;
    if (done.error().code() != ErrorCode::kConflict) return -1;
  }
}

}  // namespace vexa::store
