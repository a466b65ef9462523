// The space of repositories: what is stored of it, limits, and jobs that it has no room for.
#include "host/storage/repository_space.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/matchers.h"
#include "tests/support/require.h"
#include "tests/unit/storage/storage_watch_fixture.h"

namespace vexa::storage {
namespace {

using ::testing::HasSubstr;

constexpr std::uint64_t kGib = std::uint64_t{1} << 30;

TEST(WhyTooFull, Bytes_AreAddedToWhatIsUsed) {
  const FolderCondition condition{"/srv/a", 0, false, 80 * kGib, 20 * kGib};
  const SpaceLimits limits{80, 95, 0};
  EXPECT_FALSE(WhyTooFull(condition, limits, 14 * kGib));
  EXPECT_EQ(WhyTooFull(condition, limits, 15 * kGib),
            "15.0 GiB more would make the file system of the folder '/srv/a' at least 95 % full: 80.0 GiB of 100.0 GiB "
            "are used");
  EXPECT_FALSE(WhyTooFull(condition, {80, 0, 0}, 15 * kGib)) << "never full";
  EXPECT_FALSE(WhyTooFull(condition, {80, 95, 4}, 15 * kGib)) << "5 GiB stay free";
  EXPECT_TRUE(WhyTooFull(condition, {80, 95, 5}, 15 * kGib));
  EXPECT_TRUE(WhyTooFull(condition, limits, UINT64_MAX));
  FolderCondition failing = condition;
  failing.error_number = 5;
  EXPECT_FALSE(WhyTooFull(failing, limits, 15 * kGib));
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

TEST_F(RepositorySpaceTest, CheckRoom_TooLarge_IsRefusedWithFigures) {
  if (!test::CanMount()) GTEST_SKIP() << test::kCannotMount;
  ASSERT_TRUE(mount_.MountTmpfs());
  StorageOptions options = Options();
  options.limits = {50, 75, 0};
  StorageWatch watch(options);
  const std::string folder = mount_.File(kPool);
  const auto check = [&](std::uint64_t kib) {
    return watch.CheckRoom(kPool, {{folder + "/a", kib << 10}, {folder + "/b", kib << 10}});
  };
  EXPECT_TRUE(check(300).ok());
  const auto refused = check(400);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, 949);
  EXPECT_THAT(refused.error().reason,
              HasSubstr("lacks room: 800.0 KiB more would make the file system of the folder '" + mount_.path()));
  EXPECT_THAT(refused.error().reason, HasSubstr("at least 75 % full: "));
  EXPECT_THAT(refused.error().reason, HasSubstr(" of 1.0 MiB are used. Make room in it, or use another repository"));
  // Its own folder counts once it exists.
  std::filesystem::create_directory(folder);
  EXPECT_THAT(check(400).error().reason, HasSubstr("'" + folder + "'"));
  std::string name;
  ASSERT_TRUE(SetLimits(host_.store(), kPool, {0, 0}, name).ok());
  EXPECT_TRUE(check(400).ok());
}

}  // namespace
}  // namespace vexa::storage
