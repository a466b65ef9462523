// The space of repositories: what is stored of it, limits, and jobs that it has no room for.
#include "host/storage/repository_space.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/matchers.h"
#include "tests/support/require.h"
#include "tests/unit/storage/storage_watch_fixture.h"

namespace vexa::storage {
namespace {

using ::testing::HasSubstr;

constexpr std::uint64_t kGib = std::uint64_t{1} << 30;

TEST(WhyFull, UsedSpace_IsComparedWithLimits) {
  const FolderCondition condition{"/srv/a", 0, false, 95 * kGib, 5 * kGib};
  EXPECT_FALSE(WhyFull(condition, {80, 96, 0}));
  EXPECT_EQ(WhyFull(condition, {80, 95, 0}),
            "95.0 GiB of 100.0 GiB are used in the file system of the folder '/srv/a', and its limit is 95 %");
  EXPECT_FALSE(WhyFull(condition, {80, 0, 0})) << "never full";
  EXPECT_FALSE(WhyFull(condition, {80, 95, 4})) << "more than 4 GiB are free";
  EXPECT_TRUE(WhyFull(condition, {80, 95, 5}));
  FolderCondition failing = condition;
  failing.error_number = 5;
  EXPECT_FALSE(WhyFull(failing, {80, 95, 0}));
}

TEST(WhyFull, OwnPercentage_CountsWhateverIsFree) {
  const FolderCondition condition{"/srv/a", 0, false, 95 * kGib, 5 * kGib};
  SpaceLimits limits{80, 95, 4};
  limits.is_own_warning = true;
  EXPECT_FALSE(WhyFull(condition, limits)) << "the host's limit keeps its headroom";
  limits.is_own_full = true;
  EXPECT_TRUE(WhyFull(condition, limits));
}

class RepositorySpaceTest : public WatchedStorage {
 protected:
  std::optional<RepositorySpace> Stored() {
    return test::Require(ReadSpace(*test::Require(host_.store().Read()), kPool, kHost));
  }
};

TEST_F(RepositorySpaceTest, Refresh_StoresSpaceAndLimits) {
  StorageOptions options = Options();
  options.limits = {90, 98, 100};
  FolderCondition condition{"/srv/a", 0, false, 60 * kGib, 140 * kGib};
  options.probe = [&condition](const ProbeRequest&) {
    ProbeResult result;
    result.conditions = {condition};
    return result;
  };
  StorageWatch watch(options);
  EXPECT_FALSE(Stored());
  watch.Refresh();
  ASSERT_TRUE(Stored());
  EXPECT_EQ(Stored()->total, 200 * kGib);
  EXPECT_EQ(Stored()->used, 60 * kGib);
  EXPECT_EQ(Stored()->free, 140 * kGib);
  EXPECT_EQ(Stored()->limits.full_percent, 98u);
  // Less than a thousandth is not written.
  const store::Revision written = Revision();
  condition.used += kGib / 10;
  condition.available -= kGib / 10;
  watch.Refresh();
  EXPECT_EQ(Revision(), written);
  // As on a file system that shares its disks with others.
  condition.available -= 4096;
  watch.Refresh();
  EXPECT_EQ(Revision(), written);
  condition.used += kGib;
  condition.available -= kGib;
  watch.Refresh();
  EXPECT_EQ(Stored()->used, 61 * kGib + kGib / 10);
  // The limits of its own decide, without headroom.
  std::string name;
  ASSERT_TRUE(SetLimits(host_.store(), kPool, {20, 30}, name).ok());
  watch.Refresh();
  EXPECT_EQ(Stored()->limits.full_percent, 30u);
  EXPECT_EQ(Stored()->limits.headroom_gib, 0u);
  const auto storage = test::Require(ReadStorage(*test::Require(host_.store().Read()), kPool));
  ASSERT_TRUE(storage.problem);
  EXPECT_EQ(storage.problem->state, VexaCCC::State::Repo::full);
}

TEST_F(RepositorySpaceTest, OwnWarning_LeavesHostsLimitItsHeadroom) {
  StorageOptions options = Options();
  options.limits = {90, 95, 100};
  FolderCondition condition{"/srv/a", 0, false, 4000 * kGib, 140 * kGib};
  options.probe = [&condition](const ProbeRequest&) {
    ProbeResult result;
    result.conditions = {condition};
    return result;
  };
  StorageWatch watch(options);
  const auto state = [&] {
    watch.Refresh();
    const auto storage = test::Require(ReadStorage(*test::Require(host_.store().Read()), kPool));
    return storage.problem ? std::string(storage.problem->state) : std::string("healthy");
  };
  EXPECT_EQ(state(), "healthy") << "more than 100 GiB are free";
  std::string name;
  ASSERT_TRUE(SetLimits(host_.store(), kPool, {20, std::nullopt}, name).ok());
  EXPECT_EQ(state(), VexaCCC::State::Repo::provision_warning) << "its own counts whatever is free";
  ASSERT_TRUE(SetLimits(host_.store(), kPool, {std::nullopt, 50}, name).ok());
  EXPECT_EQ(state(), VexaCCC::State::Repo::full);
}

TEST_F(RepositorySpaceTest, CheckRoom_Full_IsRefusedWithFigures) {
  if (!test::CanMount()) GTEST_SKIP() << test::kCannotMount;
  ASSERT_TRUE(mount_.MountTmpfs());
  StorageOptions options = Options();
  options.limits = {50, 75, 0};
  StorageWatch watch(options);
  const std::string folder = mount_.File(kPool);
  const auto check = [&] { return watch.CheckRoom(kPool, {folder + "/a", folder + "/b"}); };
  EXPECT_TRUE(check().ok());
  std::ofstream(mount_.File("filled")) << std::string(800 << 10, 'x');
  const auto refused = check();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, 949);
  EXPECT_THAT(refused.error().reason, HasSubstr(" is full: 8"));
  EXPECT_THAT(refused.error().reason,
              HasSubstr(" KiB of 1.0 MiB are used in the file system of the folder '" + mount_.path()));
  EXPECT_THAT(refused.error().reason,
              HasSubstr("', and its limit is 75 %. Make room in it, or use another repository"));
  // Its own folder counts once it exists.
  std::filesystem::create_directory(folder);
  EXPECT_THAT(check().error().reason, HasSubstr("'" + folder + "'"));
  std::string name;
  ASSERT_TRUE(SetLimits(host_.store(), kPool, {0, 0}, name).ok());
  EXPECT_TRUE(check().ok());
}

}  // namespace
}  // namespace vexa::storage
