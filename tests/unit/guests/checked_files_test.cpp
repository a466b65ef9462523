#include "host/guests/checked_files.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "host/hypervisor/qemu_process.h"
#include "tests/support/qcow2_image.h"
#include "tests/support/temp_dir.h"

namespace vexa::guests {
namespace {

namespace fs = std::filesystem;
using hypervisor::HeldFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// This process has open what QEMU would have open.
class CheckedFilesOf : public testing::Test {
 protected:
  CheckedFilesOf() { fs::create_directory(root_); }

  std::string Path(const std::string& name) const { return root_ + "/" + name; }
  std::string File(const std::string& name, const std::string& content = "x") const {
    std::ofstream(Path(name), std::ios::binary) << content;
    return Path(name);
  }
  static std::string Disk(const std::string& path, const std::string& format = "raw") {
    return "<disk><driver type='" + format + "'/><source file='" + path + "'/><target dev='vda'/></disk>";
  }
  static std::string Domain(const std::string& devices, const std::string& rest = "") {
    return "<domain><name>a</name>" + rest + "<devices>" + devices + "</devices></domain>";
  }
  Result<CheckedFiles> Open(const std::string& xml) const { return CheckedFiles::Open(xml, options_); }
  std::string Refusal(const std::string& path, const std::string& format = "raw") const {
    const auto files = Open(Domain(Disk(path, format)));
    return files ? "" : files.error().ToString();
  }

  // Opens the file as QEMU does, by its path.
  void Hold(const std::string& path) { held_.emplace_back(::open(path.c_str(), O_RDONLY | O_CLOEXEC)); }
  // The files that were opened with Hold: the test program has others as well.
  std::vector<HeldFile> Held() const {
    std::vector<HeldFile> files;
    const auto all = hypervisor::FilesOfProcess(std::to_string(::getpid()));
    EXPECT_TRUE(all);
    for (const Descriptor& descriptor : held_) {
      struct stat info {};
      EXPECT_EQ(::fstat(descriptor.get(), &info), 0);
      for (const HeldFile& file : *all) {
        if (file.device == info.st_dev && file.inode == info.st_ino) files.push_back(file);
      }
    }
    return files;
  }
  std::string Mismatch(const CheckedFiles& files) const {
    const auto compared = files.Compare(Held());
    if (compared) {
      EXPECT_THAT(*compared, IsEmpty());
      return "";
    }
    EXPECT_EQ(compared.error().code(), ErrorCode::kInvalid);
    return compared.error().message();
  }

  test::TempDir folder_;
  const std::string root_ = folder_.File("images");
  FileCheckOptions options_{{root_}, IfUnreadable::kRefuse};
  std::vector<Descriptor> held_;
};

TEST_F(CheckedFilesOf, Open_GoodFiles_AreAccepted) {
  const std::string raw = File("a.raw");
  const std::string qcow2 = File("a.qcow2", test::Qcow2Image().Text());
  test::Qcow2Image hostile;
  hostile.backing_file = "/etc/shadow";
  EXPECT_EQ(Refusal(raw), "");
  EXPECT_EQ(Refusal(qcow2, "qcow2"), "");
  EXPECT_EQ(Refusal(File("stays.raw", hostile.Text())), "") << "a raw image stays raw";
  // The folder itself may be a link, and files may be elsewhere.
  fs::create_directory_symlink(root_, folder_.File("linked"));
  options_.roots = {folder_.File("linked")};
  EXPECT_EQ(Refusal(folder_.File("linked/a.raw")), "");
  options_.roots = {};
  EXPECT_EQ(Refusal(raw), "");
  options_.roots = {"/"};
  EXPECT_EQ(Refusal(fs::canonical(raw)), "");
}

TEST_F(CheckedFilesOf, Open_FileThatIsNotAnImage_IsRefused) {
  const std::string target = folder_.File("outside");
  std::ofstream(target) << "x";
  fs::create_symlink(target, Path("link"));
  fs::create_directory_symlink(folder_.path(), Path("folder"));
  ASSERT_EQ(::mkfifo(Path("fifo").c_str(), 0600), 0);
  EXPECT_THAT(Refusal(Path("none")), HasSubstr("The disk 'vda' cannot be used: '" + Path("none") + "' does not exist"));
  EXPECT_THAT(Refusal(Path("link")), HasSubstr("is a symbolic link. Name the file itself"));
  EXPECT_THAT(Refusal(Path("folder/outside")), HasSubstr("is reached through a symbolic link"));
  EXPECT_THAT(Refusal(Path("fifo")), HasSubstr("is not a regular file"));
  EXPECT_THAT(Refusal(root_), HasSubstr("is not a regular file"));
  EXPECT_THAT(Refusal(Path("a/../b")), HasSubstr("is not the absolute path of a file"));
  EXPECT_THAT(Refusal("/dev/null"), HasSubstr("is neither a block device nor a regular file"));
  options_.roots = {};
  EXPECT_THAT(Refusal(Path("link")), HasSubstr("is a symbolic link. Name the file itself"));
}

TEST_F(CheckedFilesOf, Open_HostileQcow2_IsRefused) {
  test::Qcow2Image image;
  image.backing_file = "/etc/shadow";
  EXPECT_THAT(Refusal(File("a", image.Text()), "qcow2"), HasSubstr("has the backing file '/etc/shadow'"));
  image = {};
  image.data_file = "/srv/other";
  EXPECT_THAT(Refusal(File("a", image.Text()), "qcow2"), HasSubstr("has its data in another file, '/srv/other'"));
  EXPECT_THAT(Refusal(File("a", "x"), "qcow2"), HasSubstr("it is not a qcow2 image"));
  EXPECT_THAT(Refusal(File("a"), "vmdk"), HasSubstr("convert the image to qcow2 or raw first"));
}

TEST_F(CheckedFilesOf, Open_OptionalFileMissing_IsAccepted) {
  const std::string drive =
      "<disk device='cdrom'><source file='" + Path("none") + "' startupPolicy='optional'/><target dev='sda'/></disk>";
  const std::string variables = "<os><nvram>" + Path("new_VARS.fd") + "</nvram></os>";
  auto files = Open(Domain(drive, variables));
  ASSERT_TRUE(files) << files.error().ToString();
  EXPECT_EQ(Mismatch(*files), "");
  // libvirt creates variables during the start.
  Hold(File("new_VARS.fd"));
  EXPECT_EQ(Mismatch(*files), "");
}

TEST_F(CheckedFilesOf, Open_NoRights_DependsOnOptions) {
  if (::geteuid() == 0) {
    // Nothing is closed to root.
    ASSERT_EQ(::setresuid(static_cast<uid_t>(-1), 65534, static_cast<uid_t>(-1)), 0);
  }
  const std::string xml = Domain(Disk("/proc/1/root/image", "qcow2"));
  const auto refused = Open(xml);
  options_.if_unreadable = IfUnreadable::kAccept;
  const auto accepted = Open(xml);
  (void)::setresuid(static_cast<uid_t>(-1), ::getuid(), static_cast<uid_t>(-1));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code(), ErrorCode::kDenied) << refused.error().ToString();
  ASSERT_TRUE(accepted) << accepted.error().ToString();
  EXPECT_THAT(accepted->unreadable(), ElementsAre("/proc/1/root/image"));
  // libvirt opens it nevertheless.
  EXPECT_TRUE(accepted->Compare({HeldFile{"/proc/1/root/image", S_IFREG | 0600, 1, 2, 0, 0}}));
}

TEST_F(CheckedFilesOf, Compare_UnreadableImageThatCanBeFound_IsComparedByNumber) {
  if (::getuid() != 0) GTEST_SKIP() << "only root can read what it could not read before";
  const std::string path = File("image");
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  options_.if_unreadable = IfUnreadable::kAccept;
  ASSERT_EQ(::setresuid(static_cast<uid_t>(-1), 65534, static_cast<uid_t>(-1)), 0);
  const auto files = Open(Domain(Disk(path, "raw")));
  ASSERT_EQ(::setresuid(static_cast<uid_t>(-1), ::getuid(), static_cast<uid_t>(-1)), 0);
  ASSERT_TRUE(files) << files.error().ToString();
  ASSERT_THAT(files->unreadable(), ElementsAre(path));
  EXPECT_TRUE(files->Compare({HeldFile{"/elsewhere", S_IFREG | 0600, info.st_dev, info.st_ino, 0, 0}}));
  EXPECT_FALSE(files->Compare({HeldFile{path, S_IFREG | 0600, info.st_dev, info.st_ino + 1, 0, 0}}));
}

TEST_F(CheckedFilesOf, Compare_FirmwareChosenByLibvirt_Agrees) {
  const std::string variables = File("VARS.fd");
  Hold(variables);
  auto files = Open(Domain("", "<os firmware='efi'/>"));
  ASSERT_TRUE(files);
  EXPECT_THAT(Mismatch(*files), HasSubstr("QEMU has opened '" + variables + "'"));
  files->AddFirmware({"", ""});
  files->AddFirmware({"", variables});
  EXPECT_EQ(Mismatch(*files), "");
  Hold(File("CODE.fd"));
  EXPECT_THAT(Mismatch(*files), HasSubstr("QEMU has opened '" + Path("CODE.fd") + "'"));
  files->AddFirmware({Path("CODE.fd"), ""});
  EXPECT_EQ(Mismatch(*files), "");
  // The ones that the definition names were checked before the start, and stay the same.
  files = Open(Domain("", "<os><nvram>" + variables + "</nvram></os>"));
  ASSERT_TRUE(files);
  fs::rename(File("other"), variables);
  files->AddFirmware({"", variables});
  held_.clear();
  Hold(variables);
  EXPECT_THAT(Mismatch(*files), HasSubstr("QEMU does not have the file '" + variables + "' open"));
}

TEST_F(CheckedFilesOf, Compare_SameFiles_Agree) {
  const std::string path = File("a");
  const auto files = Open(Domain(Disk(path)));
  ASSERT_TRUE(files);
  EXPECT_THAT(Mismatch(*files), HasSubstr("QEMU does not have the file '" + path + "' open that was checked"));
  Hold(path);
  EXPECT_EQ(Mismatch(*files), "");
}

TEST_F(CheckedFilesOf, Compare_PathReplaced_IsMismatch) {
  const std::string victim = folder_.File("victim");
  std::ofstream(victim) << "secret";
  for (const bool is_link : {true, false}) {
    const std::string path = File("a");
    const auto files = Open(Domain(Disk(path)));
    ASSERT_TRUE(files);
    fs::remove(path);
    if (is_link) {
      fs::create_symlink(victim, path);
    } else {
      File("a", "another file");
    }
    held_.clear();
    Hold(path);
    EXPECT_THAT(Mismatch(*files), HasSubstr("QEMU does not have the file '" + path + "' open")) << is_link;
    // The old file beside the new one does not help.
    fs::remove(path);
  }
}

TEST_F(CheckedFilesOf, Compare_OptionalFileReplaced_IsMismatch) {
  const std::string variables = File("VARS.fd");
  const std::string xml = Domain("", "<os><nvram>" + variables + "</nvram></os>");
  const auto files = Open(xml);
  ASSERT_TRUE(files);
  EXPECT_EQ(Mismatch(*files), "") << "firmware may be ignored";
  fs::rename(File("other"), variables);
  Hold(variables);
  EXPECT_THAT(Mismatch(*files), HasSubstr("QEMU does not have the file '" + variables + "' open"));
}

TEST_F(CheckedFilesOf, Compare_FileOfAnother_IsMismatch) {
  const std::string path = File("a");
  const auto files = Open(Domain(Disk(path)));
  ASSERT_TRUE(files);
  Hold(path);
  Hold(File("backing"));
  EXPECT_EQ(Mismatch(*files), "QEMU has opened '" + Path("backing") + "', which is not an image of the guest");
}

TEST_F(CheckedFilesOf, Compare_ExpectedOtherFiles_Agree) {
  const std::string path = File("a");
  fs::create_directory(Path("shared"));
  fs::create_directory_symlink(Path("shared"), Path("shared-link"));
  const auto files =
      Open("<domain xmlns:qemu='http://libvirt.org/schemas/domain/qemu/1.0'><devices>" + Disk(path) +
           "<serial type='file'><source path='" + Path("serial.log") + "'/></serial><filesystem><source dir='" +
           Path("shared-link") + "'/></filesystem></devices><qemu:commandline><qemu:arg value='file=" + Path("extra") +
           ",if=none'/></qemu:commandline></domain>");
  ASSERT_TRUE(files) << files.error().ToString();
  Hold(path);
  for (const char* name : {"serial.log", "shared/file", "extra", "a.TRANSIENT-host"}) Hold(File(name));
  Hold(File("qemu.pid", "12345\n"));
  Hold(File("qemu_back_mem.pc.ram.a1b2c3"));
  for (const char* other : {"/usr/bin/env", "/dev/null", "/proc/self/status"}) Hold(other);
  Hold(root_);  // a folder
  held_.emplace_back(::memfd_create("memory", MFD_CLOEXEC));
  EXPECT_EQ(Mismatch(*files), "");
  held_.clear();
  Hold(path);
  Hold(File("key.pid", "longer than any process id"));
  EXPECT_THAT(Mismatch(*files), HasSubstr("key.pid'"));
}

TEST_F(CheckedFilesOf, Compare_BlockDevice_IsComparedByNumber) {
  const HeldFile device{"/dev/sdz", S_IFBLK | 0600, 5, 6, 7, 0};
  // A machine may have none, or a container see none.
  for (const auto& entry : fs::directory_iterator("/dev")) {
    if (!entry.is_block_file()) continue;
    const auto files = Open(Domain(Disk(entry.path())));
    ASSERT_TRUE(files) << files.error().ToString();
    struct stat info {};
    ASSERT_EQ(::stat(entry.path().c_str(), &info), 0);
    // QEMU may have a device file of its own.
    EXPECT_TRUE(files->Compare({HeldFile{"/dev/other", info.st_mode, 1, 2, info.st_rdev, 0}}));
    EXPECT_FALSE(files->Compare({HeldFile{entry.path(), info.st_mode, info.st_dev, info.st_ino, 12345, 0}}));
    break;
  }
  const auto files = Open(Domain(""));
  ASSERT_TRUE(files);
  const auto compared = files->Compare({device});
  ASSERT_FALSE(compared);
  EXPECT_THAT(compared.error().message(), HasSubstr("QEMU has opened '/dev/sdz'"));
}

// Some file systems make up a new number whenever a file is looked up.
TEST_F(CheckedFilesOf, Compare_UnstableNumbers_FallBackToPaths) {
  const std::string path = File("a");
  ino_t next = 1;
  options_.stat = [&next](int file, struct stat* info) {
    const int done = ::fstat(file, info);
    info->st_ino = next++;
    return done;
  };
  const auto files = Open(Domain(Disk(path)));
  ASSERT_TRUE(files);
  Hold(path);
  const auto compared = files->Compare(Held());
  ASSERT_TRUE(compared) << compared.error().ToString();
  EXPECT_THAT(*compared, ElementsAre(path));
  // A link is found by the path to which it leads.
  const std::string victim = folder_.File("victim");
  std::ofstream(victim) << "secret";
  fs::remove(path);
  fs::create_symlink(victim, path);
  held_.clear();
  Hold(path);
  EXPECT_FALSE(files->Compare(Held()));
}

}  // namespace
}  // namespace vexa::guests
