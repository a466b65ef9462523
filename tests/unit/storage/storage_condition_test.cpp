// What is found about file systems, and what becomes of it.
#include "host/storage/storage_condition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>

#include "tests/unit/storage/storage_ground.h"

namespace vexa::guests {
namespace {

namespace states = VexaCCC::State::Repo;
constexpr std::uint64_t kGib = std::uint64_t{1} << 30;
constexpr SpaceLimits kLimits{85, 95, 0};

FolderCondition Used(std::uint64_t percent, std::uint64_t scale = 1) {
  return {"/srv/images/", 0, false, percent * scale, (100 - percent) * scale};
}

std::string StateOf(const std::vector<FolderCondition>& conditions, const std::string& before = "",
                    const SpaceLimits& limits = kLimits) {
  const auto trouble = WorstTrouble(conditions, limits, before);
  return trouble ? trouble->state : "";
}

TEST(StorageCondition, Use_HasTheStateOfTheLimitThatItHasPassed) {
  EXPECT_EQ(StateOf({Used(84)}), "");
  EXPECT_EQ(StateOf({Used(85)}), states::provision_warning);
  EXPECT_EQ(StateOf({Used(94)}), states::provision_warning);
  EXPECT_EQ(StateOf({Used(95)}), states::full);
  EXPECT_EQ(StateOf({Used(100)}), states::full);
  EXPECT_EQ(StateOf({Used(100)}, "", {85, 0, 0}), states::provision_warning);
  EXPECT_EQ(StateOf({Used(100)}, "", {0, 0, 0}), "");
  EXPECT_EQ(StateOf({Used(94)}, "", {0, 95, 0}), "");
  EXPECT_EQ(StateOf({{"/srv/", 0, false, 0, 0}}), "") << "a file system that counts nothing";
  EXPECT_EQ(StateOf({Used(96, ~std::uint64_t{0} / 100)}), states::full) << "sizes near 64 bits";
}

TEST(StorageCondition, WorstTrouble_ExceededLimit_HasTwoPointHysteresis) {
  EXPECT_EQ(StateOf({Used(94)}, states::full), states::full);
  EXPECT_EQ(StateOf({Used(93)}, states::full), states::full);
  EXPECT_EQ(StateOf({Used(92)}, states::full), states::provision_warning);
  EXPECT_EQ(StateOf({Used(83)}, states::provision_warning), states::provision_warning);
  EXPECT_EQ(StateOf({Used(83)}, states::full), states::provision_warning);
  EXPECT_EQ(StateOf({Used(82)}, states::provision_warning), "");
  EXPECT_EQ(StateOf({Used(94)}, states::provision_warning), states::provision_warning);
  EXPECT_EQ(StateOf({Used(0)}, states::full, {1, 1, 0}), "");
}

TEST(StorageCondition, MuchFreeSpace_IsNeverShort) {
  const SpaceLimits limits{85, 95, 100};
  EXPECT_EQ(StateOf({Used(95, 21 * kGib)}, "", limits), "") << "105 GiB are free";
  EXPECT_EQ(StateOf({Used(95, 20 * kGib)}, "", limits), states::full) << "100 GiB";
  EXPECT_EQ(StateOf({Used(95, 21 * kGib)}, states::full, limits), states::full) << "as far back as to 105 GiB";
  EXPECT_EQ(StateOf({Used(95, 22 * kGib)}, states::full, limits), "");
}

TEST(StorageCondition, WorstOfAll_IsTaken) {
  FolderCondition failing{"/srv/a/", EIO, false, 0, 0};
  FolderCondition read_only = Used(90);
  read_only.is_read_only = true;
  EXPECT_EQ(StateOf({read_only}), states::degraded);
  EXPECT_EQ(StateOf({Used(90), read_only}), states::degraded);
  EXPECT_EQ(StateOf({read_only, Used(95)}), states::full);
  EXPECT_EQ(StateOf({Used(95), failing, read_only}), states::crashed);
  const char* const rising[] = {states::online,      states::provision_warning, states::degraded,    states::full,
                                states::unavailable, states::crashed,           states::inaccessible};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(RepositoryRank(rising[i]), i) << rising[i];
  EXPECT_EQ(RepositoryRank("anything"), 0);
}

TEST(StorageCondition, Sentences_NameTheFolderAndTheReason) {
  const auto reason = [](const FolderCondition& condition) {
    return WorstTrouble({condition}, kLimits, "").value_or(StorageTrouble()).reason;
  };
  EXPECT_EQ(reason(Used(96)), "the file system of the folder '/srv/images/' is used to 95 %");
  EXPECT_EQ(reason(Used(86)), "the file system of the folder '/srv/images/' is used to 85 %");
  EXPECT_EQ(reason({"/srv/a", 0, true, 0, 1}), "the file system of the folder '/srv/a' is mounted read-only");
  EXPECT_THAT(reason({"/srv/a", ESTALE, false, 0, 0}), ::testing::HasSubstr("the folder '/srv/a' cannot be used"));
}

TEST(StorageCondition, IsFailure_DeviceErrors_AreFailures) {
  for (const int error : {EIO, ESTALE, EUCLEAN, ENOTCONN, ESHUTDOWN, ENXIO}) EXPECT_TRUE(IsFailure(error)) << error;
  for (const int error : {0, ENOENT, EACCES, ENOTDIR, ELOOP, ENFILE}) EXPECT_FALSE(IsFailure(error)) << error;
}

TEST(StorageCondition, UsableRepositories_AreTheDocumentedOnes) {
  for (const char* state : {states::online, states::degraded, states::provision_warning}) {
    EXPECT_TRUE(IsUsableRepository(state)) << state;
  }
  for (const char* state : {states::inaccessible, states::unavailable, states::crashed, states::full, ""}) {
    EXPECT_FALSE(IsUsableRepository(state)) << state;
  }
}

TEST(StorageProbe, Folders_AreAskedOncePerFileSystem) {
  const test::MountGround ground("images");
  std::filesystem::create_directories(ground.File("a"));
  const auto found = ProbeFolders({ground.path() + "/", ground.File("a"), ground.File("missing")});
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].folder, ground.path() + "/");
  EXPECT_EQ(found[0].error_number, 0);
  EXPECT_FALSE(found[0].is_read_only);
  EXPECT_GT(found[0].used + found[0].available, 0u);
  EXPECT_TRUE(ProbeFolders({ground.File("missing"), "/proc/self/exe/none"}).empty());
}

TEST(StorageProbe, FullAndReadOnlyFileSystem_AreFound) {
  if (!test::CanMount()) GTEST_SKIP() << test::kCannotMount;
  const test::MountGround ground("images");
  ASSERT_TRUE(ground.MountTmpfs());
  test::WriteText(ground.File("big").c_str(), std::string((1 << 20) - 8192, 'x'));
  auto found = ProbeFolders({ground.path() + "/"});
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(StateOf(found), states::full);
  ASSERT_EQ(::mount("none", ground.path().c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  found = ProbeFolders({ground.path() + "/"});
  ASSERT_EQ(found.size(), 1u);
  EXPECT_TRUE(found[0].is_read_only);
  EXPECT_EQ(StateOf(found, "", {}), states::degraded);
}

}  // namespace
}  // namespace vexa::guests
