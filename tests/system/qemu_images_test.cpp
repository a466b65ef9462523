// Guests on QEMU start with the files that were checked, and with no others. The host is in this process, so that files
// can be replaced between the check and the moment at which QEMU opens them.
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>

#include "host/disks/image_file.h"
#include "tests/support/libvirt_faults.h"
#include "tests/support/qcow2_image.h"
#include "tests/support/qemu_guest.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace {
std::atomic<bool> is_proc_closed{false};
}  // namespace

// Replaces that of the C library, so that the open files of processes can be hidden from the host.
extern "C" DIR* opendir(const char* path) {
  static auto* const real = reinterpret_cast<DIR* (*)(const char*)>(::dlsym(RTLD_NEXT, "opendir"));
  const std::string_view folder = path;
  if (!is_proc_closed || !folder.starts_with("/proc/") || !folder.ends_with("/fd/")) return real(path);
  errno = EACCES;
  return nullptr;
}

namespace vexa::guests {
namespace {

namespace fs = std::filesystem;
using test::Qcow2Image;

constexpr char kDisk[] = "d1b2c3d4-0000-4000-8000-000000000001";

// One folder for all tests, because a process can embed guests below only one folder.
class EmbedEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    const std::string why_not = test::QemuUnavailableReason();
    if (!why_not.empty()) GTEST_SKIP() << test::SkipNotice(why_not);
    environment_ = std::make_unique<test::QemuEnvironment>();
  }
  void TearDown() override { environment_.reset(); }
  const test::QemuEnvironment& Get() const { return *environment_; }

 private:
  std::unique_ptr<test::QemuEnvironment> environment_;
};

const EmbedEnvironment& TheEnvironment() {
  static const auto* const environment =
      static_cast<EmbedEnvironment*>(testing::AddGlobalTestEnvironment(new EmbedEnvironment));
  return *environment;
}
[[maybe_unused]] const EmbedEnvironment& registered = TheEnvironment();

class QemuImages : public GuestControlTest {
 protected:
  void SetUp() override {
    test::ClearCapturedSyslog();
    StartHost();
  }
  void StartHost() {
    GuestControlOptions options = Options();
    options.hypervisor.mode = "embed";
    options.hypervisor.root = TheEnvironment().Get().root();
    options.maintenance_interval = 1h;  // faults are those of the test's own thread
    options.before_step = [this](std::string_view step) {
      if (step == "poweron: files checked" && before_open_) before_open_();
      if (step == "poweron: started") is_paused_after_start_ = test::StateAsUser(kGuest) == VIR_DOMAIN_PAUSED;
    };
    Start(std::move(options));
  }
  void StartGuestAndSave(const std::string& disk) {
    PutGuestWith(disk, "raw");
    EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
    ASSERT_TRUE(test::SaveAsUser(kGuest));
    ExpectState(states::saved);
    EXPECT_EQ(CountQemus(), 0);
  }
  void TearDown() override {
    if (!control_) return;
    (void)control_->PowerOff(kGuest, kAlice);
    (void)control_->DiscardSaved(kGuest, kAlice);
    control_.reset();
    EXPECT_EQ(CountQemus(), 0);
  }

  static int CountQemus() { return test::CountQemus(TheEnvironment().Get().folder(), kGuest); }
  std::string File(const std::string& name, const std::string& content = std::string(1 << 20, 'x')) const {
    const std::string path = host_.folder().File(name);
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  std::string Qcow2File(const std::string& name) const {
    const disks::EmptyImage image = disks::MakeEmptyImage(domain_xml::ImageFormat::kQcow2, 1 << 20);
    const std::string path = File(name, "");
    fs::resize_file(path, image.length);
    for (const disks::FilePiece& piece : image.pieces) Overwrite(path, piece.offset, piece.bytes);
    return path;
  }
  static void Overwrite(const std::string& path, std::uint64_t offset, const std::string& bytes) {
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset));
    file << bytes;
  }
  // Makes a good image name a backing file.
  static void NameBackingFile(const std::string& image, const std::string& backing) {
    constexpr std::uint32_t kBackingFormat = 0xe2792aca;
    Overwrite(image, 104, Qcow2Image::Extension(kBackingFormat, "raw") + Qcow2Image::Number(0, 8) + backing);
    Overwrite(image, 8, Qcow2Image::Number(104 + 16 + 8, 8) + Qcow2Image::Number(backing.size(), 4));
  }
  static void ReplaceByLink(const std::string& path, const std::string& target) {
    fs::remove(path);
    fs::create_symlink(target, path);
  }

  void PutGuestWith(const std::string& disk_path, const std::string& format, const std::string& iso = "") {
    Json::Value disk = Parsed(R"({"vdisk_mode":1,"size":1,"name":"vda"})");
    disk["guest_id"] = kGuest;
    disk["path"] = disk_path;
    disk["driver"] = format;
    host_.Put("vdisk", kDisk, disk);
    Json::Value guest = Parsed(R"({"vdisks":[")" + std::string(kDisk) + R"("]})");
    if (!iso.empty()) guest["iso_images"].append(iso);
    PutGuest(kGuest, "web-1", guest);
  }
  void ExpectNotStarted(const std::string& reason) {
    EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 949, reason);
    EXPECT_EQ(CountQemus(), 0);
    EXPECT_EQ(State(), states::shutdown);
    EXPECT_EQ(RunOf(), std::nullopt);
  }

  std::function<void()> before_open_;
  bool is_paused_after_start_ = false;
};

TEST_F(QemuImages, PowerOn_GoodImages_Starts) {
  const std::string iso = File("a.iso");
  PutGuestWith(File("a.raw"), "raw", iso);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  PutGuestWith(Qcow2File("a.qcow2"), "qcow2", iso);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
  EXPECT_EQ(CountQemus(), 1);
  EXPECT_FALSE(test::SyslogContains("compared"));
}

TEST_F(QemuImages, PowerOn_ImageNamesBackingFile_IsRefused) {
  const std::string image = Qcow2File("a.qcow2");
  NameBackingFile(image, File("victim"));
  PutGuestWith(image, "qcow2");
  ExpectNotStarted("has the backing file '" + host_.folder().File("victim") + "'");
}

TEST_F(QemuImages, PowerOn_DriveReplacedByLinkBeforeOpen_EndsGuest) {
  const std::string iso = File("a.iso");
  const std::string victim = File("victim");
  PutGuestWith(File("a.raw"), "raw", iso);
  before_open_ = [&] { ReplaceByLink(iso, victim); };
  ExpectNotStarted("QEMU does not have the file '" + iso + "' open that was checked for the drive");
  EXPECT_TRUE(test::SyslogContains("was ended right after its start: QEMU does not have the file"));
  before_open_ = nullptr;
  ExpectNotStarted("is a symbolic link");
}

TEST_F(QemuImages, PowerOn_DiskReplacedByLinkBeforeOpen_EndsGuest) {
  const std::string disk = File("a.raw");
  const std::string victim = File("victim");
  PutGuestWith(disk, "raw");
  before_open_ = [&] { ReplaceByLink(disk, victim); };
  ExpectNotStarted("QEMU does not have the file '" + disk + "' open that was checked for the disk 'vda'");
}

TEST_F(QemuImages, PowerOn_SavedGuestsDiskReplacedBeforeOpen_IsSavedAgain) {
  const std::string disk = File("a.raw");
  const std::string away = host_.folder().File("away");
  ASSERT_NO_FATAL_FAILURE(StartGuestAndSave(disk));
  before_open_ = [&] {
    fs::rename(disk, away);
    fs::create_symlink(File("victim"), disk);
  };
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 949,
                 "QEMU does not have the file '" + disk +
                     "' open that was checked for the disk 'vda'. The guest's "
                     "memory was saved again");
  EXPECT_EQ(CountQemus(), 0);
  EXPECT_EQ(State(), states::saved);
  before_open_ = nullptr;
  fs::rename(away, disk);
  // It does not run before its files have been compared.
  test::ClearCapturedSyslog();
  is_paused_after_start_ = false;
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_TRUE(is_paused_after_start_);
  EXPECT_EQ(State(), states::running);
  EXPECT_EQ(test::StateAsUser(kGuest), VIR_DOMAIN_RUNNING);
}

TEST_F(QemuImages, PowerOn_RestoredGuestCannotBeSavedAgain_StaysPaused) {
  const std::string disk = File("a.raw");
  ASSERT_NO_FATAL_FAILURE(StartGuestAndSave(disk));
  before_open_ = [&] { ReplaceByLink(disk, File("victim")); };
  const test::FailingSaves failing({VIR_ERR_OPERATION_FAILED, "the disk is full"});
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 949,
                 "The guest stays paused, because its memory could not be saved again: Cannot save the memory");
  EXPECT_EQ(CountQemus(), 1);
  EXPECT_EQ(State(), states::freeze);
}

// A host that is killed after libvirt has restored a guest leaves it paused.
TEST_F(QemuImages, Start_GuestWasBeingRestored_LetsItRun) {
  PutGuestWith(File("a.raw"), "raw");
  for (const bool was_restored : {true, false}) {
    EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
    ASSERT_TRUE(test::PauseAsUser(kGuest));
    ExpectState(states::freeze);
    Kill();
    RunRecord run = RunHere();
    run.starting = true;
    run.restoring = was_restored;
    PutRun(run);
    StartHost();
    ExpectState(was_restored ? states::running : states::freeze);
    EXPECT_FALSE(RunOf()->starting);
    EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  }
}

TEST_F(QemuImages, Start_GuestWasBeingRestoredWithOtherFiles_IsSavedAgain) {
  const std::string disk = File("a.raw");
  PutGuestWith(disk, "raw");
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ASSERT_TRUE(test::PauseAsUser(kGuest));
  ExpectState(states::freeze);
  Kill();
  RunRecord run = RunHere();
  run.starting = true;
  run.restoring = true;
  PutRun(run);
  const std::string away = host_.folder().File("away");
  fs::rename(disk, away);
  std::ofstream(disk) << "another file";
  StartHost();
  ExpectState(states::saved);
  EXPECT_EQ(CountQemus(), 0);
  EXPECT_TRUE(RunOf()->saved);
}

TEST_F(QemuImages, PowerOn_OpenFilesUnknown_EndsGuest) {
  PutGuestWith(File("a.raw"), "raw");
  is_proc_closed = true;
  ExpectNotStarted("Cannot read which files the guest");
  is_proc_closed = false;
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
}

TEST_F(QemuImages, PowerOn_HeaderChangedBeforeOpen_EndsGuest) {
  const std::string image = Qcow2File("a.qcow2");
  const std::string victim = File("victim");
  PutGuestWith(image, "qcow2");
  before_open_ = [&] { NameBackingFile(image, victim); };
  ExpectNotStarted("QEMU has opened '" + victim + "', which is not an image of the guest");
}

}  // namespace
}  // namespace vexa::guests
