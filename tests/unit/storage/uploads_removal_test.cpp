// Removing images: whose file goes with them, and what is left when the host is killed on the way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "tests/support/racing_store.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/storage/uploads_fixture.h"

namespace vexa::storage {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using File = RemovedImage::File;

constexpr char kOtherHost[] = "22222222-2222-4222-8222-222222222222";

class ImageRemovalTest : public UploadsTest {
 protected:
  // Uploads the image, and returns its id.
  std::string Upload(Uploads& uploads, const std::string& name) {
    std::string id = Send(uploads, name);
    EXPECT_TRUE(uploads.End(id, name_).ok());
    return id;
  }
  std::string Upload(const std::string& name) {
    Uploads uploads(Options());
    return Upload(uploads, name);
  }
  bool IsRecorded(const std::string& id) { return !TextOf(RemovedFileKey(kHost, id)).empty(); }
  // Removes the image; its file stays or is removed later, and why.
  void ExpectNotRemoved(const std::string& id, File file, const std::string& reason) {
    Uploads uploads(Options());
    const RemovedImage removed = Require(uploads.RemoveImage(id, name_));
    EXPECT_EQ(removed.file, file);
    EXPECT_THAT(removed.reason, HasSubstr(reason));
    EXPECT_THAT(ImageNames(), IsEmpty());
    EXPECT_EQ(IsRecorded(id), file == File::kLater);
  }
};

TEST_F(ImageRemovalTest, UploadedImage_FileIsRemovedAndNameIsFree) {
  Uploads uploads(Options());
  const std::string id = Upload(uploads, "a");
  const RemovedImage removed = Require(uploads.RemoveImage(id, name_));
  EXPECT_EQ(removed.file, File::kRemoved);
  EXPECT_EQ(removed.reason, "");
  EXPECT_EQ(name_, "a");
  EXPECT_THAT(Files(), IsEmpty());
  EXPECT_THAT(ImageNames(), IsEmpty());
  EXPECT_FALSE(IsRecorded(id));
  (void)Upload(uploads, "a");
  EXPECT_EQ(Read(Path("a.iso")), content_);
}

TEST_F(ImageRemovalTest, RenamedImage_FileIsRemoved) {
  const std::string id = Upload("a");
  ASSERT_TRUE(records::RenameRecord(host_.store(), "image", "image", id, "b", name_).ok());
  EXPECT_EQ(Require(Uploads(Options()).RemoveImage(id, name_)).file, File::kRemoved);
  EXPECT_EQ(name_, "b");
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(ImageRemovalTest, ImageAddedByPath_FileStays) {
  std::ofstream(Path("own.iso")) << "own";
  std::string id;
  ASSERT_TRUE(disks::AddImage(host_.store(), {Root()}, {"own", Path("own.iso"), ""}, id).ok());
  ExpectNotRemoved(id, File::kStays, "");
  EXPECT_EQ(Read(Path("own.iso")), "own");
}

TEST_F(ImageRemovalTest, ImageInADrive_IsRefusedAndFileStays) {
  const std::string id = Upload("a");
  host_.PutText("guest", "g", R"({"name":"web","iso_images":[")" + id + "\"]}");
  Uploads uploads(Options());
  ExpectCode(uploads.RemoveImage(id, name_), 991, "in a drive of these guests: 'web'");
  EXPECT_EQ(Read(Path("a.iso")), content_);
  EXPECT_FALSE(IsRecorded(id));
  ExpectCode(uploads.RemoveImage(kHost, name_), 403, "There is no image");
}

TEST_F(ImageRemovalTest, FileInUse_Stays) {
  const std::string id = Upload("a");
  host_.PutText("vdisk", "d", R"({"guest_id":"g","path":")" + Path("a.iso") + "\"}");
  test::ClearCapturedSyslog();
  ExpectNotRemoved(id, File::kStays, "the record of another disk refers to it");
  EXPECT_TRUE(test::SyslogContains("The file '" + Path("a.iso") +
                                   "' of a removed image stays: the record of another disk refers to it."));
  EXPECT_EQ(Read(Path("a.iso")), content_);
}

TEST_F(ImageRemovalTest, FileOfOtherHostsDisk_Stays) {
  const std::string id = Upload("a");
  host_.PutText("repository", "r", R"({"name":"r","host_id":")" + std::string(kOtherHost) + "\"}");
  host_.PutText("vdisk", "d", R"({"guest_id":"g","repository_id":"r","path":")" + Path("a.iso") + "\"}");
  ExpectNotRemoved(id, File::kStays, "the record of another disk refers to it");
}

TEST_F(ImageRemovalTest, OtherFileOrLinkInItsPlace_Stays) {
  const std::string id = Upload("a");
  // While the first file exists, the second one has another inode.
  fs::rename(Path("a.iso"), Path("moved.iso"));
  std::ofstream(Path("a.iso")) << "other";
  ExpectNotRemoved(id, File::kStays, "it is not the file that was uploaded");
  EXPECT_EQ(Read(Path("a.iso")), "other");
  const std::string linked = Upload("b");
  fs::rename(Path("b.iso"), Path("moved-b.iso"));
  fs::create_symlink(Path("moved-b.iso"), Path("b.iso"));
  ExpectNotRemoved(linked, File::kStays, "it is a symbolic link");
  EXPECT_EQ(Read(Path("moved-b.iso")), content_);
  EXPECT_TRUE(fs::is_symlink(Path("b.iso")));
}

TEST_F(ImageRemovalTest, FolderThatIsNoImageFolderAnyMore_FileStays) {
  const std::string id = Upload("a");
  UploadOptions options = Options();
  options.roots = {host_.folder().File("second")};
  const RemovedImage removed = Require(Uploads(options).RemoveImage(id, name_));
  EXPECT_EQ(removed.file, File::kStays);
  EXPECT_EQ(removed.reason, "it is outside the image folders");
  EXPECT_EQ(Read(Path("a.iso")), content_);
}

TEST_F(ImageRemovalTest, FileGone_IsDone) {
  const std::string id = Upload("a");
  fs::remove(Path("a.iso"));
  EXPECT_EQ(Require(Uploads(Options()).RemoveImage(id, name_)).file, File::kRemoved);
  EXPECT_FALSE(IsRecorded(id));
}

TEST_F(ImageRemovalTest, FolderNotMounted_FileIsRemovedWhenItIs) {
  const std::string id = Upload("a");
  fs::rename(Root(), Root() + "-away");
  fs::create_directory(Root());
  test::ClearCapturedSyslog();
  ExpectNotRemoved(id, File::kLater, "its folder is not mounted: the folder '");
  EXPECT_TRUE(test::SyslogContains("The file '" + Path("a.iso") +
                                   "' of the removed image 'a' will be removed later: its folder is not mounted: "));
  Uploads(Options()).CleanUp({});
  EXPECT_TRUE(IsRecorded(id));
  fs::remove(Root());
  fs::rename(Root() + "-away", Root());
  test::ClearCapturedSyslog();
  Uploads(Options()).CleanUp({});
  EXPECT_THAT(Files(), IsEmpty());
  EXPECT_FALSE(IsRecorded(id));
  EXPECT_TRUE(test::SyslogContains("The file of the removed image '" + id + "' has been removed."));
}

TEST_F(ImageRemovalTest, FileOpenInVm_IsRemovedLater) {
  const std::string id = Upload("a");
  UploadOptions options = Options();
  options.calls.is_open_in_vm = [](int, const char*, bool* is_open) {
    *is_open = true;
    return 0;
  };
  const RemovedImage removed = Require(Uploads(options).RemoveImage(id, name_));
  EXPECT_EQ(removed.file, File::kLater);
  EXPECT_EQ(removed.reason, "A VM process has the file '" + Path("a.iso") + "' open");
  EXPECT_EQ(Read(Path("a.iso")), content_);
  Uploads(Options()).CleanUp({});
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(ImageRemovalTest, ReferenceAtTheLastMoment_KeepsFile) {
  UploadOptions options = Options();
  options.before_step = [this](const char* step) {
    if (std::string_view(step) != "check references") return;
    std::string id;
    EXPECT_TRUE(disks::AddImage(host_.store(), {Root()}, {"b", Path("a.iso"), ""}, id).ok());
  };
  Uploads uploads(options);
  const std::string id = Upload(uploads, "a");
  const RemovedImage removed = Require(uploads.RemoveImage(id, name_));
  EXPECT_EQ(removed.file, File::kLater);
  EXPECT_EQ(removed.reason, "other records have started to refer to files");
  Uploads(Options()).CleanUp({});
  EXPECT_EQ(Read(Path("a.iso")), content_);
  EXPECT_FALSE(IsRecorded(id));
  // The new image is not one that was uploaded.
  const std::string other = Require(disks::ListImages(host_.store())).front().id;
  EXPECT_EQ(Require(Uploads(Options()).RemoveImage(other, name_)).file, File::kStays);
  EXPECT_EQ(Read(Path("a.iso")), content_);
}

TEST_F(ImageRemovalTest, OnAnotherHost_ItsHostRemovesTheFile) {
  const std::string id = Upload("a");
  host_.Put("host", kHost, Parsed(R"({"name":"nas-1"})"));
  UploadOptions options = Options();
  options.host_id = kOtherHost;
  Uploads other(options);
  const RemovedImage removed = Require(other.RemoveImage(id, name_));
  EXPECT_EQ(removed.file, File::kLater);
  EXPECT_EQ(removed.reason, "it is on the host '" + std::string(kHost) + "', which removes it");
  other.CleanUp({});
  EXPECT_EQ(Read(Path("a.iso")), content_);
  Uploads(Options()).CleanUp({});
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(ImageRemovalTest, HostThatLeftTheCluster_ItsFilesAreForgotten) {
  const std::string id = Upload("a");
  UploadOptions options = Options();
  options.host_id = kOtherHost;
  Uploads other(options);
  (void)Require(other.RemoveImage(id, name_));
  EXPECT_TRUE(IsRecorded(id));
  other.CleanUp({});
  EXPECT_FALSE(IsRecorded(id));
}

TEST_F(ImageRemovalTest, Failures_LeaveFileForLater) {
  for (const int failing : {0, 1}) {
    const std::string id = Upload("a");
    UploadOptions options = Options();
    if (failing == 0) options.calls.unlink = [](int, const char*) { return EROFS; };
    if (failing == 1) options.calls.sync = [](int) { return EIO; };
    const RemovedImage removed = Require(Uploads(options).RemoveImage(id, name_));
    EXPECT_EQ(removed.file, File::kLater);
    EXPECT_THAT(removed.reason, HasSubstr(failing == 0 ? "Read-only file system" : "Input/output error"));
    EXPECT_TRUE(IsRecorded(id));
    Uploads(Options()).CleanUp({});
    EXPECT_FALSE(IsRecorded(id));
    EXPECT_THAT(Files(), IsEmpty());
  }
}

TEST_F(ImageRemovalTest, StoreFails_RemovesNothing) {
  const std::string id = Upload("a");
  host_.store().FailCommits();
  Uploads uploads(Options());
  EXPECT_EQ(uploads.RemoveImage(id, name_).error().code, 992);
  host_.store().Heal();
  EXPECT_EQ(Read(Path("a.iso")), content_);
  EXPECT_EQ(ImageNames(), std::vector<std::string>{"a"});
}

TEST_F(ImageRemovalTest, DamagedRecordOfFile_IsForgotten) {
  Put(RemovedFileKey(kHost, kOtherHost), "7");
  test::ClearCapturedSyslog();
  Uploads(Options()).CleanUp({});
  EXPECT_FALSE(IsRecorded(kOtherHost));
  EXPECT_TRUE(test::SyslogContains("The file '' of a removed image stays: the record of it is damaged."));
}

TEST_F(ImageRemovalTest, Kill_BeforeEachStep_LeavesImageOrNothing) {
  {
    Uploads uploads(Options());
    const std::string id = Upload(uploads, "a");
    steps_.clear();
    (void)Require(uploads.RemoveImage(id, name_));
  }
  const std::vector<std::string> steps = steps_;
  ASSERT_EQ(steps.size(), 5u);
  for (std::size_t i = 0; i < steps.size(); ++i) {
    SCOPED_TRACE("before the step " + steps[i]);
    const std::string id = Upload("a");
    kill_at_ = static_cast<int>(i) + 1;
    Uploads killed(Options());
    EXPECT_THROW((void)killed.RemoveImage(id, name_), Killed);
    kill_at_ = 0;
    Uploads next(Options());
    next.CleanUp({});
    if (!ImageNames().empty()) {
      EXPECT_EQ(Read(Path("a.iso")), content_);
      EXPECT_EQ(Require(next.RemoveImage(id, name_)).file, File::kRemoved);
    }
    EXPECT_THAT(Files(), IsEmpty());
    EXPECT_THAT(ImageNames(), IsEmpty());
    EXPECT_FALSE(IsRecorded(id));
  }
}

}  // namespace
}  // namespace vexa::storage
