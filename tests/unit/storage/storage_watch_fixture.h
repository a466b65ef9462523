// A host with one repository, "pool", whose storage a StorageWatch checks.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "host/storage/storage_watch.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"
#include "tests/unit/storage/mount_point.h"
#include "webapi/platform/ccc.h"

namespace vexa::storage {

inline constexpr char kHost[] = "11111111-2222-4333-8444-555555555555";
inline constexpr char kPool[] = "aaaaaaaa-0000-4000-8000-000000000001";

class WatchedStorage : public ::testing::Test {
 protected:
  WatchedStorage() { PutRepository(kPool, "pool", kHost); }

  StorageOptions Options() {
    StorageOptions options;
    options.store = std::shared_ptr<store::Store>(&host_.store(), [](store::Store*) {});
    options.host_id = kHost;
    options.roots = {mount_.path()};
    options.timeout = std::chrono::seconds(60);
    return options;
  }
  void PutRepository(const std::string& id, const std::string& name, const std::string& host_id) {
    Json::Value record(Json::objectValue);
    record["name"] = name;
    record["host_id"] = host_id;
    record["state"] = VexaCCC::State::Repo::online;
    host_.Put("repository", id, record);
  }
  store::Revision Revision() { return test::Require(host_.store().Read())->revision(); }

  test::MountPoint mount_{"images"};
  test::TestHost host_;
};

}  // namespace vexa::storage
