// The contract of every store. A store is tested by instantiating StoreContract with a factory.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "host/base/not_copyable.h"
#include "host/store/key.h"
#include "host/store/store.h"

namespace vexa::store {

// A folder for one test. It is removed afterwards, unless the test failed: then it is left for inspection.
class TemporaryFolder : private NotCopyable {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

struct StoreFactory {
  std::string name;
  std::function<std::shared_ptr<Store>(const std::string& directory, std::size_t change_log_length)> open;
};

class StoreContract : public testing::TestWithParam<StoreFactory> {
 protected:
  void SetUp() override { Open(kLogLength); }

  static constexpr std::size_t kLogLength = 1000;
  void Open(std::size_t change_log_length) {
    store_.reset();
    store_ = GetParam().open(folder_.path(), change_log_length);
    ASSERT_NE(store_, nullptr);
  }

  TemporaryFolder folder_;
  std::shared_ptr<Store> store_;
};

// Shorthand for tests. Each function fails the test when the store returns an error.
Revision Put(Store& store, const std::string& key, const std::string& text);
Revision Erase(Store& store, const std::string& key);
std::string TextOf(const Store& store, const std::string& key);  // "(absent)" when absent
Revision RevisionOf(const Store& store, const std::string& key);
std::unique_ptr<Snapshot> ReadOf(const Store& store);

// Adds one to the number at `key` with compare and retry. Returns the number of conflicts, -1 on an error.
int Increment(Store& store, const std::string& key);

}  // namespace vexa::store
