// The files of guests at their start. Guests run on libvirt's test driver, but unlike in test mode the host expects
// them to have files; a program with QEMU's name takes QEMU's part.
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "host/base/uuid.h"
#include "host/hypervisor/driver_uri.h"
#include "tests/support/fake_qemu.h"
#include "tests/support/libvirt_faults.h"
#include "tests/support/matchers.h"
#include "tests/support/qcow2_image.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace vexa::guests {
namespace {

namespace fs = std::filesystem;

constexpr char kDisk[] = "d1b2c3d4-0000-4000-8000-000000000001";

class GuestFiles : public GuestControlTest {
 protected:
  void SetUp() override {
    test::ClearCapturedSyslog();
    const std::string node = host_.folder().File("node.xml");
    std::ofstream(node) << hypervisor::TestNodeXml();
    GuestControlOptions options = Options();
    options.hypervisor.mode = "test://" + node;
    options.maintenance_interval = maintenance_interval_;
    options.before_step = [this](std::string_view step) {
      if (step == "poweron: files checked" && before_open_) before_open_();
      if (step == "poweron: started" && after_start_) after_start_();
    };
    Start(std::move(options));
  }

  std::string File(const std::string& name, const std::string& content = "x") const {
    const std::string path = host_.folder().File(name);
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  void PutGuestWithDisk(const std::string& path, const std::string& format = "raw") {
    Json::Value disk = Parsed(R"({"vdisk_mode":1,"size":1,"name":"vda"})");
    disk["guest_id"] = id_;
    disk["path"] = path;
    disk["driver"] = format;
    host_.Put("vdisk", kDisk, disk);
    PutGuest(id_, "web-3", Parsed(R"({"vdisks":[")" + std::string(kDisk) + R"("]})"));
  }
  // The fault happens between the check and the moment at which QEMU opens the files.
  void OpenInstead(const std::string& path, const std::function<void()>& fault = nullptr) {
    before_open_ = [this, path, fault] {
      if (fault) fault();
      qemu_ = std::make_unique<test::FakeQemu>(id_, path, host_.folder().path());
    };
  }
  void ReplaceByLinkBeforeOpen(const std::string& path) {
    const std::string victim = File("victim", "secret");
    OpenInstead(path, [path, victim] {
      fs::remove(path);
      fs::create_symlink(victim, path);
    });
  }
  // The guest's memory is saved, and something replaces its disk before a QEMU that restores it opens the disk.
  void SaveAndReplaceDisk() {
    const std::string path = File("a");
    ASSERT_NO_FATAL_FAILURE(SaveWithDisk(path));
    ReplaceByLinkBeforeOpen(path);
  }
  // Starts the guest with its disk at `path`, and saves its memory.
  void SaveWithDisk(const std::string& path) {
    PutGuestWithDisk(path);
    OpenInstead(path);
    EXPECT_DONE(control_->PowerOn(id_, kAlice));
    qemu_.reset();
    ASSERT_TRUE(test::SaveAsUser(id_));
    ExpectState(states::saved, id_);
  }
  void ExpectOff() {
    EXPECT_EQ(State(id_), states::shutdown);
    EXPECT_EQ(RunOf(id_), std::nullopt);
  }
  static int CountLines(std::string_view text) {
    int count = 0;
    for (const test::SyslogLine& line : test::CapturedSyslog()) count += line.text.find(text) != std::string::npos;
    return count;
  }

  std::chrono::milliseconds maintenance_interval_ = 1h;
  // No other test that runs now has a guest with this id.
  const std::string id_ = test::Require(RandomUuid());
  std::function<void()> before_open_;
  std::function<void()> after_start_;
  std::unique_ptr<test::FakeQemu> qemu_;
};

TEST_F(GuestFiles, PowerOn_ImageNamesOtherFile_IsRefused) {
  test::Qcow2Image image;
  image.backing_file = "/etc/shadow";
  PutGuestWithDisk(File("a.qcow2", image.Text()), "qcow2");
  EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949, "has the backing file '/etc/shadow'");
  ExpectOff();
  // It is not read as qcow2 when the record says that it is raw.
  PutGuestWithDisk(File("a.qcow2", image.Text()), "raw");
  EXPECT_DONE(control_->PowerOn(id_, kAlice));
}

TEST_F(GuestFiles, PowerOn_DiskOrDriveIsLink_IsRefused) {
  const std::string target = File("target");
  const std::string link = host_.folder().File("link");
  fs::create_symlink(target, link);
  PutGuestWithDisk(link);
  EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949, "The disk 'vda' cannot be used: '" + link + "' is");
  ExpectOff();
  PutGuest(id_, "web-3", Parsed(R"({"iso_images":[")" + link + R"("]})"));
  EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949, "The drive 'sda' cannot be used: '" + link + "' is");
  ExpectOff();
}

TEST_F(GuestFiles, PowerOn_ProcessNotFound_StartsAndLogsEachTime) {
  PutGuestWithDisk(File("a"));
  for (int i = 1; i <= 2; ++i) {
    EXPECT_DONE(control_->PowerOn(id_, kAlice));
    EXPECT_DONE(control_->PowerOff(id_, kAlice));
    EXPECT_EQ(CountLines("The files that the guest " + id_ + " has open cannot be compared with the checked ones: "),
              i);
  }
}

// libvirt may open images that this service may not even look up.
TEST_F(GuestFiles, PowerOn_ImagesUnreadable_StartsAndLogsOneLineEachTime) {
  PutGuest(id_, "web-3", Parsed(R"({"iso_images":["/proc/1/root/a.iso","/proc/1/root/b.iso"]})"));
  for (int i = 1; i <= 2; ++i) {
    ASSERT_EQ(::seteuid(::getuid() == 0 ? 65534 : ::getuid()), 0);
    const auto started = control_->PowerOn(id_, kAlice);
    ASSERT_EQ(::seteuid(::getuid()), 0);
    EXPECT_TRUE(started.ok()) << started.error().reason;
    EXPECT_DONE(control_->PowerOff(id_, kAlice));
    EXPECT_EQ(CountLines("The guest " + id_ +
                         " is started with images that this service may not read, so it cannot "
                         "check whether they name other files: '/proc/1/root/a.iso' and 1 more"),
              i);
  }
}

TEST_F(GuestFiles, PowerOn_QemuHasCheckedFiles_Starts) {
  const std::string path = File("a.qcow2", test::Qcow2Image().Text());
  PutGuestWithDisk(path, "qcow2");
  OpenInstead(path);
  EXPECT_DONE(control_->PowerOn(id_, kAlice));
  EXPECT_EQ(State(id_), states::running);
  EXPECT_EQ(CountLines("cannot be compared"), 0);
}

TEST_F(GuestFiles, PowerOn_DiskReplacedBeforeOpen_EndsGuest) {
  const std::string path = File("a");
  PutGuestWithDisk(path);
  ReplaceByLinkBeforeOpen(path);
  EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949, "The guest was ended");
  ExpectOff();
  EXPECT_EQ(CountLines("The guest " + id_ + " was ended right after its start: QEMU does not have the file '" + path),
            1);
}

TEST_F(GuestFiles, PowerOn_QemuHasAnotherFile_EndsGuest) {
  PutGuest(id_, "web-3");
  const std::string other = File("backing");
  OpenInstead(other);
  EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949, "QEMU has opened '" + other + "'");
  ExpectOff();
}

// Anybody can start a program with a guest's id among its arguments, and open files with it.
TEST_F(GuestFiles, PowerOn_OtherUserHasProcessWithGuestsId_OnlyQemuCounts) {
  if (::getuid() != 0) GTEST_SKIP() << "only root can start a process of another user";
  constexpr uid_t kNobody = 65534;
  const std::string path = File("a");
  const std::string other = File("other");
  PutGuestWithDisk(path);
  std::unique_ptr<test::FakeQemu> fake;
  OpenInstead(path, [&] {
    fake = std::make_unique<test::FakeQemu>(id_, other, host_.folder().path(), test::FakeQemu::Program::kQemu, kNobody);
  });
  EXPECT_DONE(control_->PowerOn(id_, kAlice));
  EXPECT_DONE(control_->PowerOff(id_, kAlice));
  qemu_.reset();
  // It does not stand in for QEMU either.
  OpenInstead(other, [&] {
    fake = std::make_unique<test::FakeQemu>(id_, path, host_.folder().path(), test::FakeQemu::Program::kQemu, kNobody);
  });
  EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949, "QEMU does not have the file '" + path);
  ExpectOff();
}

TEST_F(GuestFiles, PowerOn_SavedGuestsDiskIsLink_IsRefusedAndMemoryKept) {
  const std::string path = File("a");
  ASSERT_NO_FATAL_FAILURE(SaveWithDisk(path));
  fs::rename(path, path + ".away");
  fs::create_symlink(path + ".away", path);
  EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949,
                 "is a symbolic link. Name the file itself. The guest's saved "
                 "memory was kept");
  EXPECT_EQ(State(id_), states::saved);
  fs::rename(path + ".away", path);
  EXPECT_DONE(control_->PowerOn(id_, kAlice));
  EXPECT_EQ(State(id_), states::running);
}

TEST_F(GuestFiles, PowerOn_SavedGuestsDiskReplacedBeforeOpen_IsSavedAgain) {
  ASSERT_NO_FATAL_FAILURE(SaveAndReplaceDisk());
  EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949, "The guest's memory was saved again");
  EXPECT_EQ(State(id_), states::saved);
  EXPECT_TRUE(RunOf(id_)->saved);
  EXPECT_EQ(CountLines("The guest " + id_ +
                       " was saved again right after it was restored, before it ran: QEMU does "
                       "not have the file"),
            1);
}

TEST_F(GuestFiles, PowerOn_RestoredGuestCannotBeSavedAgain_StaysAndIsReported) {
  ASSERT_NO_FATAL_FAILURE(SaveAndReplaceDisk());
  const test::FailingSaves failing({VIR_ERR_OPERATION_FAILED, "the disk is full"});
  after_start_ = [&] { test::PauseAsUser(id_); };  // the test driver cannot start a guest paused
  EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949,
                 "The guest stays paused, because its memory could not be saved again: Cannot save the memory");
  EXPECT_EQ(State(id_), states::freeze);
  EXPECT_EQ(CountLines("The guest " + id_ + " stays paused, because its memory could not be saved again (Cannot"), 1);
}

class MaintainedGuestFiles : public GuestFiles {
 protected:
  MaintainedGuestFiles() { maintenance_interval_ = 20ms; }
};

// What fails here fails on this thread only.
TEST_F(MaintainedGuestFiles, PowerOn_RestoredGuestStaysPaused_IsResumedLater) {
  ASSERT_NO_FATAL_FAILURE(SaveWithDisk(File("a")));
  after_start_ = [&] { test::PauseAsUser(id_); };
  const test::FailingResumes unresumed({VIR_ERR_OPERATION_FAILED, "no lease"});
  const test::FailingSaves unsaved({VIR_ERR_OPERATION_FAILED, "the disk is full"});
  EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949, "no lease. The guest stays paused");
  ExpectState(states::running, id_);
  EXPECT_FALSE(RunOf(id_)->starting);
}

TEST_F(MaintainedGuestFiles, PowerOn_RestoredGuestStaysPausedWithOtherFiles_IsSavedLater) {
  ASSERT_NO_FATAL_FAILURE(SaveAndReplaceDisk());
  after_start_ = [&] { test::PauseAsUser(id_); };
  const test::FailingSaves failing({VIR_ERR_OPERATION_FAILED, "the disk is full"});
  EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949, "The guest stays paused");
  ExpectState(states::saved, id_);
  EXPECT_TRUE(RunOf(id_)->saved);
}

TEST_F(GuestFiles, PowerOn_RestoredGuestCannotBeResumed_IsSavedAgain) {
  ASSERT_NO_FATAL_FAILURE(SaveWithDisk(File("a")));
  after_start_ = [&] { test::PauseAsUser(id_); };
  {
    const test::FailingResumes failing({VIR_ERR_OPERATION_FAILED, "no lease"});
    EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949,
                   "Cannot resume the guest " + id_ + ": no lease. The guest's memory was saved again");
  }
  EXPECT_EQ(State(id_), states::saved);
  EXPECT_DONE(control_->PowerOn(id_, kAlice));
  EXPECT_EQ(State(id_), states::running);
}

// It has not run since its memory was read, and nobody has compared its files.
TEST_F(GuestFiles, StayedPaused_OnlyResumeWithCheckedFilesLetsItRun) {
  ASSERT_NO_FATAL_FAILURE(SaveWithDisk(File("a")));
  after_start_ = [&] { test::PauseAsUser(id_); };
  {
    const test::FailingResumes unresumed({VIR_ERR_OPERATION_FAILED, "no lease"});
    const test::FailingSaves unsaved({VIR_ERR_OPERATION_FAILED, "the disk is full"});
    EXPECT_REFUSED(control_->Restore(id_, kAlice), 949, "no lease. The guest stays paused");
    EXPECT_REFUSED(control_->Resume(id_, kAlice), 949, "no lease. The guest stays paused");
  }
  constexpr auto kNotRun =
      "The guest was restored from its saved memory and has not run yet. The system log has the reason";
  EXPECT_REFUSED(control_->Suspend(id_, kAlice), 915, kNotRun);
  EXPECT_REFUSED(control_->Save(id_, kAlice), 915, kNotRun);
  EXPECT_EQ(State(id_), states::freeze);
  EXPECT_DONE(control_->Resume(id_, kAlice));
  EXPECT_EQ(State(id_), states::running);
  EXPECT_FALSE(RunOf(id_)->starting);
  EXPECT_DONE(control_->Suspend(id_, kAlice));
}

TEST_F(GuestFiles, Resume_StayedPausedWithOtherFiles_IsSavedAgain) {
  ASSERT_NO_FATAL_FAILURE(SaveAndReplaceDisk());
  after_start_ = [&] { test::PauseAsUser(id_); };
  {
    const test::FailingSaves failing({VIR_ERR_OPERATION_FAILED, "the disk is full"});
    EXPECT_REFUSED(control_->Restore(id_, kAlice), 949, "The guest stays paused");
  }
  EXPECT_REFUSED(control_->Resume(id_, kAlice), 949, "The guest's memory was saved again");
  EXPECT_EQ(State(id_), states::saved);
  EXPECT_TRUE(RunOf(id_)->saved);
}

TEST_F(GuestFiles, PowerOn_GuestCannotBeEnded_IsReported) {
  PutGuest(id_, "web-3");
  OpenInstead(File("backing"));
  const test::FailingStops failing({VIR_ERR_INTERNAL_ERROR, "it hangs"});
  EXPECT_REFUSED(control_->PowerOn(id_, kAlice), 949, "The guest could not be ended: Cannot power off the guest");
  EXPECT_EQ(State(id_), states::running) << "the truth is shown";
  bool is_logged = false;
  for (const test::SyslogLine& line : test::CapturedSyslog()) {
    is_logged |= line.level() == LOG_CRIT && line.text.starts_with("The guest " + id_ + " could not be ended (Cannot");
  }
  EXPECT_TRUE(is_logged);
}

}  // namespace
}  // namespace vexa::guests
