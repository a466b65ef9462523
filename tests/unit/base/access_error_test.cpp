#include "host/base/access_error.h"

#include <gtest/gtest.h>

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "tests/support/temp_dir.h"

namespace vexa {
namespace {

constexpr uid_t kOther = 65534;

// The error that the other account gets for the path.
class AccessErrors : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can act as another account";
    ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
    std::filesystem::create_directories(Folder());
    std::ofstream(File()) << "disk";
    for (const std::string& path : {Above(), Folder(), File()}) Give(path, kOther, 0700);
  }
  static void Give(const std::string& path, uid_t owner, mode_t mode) {
    ASSERT_EQ(::chown(path.c_str(), owner, 0), 0);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
  }
  std::string TextOfOther(int error_number) const {
    EXPECT_EQ(::seteuid(kOther), 0);
    const Error error = AccessError(ErrorCode::kInternal, "It failed", File(), error_number);
    EXPECT_EQ(::seteuid(0), 0);
    return error.ToString();
  }
  std::string Above() const { return folder_.File("above"); }
  std::string Folder() const { return Above() + "/folder"; }
  std::string File() const { return Folder() + "/file"; }

  test::TempDir folder_;
};

TEST_F(AccessErrors, MissingRight_NamesWhatIsClosed) {
  const std::string start = "It failed: Permission denied";
  EXPECT_EQ(TextOfOther(EACCES), start) << "nothing is closed by owner and mode";
  Give(File(), 0, 0600);
  EXPECT_EQ(
      TextOfOther(EACCES),
      fmt::format("{}; the file '{}' belongs to 'root' and has mode 0600, so 'nobody' cannot use it", start, File()));
  Give(Folder(), 0, 0755);
  EXPECT_EQ(
      TextOfOther(EACCES),
      fmt::format("{0}; the folder '{1}' belongs to 'root' and has mode 0755, so 'nobody' cannot use it. Run: chown "
                  "nobody: '{1}'",
                  start, Folder()));
  Give(Above(), 0, 0700);
  EXPECT_EQ(
      TextOfOther(EACCES),
      fmt::format("{0}; the folder '{1}' belongs to 'root' and has mode 0700, so 'nobody' cannot use it. Run: chmod "
                  "o+x '{1}'",
                  start, Above()));
}

TEST_F(AccessErrors, OtherCause_IsTheSystems) {
  Give(Folder(), 0, 0755);
  EXPECT_EQ(TextOfOther(EIO), "It failed: Input/output error");
  EXPECT_EQ(AccessError(ErrorCode::kInternal, "It failed", "", EACCES).ToString(), "It failed: Permission denied");
  EXPECT_EQ(AccessError(ErrorCode::kInternal, "It failed", "/x", EACCES).ToString(), "It failed: Permission denied");
}

}  // namespace
}  // namespace vexa
