// Stamps of passwords, from the name service and from the shadow file: what counts as no stamp, and what as one that
// cannot be read now.
#include "host/accounts/account_shadow.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <shadow.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "host/accounts/account_local.h"
#include "host/accounts/account_nss.h"
#include "host/accounts/account_pam.h"
#include "host/accounts/entry_file.h"
#include "host/base/files.h"
#include "tests/unit/storage/temporary_folder.h"

namespace {

constexpr int kUseRealNameService = -1;
int nss_error_number = kUseRealNameService;  // 0: there is no such entry

}  // namespace

// In place of the C library's function.
extern "C" int getspnam_r(const char* name, spwd* entry, char* buffer, std::size_t size, spwd** found) {
  *found = nullptr;
  if (nss_error_number != kUseRealNameService) return nss_error_number;
  static const auto real = reinterpret_cast<decltype(&::getspnam_r)>(::dlsym(RTLD_NEXT, "getspnam_r"));
  return real(name, entry, buffer, size, found);
}

namespace vexa::accounts {
namespace {

class ShadowTest : public testing::Test {
 protected:
  ShadowTest() { Write("root:*:19000:0:99999:7:::\nalice:$y$x:19700:0:99999:7:::\nbob:!::0:99999:7:::\n"); }
  ~ShadowTest() override { nss_error_number = kUseRealNameService; }

  void Write(const std::string& text) { ASSERT_TRUE(WriteFileAtomically(File(), text, 0600).ok()); }
  std::string File() const { return folder_.Path("shadow"); }
  std::unique_ptr<AccountProvider> Accounts() const {
    PamOptions options;
    options.config_directory = folder_.path();
    options.shadow_file = File();
    return MakePamAccounts(options);
  }
  // Reading the file fails from now on, and not because of rights.
  void ReplaceFileByFolder() {
    ASSERT_EQ(::unlink(File().c_str()), 0);
    ASSERT_EQ(::mkdir(File().c_str(), 0700), 0);
  }

  TemporaryFolder folder_;
};

TEST_F(ShadowTest, ReadPasswordStamp_Entry_IsTheDayOfTheLastChange) {
  EXPECT_EQ(*ReadPasswordStamp(File(), "alice"), "day-19700");
  EXPECT_EQ(*ReadPasswordStamp(File(), "bob"), "day--1") << "as the C library reads a missing day";
}

TEST_F(ShadowTest, ReadPasswordStamp_NoEntryOrNoFile_IsEmpty) {
  EXPECT_EQ(*ReadPasswordStamp(File(), "alic"), "");
  EXPECT_EQ(*ReadPasswordStamp(File(), "carol"), "");
  EXPECT_EQ(*ReadPasswordStamp(folder_.Path("no"), "alice"), "");
}

TEST_F(ShadowTest, ReadPasswordStamp_MayNotBeRead_IsEmpty) {
  ASSERT_EQ(::chmod(File().c_str(), 0), 0);
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
  const uid_t own = ::geteuid();
  if (own == 0) {
    ASSERT_EQ(::seteuid(65534), 0);
  }
  const auto stamp = ReadPasswordStamp(File(), "alice");
  ASSERT_EQ(::seteuid(own), 0);
  ASSERT_TRUE(stamp.ok()) << stamp.error().ToString();
  EXPECT_EQ(*stamp, "");
}

TEST_F(ShadowTest, ReadPasswordStamp_FileCannotBeRead_IsUnavailable) {
  ReplaceFileByFolder();
  const auto stamp = ReadPasswordStamp(File(), "alice");
  ASSERT_FALSE(stamp.ok());
  EXPECT_EQ(stamp.error().code(), ErrorCode::kUnavailable);
  EXPECT_EQ(stamp.error().ToString(), "Cannot read '" + File() + "': Is a directory");
}

TEST_F(ShadowTest, ReadPasswordStamp_EntryThatIsTooLong_IsUnavailable) {
  Write("root:*:19000:0:99999:7:::\nlong:" + std::string(kMaxEntryBytes, 'x') + ":1::::::\nalice:*:19700::::::\n");
  EXPECT_EQ(*ReadPasswordStamp(File(), "root"), "day-19000");
  const auto stamp = ReadPasswordStamp(File(), "alice");
  ASSERT_FALSE(stamp.ok());
  EXPECT_EQ(stamp.error().code(), ErrorCode::kUnavailable);
}

// A session that was begun with the name service is compared with the files while the name service hangs.
TEST_F(ShadowTest, Stamp_OfLocalUser_IsTheSameFromNameServiceAndFiles) {
  const auto through_nss = MakePamAccounts({})->FindUser("root");
  const auto from_files = MakeLocalAccounts({})->FindUser("root");
  ASSERT_TRUE(through_nss.ok() && from_files.ok());
  EXPECT_EQ(through_nss->stamp, from_files->stamp);
  if (::geteuid() == 0 && ::getspnam("root") != nullptr) {
    EXPECT_NE(from_files->stamp, "");
  }
}

// "shadow: files systemd" in nsswitch.conf(5): the second service has no entry, whatever the first one's failure was.
TEST_F(ShadowTest, NssPasswordStamp_NameServiceHasNoEntry_IsThatOfTheFile) {
  for (const int error_number : {0, ENOENT, ESRCH, EACCES, EPERM}) {
    nss_error_number = error_number;
    EXPECT_EQ(*NssPasswordStamp("alice", File()), "day-19700") << error_number;
    EXPECT_EQ(*NssPasswordStamp("carol", File()), "") << error_number;
  }
  ReplaceFileByFolder();
  const auto unreadable = NssPasswordStamp("alice", File());
  ASSERT_FALSE(unreadable.ok());
  EXPECT_EQ(unreadable.error().code(), ErrorCode::kUnavailable);
}

TEST_F(ShadowTest, NssPasswordStamp_NameServiceFails_IsUnavailable) {
  for (const int error_number : {EMFILE, ENFILE, ENOMEM, EAGAIN, EIO, ECONNREFUSED, ETIMEDOUT}) {
    nss_error_number = error_number;
    const auto stamp = NssPasswordStamp("alice", File());
    ASSERT_FALSE(stamp.ok()) << error_number;
    EXPECT_EQ(stamp.error().code(), ErrorCode::kUnavailable);
  }
  nss_error_number = EMFILE;
  EXPECT_EQ(NssPasswordStamp("alice", File()).error().ToString(),
            "The name service cannot look up the shadow entry of the user 'alice': Too many open files");
}

// Without its stamp, a user is neither found, so that sessions would end, nor let in, so that a session would have
// none.
TEST_F(ShadowTest, PamAccounts_StampCannotBeRead_AreUnavailable) {
  ASSERT_TRUE(
      WriteFileAtomically(folder_.Path("vexad"), "auth required pam_permit.so\naccount required pam_permit.so\n", 0644)
          .ok());
  const auto accounts = Accounts();
  ASSERT_TRUE(accounts->VerifyPassword("root", "x").ok());
  nss_error_number = EMFILE;
  for (const auto& user :
       {accounts->FindUser("root"), accounts->FindUserByUid(0), accounts->VerifyPassword("root", "x")}) {
    ASSERT_FALSE(user.ok());
    EXPECT_EQ(user.error().code(), ErrorCode::kUnavailable);
  }
  nss_error_number = 0;
  EXPECT_EQ(accounts->FindUser("root")->stamp, "day-19000");
  EXPECT_EQ(accounts->FindUser("daemon")->stamp, "") << "in the name service, without a shadow entry";
}

TEST_F(ShadowTest, LocalAccounts_StampCannotBeRead_AreUnavailable) {
  ReplaceFileByFolder();
  LocalAccountOptions options;
  options.shadow_file = File();
  const auto user = MakeLocalAccounts(options)->FindUser("root");
  ASSERT_FALSE(user.ok());
  EXPECT_EQ(user.error().code(), ErrorCode::kUnavailable);
}

}  // namespace
}  // namespace vexa::accounts
