// Findings about file systems, and the repository states they lead to.
#include "host/storage/storage_condition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>

#include "tests/unit/storage/mount_point.h"

namespace vexa::storage {
namespace {

namespace states = VexaCCC::State::Repo;
constexpr std::uint64_t kGib = std::uint64_t{1} << 30;
constexpr SpaceLimits kLimits{85, 95, 0};

FolderCondition Used(std::uint64_t percent, std::uint64_t scale = 1) {
  return {"/srv/images/", 0, false, percent * scale, (100 - percent) * scale};
}

std::string StateOf(const std::vector<FolderCondition>& conditions, const std::string& before = "",
                    const SpaceLimits& limits = kLimits) {
  const auto problem = WorstProblem(conditions, limits, before);
  return problem ? problem->state : "";
}

TEST(StorageCondition, Usage_AboveLimit_HasStateOfThatLimit) {
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

TEST(StorageCondition, Usage_MuchFreeSpace_IsNeverShort) {
  const SpaceLimits limits{85, 95, 100};
  EXPECT_EQ(StateOf({Used(95, 21 * kGib)}, "", limits), "") << "105 GiB are free";
  EXPECT_EQ(StateOf({Used(95, 20 * kGib)}, "", limits), states::full) << "100 GiB";
  EXPECT_EQ(StateOf({Used(95, 21 * kGib)}, states::full, limits), states::full) << "as far back as to 105 GiB";
  EXPECT_EQ(StateOf({Used(95, 22 * kGib)}, states::full, limits), "");
}

TEST(StorageCondition, WorstTrouble_Several_IsTheWorst) {
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

TEST(StorageCondition, Sentences_EachTrouble_NamesFolderAndReason) {
  const auto reason = [](const FolderCondition& condition) {
    return WorstProblem({condition}, kLimits, "").value_or(StorageProblem()).reason;
  };
  EXPECT_EQ(reason(Used(96)), "the file system of the folder '/srv/images/' is at least 95 % full");
  EXPECT_EQ(reason(Used(86)), "the file system of the folder '/srv/images/' is at least 85 % full");
  EXPECT_EQ(reason({"/srv/a", 0, true, 0, 1}), "the file system of the folder '/srv/a' is mounted read-only");
  EXPECT_THAT(reason({"/srv/a", ESTALE, false, 0, 0}), ::testing::HasSubstr("the folder '/srv/a' cannot be used"));
}

TEST(StorageCondition, IsFailure_DeviceErrors_AreFailures) {
  for (const int error : {EIO, ESTALE, EUCLEAN, ENOTCONN, ESHUTDOWN, ENXIO})
    EXPECT_TRUE(IsFileSystemFailure(error)) << error;
  for (const int error : {0, ENOENT, EACCES, ENOTDIR, ELOOP, ENFILE}) EXPECT_FALSE(IsFileSystemFailure(error)) << error;
}

TEST(StorageCondition, UsableRepositories_AreTheDocumentedOnes) {
  for (const char* state : {states::online, states::degraded, states::provision_warning}) {
    EXPECT_TRUE(IsUsableRepository(state)) << state;
  }
  for (const char* state : {states::inaccessible, states::unavailable, states::crashed, states::full, ""}) {
    EXPECT_FALSE(IsUsableRepository(state)) << state;
  }
}

TEST(StorageProbe, Probe_Folders_AreQueriedOncePerFileSystem) {
  const test::MountPoint mount("images");
  std::filesystem::create_directories(mount.File("a"));
  const auto found = ProbeFolders({mount.path() + "/", mount.File("a"), mount.File("missing")});
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].folder, mount.path() + "/");
  EXPECT_EQ(found[0].error_number, 0);
  EXPECT_FALSE(found[0].is_read_only);
  EXPECT_GT(found[0].used + found[0].available, 0u);
  EXPECT_TRUE(ProbeFolders({mount.File("missing"), "/proc/self/exe/none"}).empty());
}

TEST(StorageProbe, Probe_FullOrReadOnlyFileSystem_IsDetected) {
  if (!test::CanMount()) GTEST_SKIP() << test::kCannotMount;
  const test::MountPoint mount("images");
  ASSERT_TRUE(mount.MountTmpfs());
  test::WriteText(mount.File("big").c_str(), std::string((1 << 20) - 8192, 'x'));
  auto found = ProbeFolders({mount.path() + "/"});
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(StateOf(found), states::full);
  ASSERT_EQ(::mount("none", mount.path().c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  found = ProbeFolders({mount.path() + "/"});
  ASSERT_EQ(found.size(), 1u);
  EXPECT_TRUE(found[0].is_read_only);
  EXPECT_EQ(StateOf(found, "", {}), states::degraded);
}

}  // namespace
}  // namespace vexa::storage
