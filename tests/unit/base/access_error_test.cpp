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

// The error that another account gets for a path.
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
  std::string TextOfOther(int error_number, AccessTo access = AccessTo::kEntry) const {
    return TextOfOther(File(), error_number, access);
  }
  static std::string TextOfOther(const std::string& path, int error_number, AccessTo access) {
    EXPECT_EQ(::seteuid(kOther), 0);
    const Error error = AccessError(ErrorCode::kInternal, "It failed", path, access, error_number);
    EXPECT_EQ(::seteuid(0), 0);
    return error.ToString();
  }
  std::string Above() const { return folder_.File("above"); }
  std::string Folder() const { return Above() + "/folder"; }
  std::string File() const { return Folder() + "/file"; }

  test::TempDir folder_;
};

TEST_F(AccessErrors, PermissionDenied_NamesTheFileOrFolderThatDeniesAccess) {
  const std::string start = "It failed: Permission denied";
  EXPECT_EQ(TextOfOther(EACCES), start) << "owner and mode of all folders and of the file allow access";
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

// The folder of a file that cannot be read may be as it is, such as /srv.
TEST_F(AccessErrors, FileOfAnotherAccount_IsNamedRatherThanItsFolder) {
  Give(Folder(), 0, 0755);
  EXPECT_EQ(TextOfOther(EACCES, AccessTo::kContent), "It failed: Permission denied");
  Give(File(), 0, 0600);
  EXPECT_EQ(TextOfOther(EACCES, AccessTo::kContent),
            fmt::format("It failed: Permission denied; the file '{}' belongs to 'root' and has mode 0600, so 'nobody' "
                        "cannot use it",
                        File()));
  Give(Above(), 0, 0755);
  Give(Folder(), 0, 0700);
  for (const std::string& path : {File(), Folder()}) {
    EXPECT_EQ(TextOfOther(path, EACCES, AccessTo::kContent),
              fmt::format("It failed: Permission denied; the folder '{0}' belongs to 'root' and has mode 0700, so "
                          "'nobody' cannot use it. Run: chown nobody: '{0}'",
                          Folder()));
  }
}

// Others may choose the names of folders, and administrators run what the answer says.
TEST_F(AccessErrors, SuggestedCommand_QuotesThePathOrIsLeftOut) {
  const auto text_with = [this](const std::string& name) {
    const std::string folder = folder_.File(name);
    std::filesystem::create_directory(folder);
    Give(folder, 0, 0755);
    return TextOfOther(folder + "/file", EACCES, AccessTo::kEntry);
  };
  const std::string quoted = text_with("it's; id;'");
  const std::string path = folder_.path() + R"(/it'\''s; id;'\'')";
  EXPECT_TRUE(quoted.ends_with(". Run: chown nobody: '" + path + "'")) << quoted;
  const std::string on_two_lines = text_with("a\nb");
  EXPECT_TRUE(on_two_lines.ends_with("'nobody' cannot use it")) << on_two_lines;
}

TEST_F(AccessErrors, OtherError_HasOnlyTheTextOfTheSystem) {
  Give(Folder(), 0, 0755);
  EXPECT_EQ(TextOfOther(EIO), "It failed: Input/output error");
  EXPECT_EQ(AccessError(ErrorCode::kInternal, "It failed", "", AccessTo::kEntry, EACCES).ToString(),
            "It failed: Permission denied");
  EXPECT_EQ(AccessError(ErrorCode::kInternal, "It failed", "/x", AccessTo::kEntry, EACCES).ToString(),
            "It failed: Permission denied");
}

}  // namespace
}  // namespace vexa
