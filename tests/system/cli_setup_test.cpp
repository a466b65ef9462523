// vexa setup, and local commands of root on files of the service.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "host/base/descriptor.h"
#include "host/base/files.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/system/cli_terminal.h"

namespace {

namespace fs = std::filesystem;
using vexa::test::Process;
using vexa::test::ProcessResult;
using vexa::test::RunProcess;

constexpr std::chrono::seconds kTimeout{60};
constexpr const char* kAccount = "nobody";  // in place of the service's
constexpr const char* kPassword = "correct horse\n";

class Setup : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can set a host up";
    ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
    Write("vexad.conf", fmt::format("# A comment.\n#listen = \"127.0.0.1:8642\"\nlog = \"stderr\"\ndata = \"{}\"\n"
                                    "socket = \"{}\"\n",
                                    Data(), folder_.File("run/s")));
    ASSERT_TRUE(vexa::CreateDirectories(folder_.File("run"), 0755).ok());
    ASSERT_EQ(::chown(folder_.File("run").c_str(), Uid(), 0), 0);
  }
  void Write(const std::string& name, const std::string& text) const {
    ASSERT_TRUE(vexa::WriteFileAtomically(folder_.File(name), text, 0644).ok());
  }
  std::string Read(const std::string& name) const {
    const auto text = vexa::ReadFile(folder_.File(name), 1 << 20);
    return text ? *text : "";
  }
  std::string Data() const { return folder_.File("data"); }
  std::string Images() const { return folder_.File("images"); }
  static uid_t Uid() { return ::getpwnam(kAccount)->pw_uid; }
  static uid_t OwnerOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return info.st_uid;
  }
  void ExpectAllBelongToService() const {
    EXPECT_EQ(OwnerOf(Data()), Uid());
    for (const fs::directory_entry& file : fs::recursive_directory_iterator(Data())) {
      EXPECT_EQ(OwnerOf(file.path()), Uid()) << file.path();
    }
  }
  ProcessResult Run(const std::vector<std::string>& more, const std::string& input = kPassword,
                    const decltype(vexa::test::ProcessOptions::environment)& environment = {}) const {
    std::vector<std::string> arguments{
        VEXA_PROGRAM, "setup", "--yes", "--account", kAccount, "--config", folder_.File("vexad.conf")};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunProcess({.argv = arguments, .environment = environment, .input = input});
  }
  std::vector<std::string> AsService(const std::vector<std::string>& arguments) const {
    std::vector<std::string> all{"setpriv", fmt::format("--reuid={}", Uid()), "--clear-groups"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
  }

  vexa::test::TempDir folder_;
};

TEST_F(Setup, Machine_Installed_BecomesAHost) {
  const std::string old = Read("vexad.conf");
  const ProcessResult result =
      Run({"--admin", "admin", "--password-stdin", "--listen", "127.0.0.1:0", "--images", Images()});
  ASSERT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  EXPECT_TRUE(result.output.starts_with(
      fmt::format("Wrote {0} (its old text is in {0}.bak).\nAdded user 'admin'.\nNot started. Run: runuser -u {1} -- "
                  "vexad --config "
                  "'{0}'\nWhat works:\n  MISSING  Hypervisor: guests are only simulated here: nothing runs\n           "
                  "run: vexa setup "
                  "--hypervisor qemu:///system\n  works    Folder for guests: {2}\n",
                  folder_.File("vexad.conf"), kAccount, Images())))
      << result.output;
  // Whether the space is enough depends on the machine of the test.
  EXPECT_NE(result.output.find(fmt::format(" GiB in {}\n", Images())), std::string::npos) << result.output;
  EXPECT_EQ(Read("vexad.conf.bak"), old);
  EXPECT_EQ(Read("vexad.conf"),
            fmt::format("# A comment.\n#listen = \"127.0.0.1:8642\"\nlisten = \"127.0.0.1:0\"\nlog = \"stderr\"\n"
                        "data = \"{}\"\nsocket = \"{}\"\nimage-roots = \"{}\"\n",
                        Data(), folder_.File("run/s"), Images()));
  ExpectAllBelongToService();
  EXPECT_EQ(OwnerOf(Images()), Uid());
  EXPECT_EQ(fs::status(Images()).permissions(), fs::perms(0711));
  EXPECT_EQ(fs::status(Data()).permissions(), fs::perms(0700));

  // The service can start with that, and the administrator can log in.
  Process host({.argv = AsService({VEXAD_PROGRAM, "--config", folder_.File("vexad.conf")})});
  ASSERT_TRUE(host.WaitForText("Ready.", kTimeout)) << host.errors();
  const std::string log = host.errors();
  const std::string before = "Listening on ";
  const std::size_t start = log.find("Listening on http") + before.size();
  const std::string url = log.substr(start, log.find(".\n", start) - start);
  const ProcessResult login = RunProcess({.argv = {VEXA_PROGRAM, "login", "--server", url, "--password-stdin", "admin"},
                                          .environment = {{"XDG_CONFIG_HOME", folder_.File("home")}},
                                          .input = kPassword});
  EXPECT_EQ(login.exit_code, 0) << login.errors;

  // Beside the running daemon: nothing changes, and another administrator is added through it.
  const std::string configured = Read("vexad.conf");
  const ProcessResult again = Run({"--admin", "admin", "--password-stdin"});
  EXPECT_EQ(again.exit_code, 0) << again.errors;
  EXPECT_TRUE(
      again.output.starts_with(folder_.File("vexad.conf") + " stays as it is.\nThe user 'admin' exists already.\n"))
      << again.output;
  // Also where a context of root is used for another server.
  ASSERT_TRUE(vexa::CreateDirectories(folder_.File("root/vexa"), 0700).ok());
  Write("root/vexa/contexts.json", R"({"contexts":{"a":{"server":"http://127.0.0.1:1"}},"current":"a"})");
  const ProcessResult second =
      Run({"--admin", "second", "--password-stdin"}, kPassword, {{"XDG_CONFIG_HOME", folder_.File("root")}});
  EXPECT_EQ(second.exit_code, 0) << second.errors;
  EXPECT_NE(second.output.find("Added user 'second'."), std::string::npos) << second.output;
  EXPECT_EQ(Read("vexad.conf"), configured);
  ExpectAllBelongToService();
  host.Signal(SIGTERM);
  EXPECT_TRUE(host.Wait(kTimeout));
}

TEST_F(Setup, Setting_ThatTheDaemonRefuses_ChangesNothing) {
  const std::string old = Read("vexad.conf");
  const ProcessResult open = Run({"--listen", "0.0.0.0:8642"});
  EXPECT_EQ(open.exit_code, 2);
  EXPECT_EQ(open.errors,
            "vexa: listen = \"0.0.0.0:8642\": '0.0.0.0' can be reached by other machines. Set 'tls-certificate' and "
            "'tls-key', so that passwords are not sent in the clear.\n");
  const ProcessResult quoted = Run({"--images", "/a\"b"});
  EXPECT_EQ(quoted.exit_code, 2);
  EXPECT_EQ(quoted.errors, "vexa: '/a\"b' cannot be the value of 'image-roots'\n");
  EXPECT_EQ(Read("vexad.conf"), old);
  EXPECT_FALSE(fs::exists(folder_.File("vexad.conf.bak")));
  EXPECT_FALSE(fs::exists(folder_.File("vexad.conf.new")));
  EXPECT_FALSE(fs::exists(Data()));
}

TEST_F(Setup, Caller_WithoutRightsOrAccount_IsToldWhatHelps) {
  const ProcessResult unknown = RunProcess(
      {.argv = {VEXA_PROGRAM, "setup", "--yes", "--account", "no-such", "--config", folder_.File("vexad.conf")}});
  EXPECT_EQ(unknown.errors,
            "vexa: There is no account 'no-such' for the service. Install the package vexad, or run: useradd --system "
            "no-such\n");
  // A copy, because the build's folder may be closed to other accounts.
  fs::copy_file(VEXA_PROGRAM, folder_.File("vexa"));
  const ProcessResult other = RunProcess(
      {.argv = AsService({folder_.File("vexa"), "setup", "--yes"}), .environment = {{"HOME", folder_.path()}}});
  EXPECT_EQ(other.errors, "vexa: Only root can set a host up. Run: sudo vexa setup\n");
  EXPECT_EQ(other.exit_code, 1);
}

TEST_F(Setup, Hypervisor_ThatCannotBeReached_IsReportedWithWhatHelps) {
  const std::string uri = "qemu+unix:///system?socket=" + folder_.File("none");
  const ProcessResult result = Run({"--images", Images(), "--hypervisor", uri});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_NE(result.output.find(fmt::format("  MISSING  libvirt: '{}' cannot use '{}': ", kAccount, uri)),
            std::string::npos)
      << result.output;
  EXPECT_NE(
      result.output.find("run: apt-get install libvirt-daemon-system; usermod -aG libvirt nobody; systemctl start "
                         "libvirtd\n"),
      std::string::npos)
      << result.output;
  EXPECT_NE(result.output.find("  KVM: "), std::string::npos) << result.output;
}

TEST_F(Setup, Terminal_AsksForWhatIsMissing) {
  vexa::test::OnTerminal setup(
      {.argv = {VEXA_PROGRAM, "setup", "--account", kAccount, "--config", folder_.File("vexad.conf")}});
  ASSERT_TRUE(setup.WaitFor("First administrator ('-' for none) [admin]: ")) << setup.shown();
  setup.Type("root-of-all\n");
  ASSERT_TRUE(setup.WaitFor("Address and port for users [127.0.0.1:8642]: ")) << setup.shown();
  setup.Type("127.0.0.1:8699\n");
  ASSERT_TRUE(setup.WaitFor("Folder for guests [/var/lib/vexa-images]: ")) << setup.shown();
  setup.Type(Images() + "\n");
  for (const char* const prompt : {"Password of root-of-all: ", "Password of root-of-all again: "}) {
    ASSERT_TRUE(setup.WaitFor(prompt)) << setup.shown();
    setup.Type(kPassword);
  }
  ASSERT_TRUE(setup.WaitFor("Added user 'root-of-all'.")) << setup.shown();
  ASSERT_TRUE(setup.WaitFor("What works:")) << setup.shown();
  EXPECT_EQ(setup.Finish(), 0) << setup.shown();
  EXPECT_NE(Read("vexad.conf").find("listen = \"127.0.0.1:8699\""), std::string::npos);
}

TEST_F(Setup, EndOfInput_AtAQuestion_ChangesNothing) {
  const std::string old = Read("vexad.conf");
  vexa::test::OnTerminal setup(
      {.argv = {VEXA_PROGRAM, "setup", "--account", kAccount, "--config", folder_.File("vexad.conf")}});
  ASSERT_TRUE(setup.WaitFor("First administrator ('-' for none) [admin]: ")) << setup.shown();
  setup.Type("\x04");
  EXPECT_NE(setup.Finish(), 0) << setup.shown();
  EXPECT_NE(setup.shown().find("vexa: The questions were not answered, so nothing has changed"), std::string::npos)
      << setup.shown();
  EXPECT_EQ(Read("vexad.conf"), old);
  EXPECT_FALSE(fs::exists(Data()));
}

TEST_F(Setup, FolderElsewhere_IsOpenedInTheUnit) {
  const std::string drop_in = "units/vexad.service.d/guests.conf";
  EXPECT_EQ(Run({"--images", Images(), "--units", folder_.File("units")}).exit_code, 0);
  EXPECT_EQ(Read(drop_in), fmt::format("# Made by 'vexa setup'.\n[Service]\nReadWritePaths=\"-{}\"\n", Images()));
  // The data folder needs none.
  fs::remove_all(folder_.File("units"));
  EXPECT_EQ(Run({"--images", Data() + "/images", "--units", folder_.File("units")}).exit_code, 0);
  EXPECT_FALSE(fs::exists(folder_.File("units")));
}

// QEMU is a child of the daemon there, and would not start under the unit as it is packaged.
TEST_F(Setup, EmbeddedGuests_GetTheirRightsInTheUnit) {
  const std::string drop_in = "units/vexad.service.d/embed.conf";
  const std::vector<std::string> embed{"--images", Images(), "--units", folder_.File("units"), "--hypervisor", "embed"};
  const ProcessResult result = Run(embed);
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output.find("libvirt-qemu"), std::string::npos)
      << "QEMU runs as the service's account: " << result.output;
  const auto packaged = vexa::ReadFile(VEXA_SOURCE_DIR "/packaging/vexad-embed.conf", 1 << 20);
  ASSERT_TRUE(packaged.ok());
  EXPECT_EQ(Read(drop_in), "# Made by 'vexa setup'.\n" + *packaged);
  // Later runs change nothing. With another hypervisor, guests may still run below the daemon.
  EXPECT_EQ(Run({"--units", folder_.File("units")}).exit_code, 0);
  const ProcessResult other = Run({"--units", folder_.File("units"), "--hypervisor", "test"});
  EXPECT_NE(other.output.find(fmt::format("The unit keeps the rights that guests of \"embed\" need. When all of those "
                                          "are shut down, run: rm '{}'; systemctl daemon-reload\n",
                                          folder_.File(drop_in))),
            std::string::npos)
      << other.output;
  EXPECT_TRUE(fs::exists(folder_.File(drop_in)));
  // A file of the administrator's own stays as it is.
  Write(drop_in, *packaged);
  EXPECT_EQ(Run(embed).output.find("stays as it is, because"), std::string::npos) << "it has what is needed";
  Write(drop_in, "[Service]\n");
  const ProcessResult kept = Run(embed);
  EXPECT_EQ(kept.exit_code, 0);
  EXPECT_EQ(Read(drop_in), "[Service]\n");
  EXPECT_NE(kept.output.find(fmt::format("'{}' stays as it is, because 'vexa setup' has not made it. The unit needs:\n"
                                         "  KillMode=process\n  PrivateDevices=no\n  DeviceAllow=/dev/kvm rw\n",
                                         folder_.File(drop_in))),
            std::string::npos)
      << kept.output;
}

TEST_F(Setup, EmbeddedGuestsElsewhere_GetTheirFolder) {
  const std::string root = folder_.File("states");
  Write("vexad.conf", Read("vexad.conf") + fmt::format("hypervisor-root = \"{}\"\n", root));
  EXPECT_EQ(Run({"--images", Data() + "/images", "--units", folder_.File("units"), "--hypervisor", "embed"}).exit_code,
            0);
  EXPECT_EQ(OwnerOf(root), Uid());
  EXPECT_EQ(Read("units/vexad.service.d/guests.conf"),
            fmt::format("# Made by 'vexa setup'.\n[Service]\nReadWritePaths=\"-{}\"\n", root));
}

TEST_F(Setup, UriOfEmbeddedGuests_IsRefusedWithTheSetting) {
  const std::string old = Read("vexad.conf");
  const ProcessResult result = Run({"--hypervisor", "qemu:///embed?root=/srv/states"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.errors,
            "vexa: 'qemu:///embed?root=/srv/states' is the driver of guests below the daemon, which sets it up by "
            "itself. Run: vexa setup --hypervisor embed\n");
  EXPECT_EQ(Read("vexad.conf"), old);
  EXPECT_FALSE(fs::exists(Data()));
}

// Root made the data folder, and files in it, before the service.
TEST_F(Setup, FilesOfRoot_BecomeThoseOfTheService) {
  ASSERT_TRUE(vexa::CreateDirectories(Data() + "/store", 0700).ok());
  Write("data/host-id", "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211\n");
  Write("elsewhere", "");
  ASSERT_EQ(::symlink(folder_.File("elsewhere").c_str(), (Data() + "/link").c_str()), 0);
  ASSERT_EQ(::link(folder_.File("elsewhere").c_str(), (Data() + "/hard").c_str()), 0);
  EXPECT_EQ(Run({"--images", Images()}).exit_code, 0);
  EXPECT_EQ(OwnerOf(Data()), Uid());
  EXPECT_EQ(OwnerOf(Data() + "/store"), Uid());
  EXPECT_EQ(OwnerOf(Data() + "/host-id"), Uid());
  EXPECT_EQ(OwnerOf(folder_.File("elsewhere")), 0u) << "links lead to files of others";
}

// The account may write in its data folder, and root follows no link that it has made there.
TEST_F(Setup, StoreThatIsALinkOfTheService_GivesItNoFilesOfRoot) {
  ASSERT_TRUE(vexa::CreateDirectories(Data(), 0700).ok());
  ASSERT_EQ(::chown(Data().c_str(), Uid(), 0), 0);
  ASSERT_TRUE(vexa::CreateDirectories(folder_.File("secret"), 0700).ok());
  Write("secret/hashes", "");
  ASSERT_EQ(::symlink(folder_.File("secret").c_str(), (Data() + "/store").c_str()), 0);
  ASSERT_EQ(::lchown((Data() + "/store").c_str(), Uid(), 0), 0);
  EXPECT_EQ(Run({"--images", Images()}).exit_code, 0);
  EXPECT_EQ(OwnerOf(folder_.File("secret")), 0u);
  EXPECT_EQ(OwnerOf(folder_.File("secret/hashes")), 0u);
}

TEST_F(Setup, DataFolderThatIsALink_IsFollowedOnlyWhenRootMadeIt) {
  ASSERT_TRUE(vexa::CreateDirectories(folder_.File("elsewhere"), 0700).ok());
  Write("elsewhere/host-id", "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211\n");
  ASSERT_EQ(::symlink(folder_.File("elsewhere").c_str(), Data().c_str()), 0);
  ASSERT_EQ(::lchown(Data().c_str(), Uid(), 0), 0);
  const ProcessResult refused = Run({"--images", Images()});
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_EQ(refused.errors, fmt::format("vexa: '{0}' is a symbolic link of another account than root. Remove it, or "
                                        "run: chown -h root '{0}'\n",
                                        Data()));
  EXPECT_EQ(OwnerOf(folder_.File("elsewhere/host-id")), 0u);
  ASSERT_EQ(::lchown(Data().c_str(), 0, 0), 0);
  EXPECT_EQ(Run({"--images", Images()}).exit_code, 0);
  EXPECT_EQ(OwnerOf(folder_.File("elsewhere")), Uid());
  EXPECT_EQ(OwnerOf(folder_.File("elsewhere/host-id")), Uid());
}

TEST_F(Setup, ConfigurationWithLists_KeepsThemWhenTheyAreAccepted) {
  const std::string text = fmt::format(
      "data = \"{}\"\nlog = \"stderr\"\nsocket = \"{}\"\nlisten = [\"127.0.0.1:8701\", "
      "\"127.0.0.1:8702\"]\nimage-roots = [\"{}\", \"{}\"]\n",
      Data(), folder_.File("run/s"), Images(), folder_.File("more"));
  Write("vexad.conf", text);
  vexa::test::OnTerminal setup(
      {.argv = {VEXA_PROGRAM, "setup", "--account", kAccount, "--config", folder_.File("vexad.conf")}});
  for (const char* const question : {"First administrator", "Address and port for users", "Folder for guests"}) {
    ASSERT_TRUE(setup.WaitFor(question)) << setup.shown();
    setup.Type(question[0] == 'F' && question[1] == 'i' ? "-\n" : "\n");
  }
  EXPECT_EQ(setup.Finish(), 0) << setup.shown();
  EXPECT_EQ(Read("vexad.conf"), text);
  EXPECT_EQ(OwnerOf(folder_.File("more")), Uid());
}

// Without the setting, the daemon keeps disks in its data folder; a host that has some there keeps its setting.
TEST_F(Setup, HostWithGuestsInTheDefaultFolder_KeepsIt) {
  ASSERT_TRUE(vexa::CreateDirectories(Data() + "/images/pool", 0711).ok());
  const std::string old = Read("vexad.conf");
  const ProcessResult result = Run({});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(Read("vexad.conf"), old);
  EXPECT_NE(result.output.find("Folder for guests: " + Data() + "/images\n"), std::string::npos) << result.output;
}

// A service that runs would keep its old configuration otherwise: the next run changes nothing, and restarts nothing.
TEST_F(Setup, Administrator_ThatCannotBeAdded_DoesNotKeepTheServiceFromTheNewConfiguration) {
  const ProcessResult result = Run({"--images", Images(), "--admin", "admin", "--password-stdin"}, "\n");
  EXPECT_NE(result.exit_code, 0);
  EXPECT_TRUE(result.errors.starts_with("vexa: ")) << result.errors;
  EXPECT_NE(result.output.find("Not started. Run: "), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("What works:"), std::string::npos) << result.output;
}

TEST_F(Setup, ConfigurationThatIsWrongAlready_IsRefusedBeforeAnythingIsMade) {
  Write("vexad.conf", fmt::format("image-roots = \"{}\"\nlisten = \"8642\"\ndata = \"{}\"\n", Images(), Data()));
  const ProcessResult result = Run({});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.errors,
            "vexa: listen = \"8642\": '8642' is not an address to listen on. Use a numeric address and a port, such as "
            "127.0.0.1:8642 or [::1]:8642.\n");
  EXPECT_FALSE(fs::exists(Data()));
  EXPECT_FALSE(fs::exists(Images()));
}

TEST_F(Setup, ConfigurationThatAnAccountMayReadAsItsGroup_StaysReadable) {
  const gid_t group = ::getpwnam(kAccount)->pw_gid;
  const std::string file = folder_.File("vexad.conf");
  ASSERT_EQ(::chown(file.c_str(), 0, group), 0);
  ASSERT_EQ(::chmod(file.c_str(), 0640), 0);
  EXPECT_EQ(Run({"--images", Images()}).exit_code, 0);
  for (const std::string& written : {file, file + ".bak"}) {
    struct stat info {};
    ASSERT_EQ(::stat(written.c_str(), &info), 0);
    EXPECT_EQ(info.st_gid, group) << written;
    EXPECT_EQ(info.st_mode & 0777U, 0640U) << written;
  }
}

TEST_F(Setup, QuestionForThePassword_KeepsNoDaemonFromStarting) {
  ASSERT_TRUE(vexa::CreateDirectories(Data(), 0700).ok());
  Write("data/vexad.lock", "");
  vexa::test::OnTerminal setup({.argv = {VEXA_PROGRAM, "setup", "--yes", "--admin", "admin", "--images", Images(),
                                         "--account", kAccount, "--config", folder_.File("vexad.conf")}});
  ASSERT_TRUE(setup.WaitFor("Password of admin: ")) << setup.shown();
  {
    const vexa::Descriptor lock(::open((Data() + "/vexad.lock").c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(::flock(lock.get(), LOCK_EX | LOCK_NB), 0) << "a daemon could not start";
  }
  setup.Type(kPassword);
  ASSERT_TRUE(setup.WaitFor("Password of admin again: ")) << setup.shown();
  setup.Type(kPassword);
  EXPECT_EQ(setup.Finish(), 0) << setup.shown();
}

// The store belonged to root, and the service could not open it.
TEST_F(Setup, LocalCommandOfRoot_OnFilesOfTheService_RunsAsItsAccount) {
  ASSERT_TRUE(vexa::CreateDirectories(Data(), 0700).ok());
  ASSERT_EQ(::chown(Data().c_str(), Uid(), 0), 0);
  const ProcessResult added = RunProcess({.argv = {VEXA_PROGRAM, "user", "add", "admin", "--group", "administrators",
                                                   "--password-stdin", "--data", Data()},
                                          .input = kPassword});
  ASSERT_EQ(added.exit_code, 0) << added.errors;
  ExpectAllBelongToService();
}

}  // namespace
