// Uploads of images: pieces, limits, names, and an end that can be killed at each of its steps.
#include "host/storage/uploads.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <latch>
#include <sstream>
#include <thread>

#include "host/base/sha256.h"
#include "host/disks/image_records.h"
#include "host/records/keys.h"
#include "tests/support/racing_store.h"
#include "tests/support/record_test.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/storage/mount_point.h"
#include "tests/unit/storage/uploads_fixture.h"

namespace vexa::storage {
namespace {

using ::testing::HasSubstr;

TEST_F(UploadsTest, Pieces_InOrder_BecomeAnImageThatQemuCanRead) {
  Uploads uploads(Options());
  const UploadProgress begun = Require(uploads.Begin(Of("debian 12")));
  EXPECT_EQ(begun.received, 0u);
  EXPECT_EQ(begun.size, content_.size());
  EXPECT_EQ(Require(uploads.Append(begun.id, Piece(content_, 0, 400'000))), 400'000u);
  struct stat info {};
  ASSERT_EQ(::stat(Path(".vexa-upload-" + begun.id).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(Require(uploads.ProgressOf(begun.id)).received, 400'000u);
  EXPECT_EQ(Require(uploads.Append(begun.id, Piece(content_, 400'000, content_.size()))), content_.size());
  ASSERT_TRUE(uploads.End(begun.id, name_).ok());
  EXPECT_EQ(name_, "debian 12");
  EXPECT_EQ(Read(Path("debian 12.iso")), content_);
  ASSERT_EQ(::stat(Path("debian 12.iso").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u);
  Json::Value record = Parsed(TextOf(records::ObjectKey("image", begun.id)));
  EXPECT_EQ(record["name"], "debian 12");
  EXPECT_EQ(record["path"], Path("debian 12.iso"));
  EXPECT_EQ(record["uploaded"]["host_id"], kHost);
  EXPECT_THAT(Unfinished(), ::testing::IsEmpty());
  EXPECT_EQ(Files(), std::vector<std::string>{"debian 12.iso"});
}

TEST_F(UploadsTest, End_Repeated_Succeeds) {
  Uploads uploads(Options());
  const std::string id = Send(uploads, "d");
  ASSERT_TRUE(uploads.End(id, name_).ok());
  EXPECT_TRUE(uploads.End(id, name_).ok());
  EXPECT_EQ(name_, "d");
  ExpectCode(uploads.End(kHost, name_), 403, "There is no upload '" + std::string(kHost) + "'");
}

TEST_F(UploadsTest, FileName_KnownEnding_IsKept) {
  Uploads uploads(Options());
  for (const char* name : {"a.iso", "b.qcow2", "c.img", "d.vmdk", "e.vdi", "f.raw"}) {
    ASSERT_TRUE(uploads.End(Send(uploads, name), name_).ok());
    EXPECT_TRUE(fs::exists(Path(name))) << name;
  }
}

TEST_F(UploadsTest, Begin_InvalidArguments_AreRefused) {
  Uploads uploads(Options());
  for (const std::string& name : {std::string("../x"), std::string(".."), std::string("."), std::string("a/b"),
                                  std::string("/etc/x"), std::string(".hidden")}) {
    ExpectCode(uploads.Begin(Of(name)), 401, "it has no slash and does not begin with a dot");
  }
  for (const std::string& name : {std::string(), std::string("a\nb"), std::string("a\0b", 3), std::string("\x7f"),
                                  std::string("\xff"), std::string(129, 'x')}) {
    ExpectCode(uploads.Begin(Of(name)), 401, "An image's name is 1 to 128 bytes of UTF-8 without control characters");
  }
  NewUpload upload = Of("a");
  upload.sha256.back() = 'G';
  ExpectCode(uploads.Begin(upload), 401, "The SHA-256 is not 64 hexadecimal digits in lower case");
  upload = Of("a");
  upload.size = 0;
  ExpectCode(uploads.Begin(upload), 401, "The size of an upload is a number of bytes, at least 1");
  upload = Of("a");
  upload.root = "/etc";
  ExpectCode(uploads.Begin(upload), 401, "The folder '/etc' is not one of the image folders '" + Root() + "'");
  EXPECT_THAT(Unfinished(), ::testing::IsEmpty());
  EXPECT_THAT(Files(), ::testing::IsEmpty());
}

TEST_F(UploadsTest, Begin_MissingFolder_IsMade) {
  Uploads uploads(Options());
  NewUpload upload = Of("a");
  upload.root = host_.folder().File("second") + "/";
  const std::string id = Require(uploads.Begin(upload)).id;
  struct stat info {};
  ASSERT_EQ(::stat(host_.folder().File("second").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  (void)Require(uploads.Append(id, Piece(content_, 0, content_.size())));
  ASSERT_TRUE(uploads.End(id, name_).ok());
  EXPECT_EQ(Read(host_.folder().File("second/a.iso")), content_);
}

TEST_F(UploadsTest, Begin_SameUpload_IsContinued) {
  Uploads uploads(Options());
  const std::string id = Require(uploads.Begin(Of("a"))).id;
  (void)Require(uploads.Append(id, Piece(content_, 0, 1000)));
  // Also after a restart.
  const UploadProgress again = Require(Uploads(Options()).Begin(Of("a")));
  EXPECT_EQ(again.id, id);
  EXPECT_EQ(again.received, 1000u);
  NewUpload other = Of("a");
  other.size += 1;
  ExpectCode(uploads.Begin(other), 990, "The name 'a' is taken by the upload '" + id + "'");
}

TEST_F(UploadsTest, Begin_NameOfImageOrFile_IsRefused) {
  Uploads uploads(Options());
  const std::string id = Send(uploads, "a");
  ASSERT_TRUE(uploads.End(id, name_).ok());
  fs::rename(Path("a.iso"), Path("b.iso"));
  ExpectCode(uploads.Begin(Of("a")), 990, "The name 'a' is taken by the image '" + id + "'");
  ExpectCode(uploads.Begin(Of("b")), 990, "The name 'b' is taken by the file '" + Path("b.iso") + "'");
}

TEST_F(UploadsTest, Begin_FileOfOtherUploadOrImage_IsRefusedBeforeItIsSent) {
  Uploads uploads(Options());
  const std::string id = Require(uploads.Begin(Of("a"))).id;
  ExpectCode(uploads.Begin(Of("a.iso")), 990, "The file '" + Path("a.iso") + "' is that of the upload '" + id + "'");
  // Another host has an image of this path, under another name.
  host_.PutText("image", kHost, R"({"name":"other","path":")" + Path("b.iso") + "\"}");
  ExpectCode(uploads.Begin(Of("b")), 990, "The file '" + Path("b.iso") + "' is that of the image '" + kHost + "'");
}

TEST_F(UploadsTest, Cancel_FolderCannotBeSynced_CanBeRepeated) {
  UploadOptions options = Options();
  bool fails = false;
  options.calls.sync = [&](int folder) { return fails ? EIO : disks::SyncFolder(folder); };
  Uploads uploads(options);
  const std::string id = Send(uploads, "a");
  fails = true;
  ExpectCode(uploads.Cancel(id, name_), 949, "cannot be removed in '" + Root() + "': Input/output error");
  EXPECT_EQ(Unfinished().size(), 1u);
  fails = false;
  EXPECT_TRUE(uploads.Cancel(id, name_).ok());
  EXPECT_THAT(Unfinished(), ::testing::IsEmpty());
}

TEST_F(UploadsTest, Begin_ConcurrentWithOneName_OneIsAccepted) {
  constexpr int kClients = 8;
  Uploads here(Options());
  UploadOptions elsewhere = Options();
  elsewhere.host_id = "22222222-2222-4222-8222-222222222222";
  Uploads there(elsewhere);
  std::latch ready(kClients);
  std::vector<int> accepted(kClients);
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([&, i] {
      NewUpload upload = Of("a");
      upload.size += static_cast<std::uint64_t>(i);
      ready.arrive_and_wait();
      accepted[static_cast<std::size_t>(i)] = (i % 2 == 0 ? here : there).Begin(upload).ok() ? 1 : 0;
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(std::count(accepted.begin(), accepted.end(), 1), 1);
  EXPECT_EQ(Unfinished().size(), 1u);
}

TEST_F(UploadsTest, Limits_Exceeded_AreRefusedWithFigures) {
  UploadOptions options = Options();
  options.limits.count = 2;
  options.limits.size = 1'000'000;
  options.limits.total = 1'500'000;
  options.limits.reserve = 10'000;
  Uploads uploads(options);
  NewUpload upload = Of("a");
  upload.size = 1'000'001;
  ExpectCode(uploads.Begin(upload), 996, "The image has 976.5 KiB, and an upload at most 976.5 KiB here");
  upload.size = 1'000'000;
  ASSERT_TRUE(uploads.Begin(upload).ok());
  upload.name = "b";
  ExpectCode(uploads.Begin(upload), 996,
             "The image has 976.5 KiB, the uploads in progress 976.5 KiB, and all together at most 1.4 MiB here");
  upload.size = 400'000;
  // 1,000,000 bytes are promised to the first one.
  free_bytes_ = 1'409'999;
  ExpectCode(uploads.Begin(upload), 995,
             "390.6 KiB are needed, 1.3 MiB are free, other uploads need 976.5 KiB, and 9.7 KiB have to stay free");
  free_bytes_ = 1'410'000;
  ASSERT_TRUE(uploads.Begin(upload).ok());
  upload.name = "c";
  upload.size = 1;
  ExpectCode(uploads.Begin(upload), 996, "There are 2 uploads in progress, and 2 at most. Finish or cancel one");
}

TEST_F(UploadsTest, Append_WrongOffset_ReportsTheRightOffset) {
  Uploads uploads(Options());
  const std::string id = Require(uploads.Begin(Of("a"))).id;
  for (const std::uint64_t offset : {1u, 5000u}) {
    const auto refused = uploads.Append(id, Piece(content_, offset, 10));
    ExpectCode(refused, 993, "and the upload continues at 0");
    EXPECT_EQ(refused.error().received, 0u);
  }
  (void)Require(uploads.Append(id, Piece(content_, 0, 1000)));
  const auto refused = uploads.Append(id, Piece(content_, 0, 1000));
  ExpectCode(refused, 993, "The piece begins at 0, and the upload continues at 1000");
  EXPECT_EQ(refused.error().received, 1000u);
  UploadPiece piece = Piece(content_, 1000, 10);
  piece.total += 1;
  ExpectCode(uploads.Append(id, piece), 401, "The upload has 600001 bytes, not 600002");
  const std::string longer(content_.size(), 'x');
  ExpectCode(uploads.Append(id, {1000, content_.size(), longer}), 401, "longer than what is missing");
  EXPECT_EQ(Require(uploads.ProgressOf(id)).received, 1000u);
}

TEST_F(UploadsTest, Append_FullDisk_LeavesUploadThatContinues) {
  Uploads uploads(Options());
  const std::string id = Require(uploads.Begin(Of("a"))).id;
  (void)Require(uploads.Append(id, Piece(content_, 0, 1000)));
  write_error_ = ENOSPC;
  auto refused = uploads.Append(id, Piece(content_, 1000, 5000));
  ExpectCode(refused, 995, "cannot be written in '" + Root() + "': No space left on device");
  EXPECT_EQ(refused.error().received, 1000u);
  write_error_ = 0;
  sync_error_ = EIO;
  refused = uploads.Append(id, Piece(content_, 1000, 5000));
  ExpectCode(refused, 949, "Input/output error");
  sync_error_ = 0;
  free_bytes_ = kGib + 4999;
  refused = uploads.Append(id, Piece(content_, 1000, 5000));
  ExpectCode(refused, 995, "4.8 KiB are needed, 1.0 GiB are free, and 1.0 GiB have to stay free");
  EXPECT_EQ(refused.error().received, 1000u);
  EXPECT_EQ(Require(uploads.ProgressOf(id)).received, 1000u);
  free_bytes_ = kMuch;
  (void)Require(uploads.Append(id, Piece(content_, 1000, content_.size())));
  ASSERT_TRUE(uploads.End(id, name_).ok());
  EXPECT_EQ(Read(Path("a.iso")), content_);
}

TEST_F(UploadsTest, Append_FullFileSystem_LeavesUploadThatContinues) {
  if (!test::CanMount()) GTEST_SKIP() << test::kCannotMount;
  const test::MountPoint mount("images");
  ASSERT_TRUE(mount.MountTmpfs());
  UploadOptions options = Options();
  options.roots = {mount.path()};
  options.calls = {};
  Uploads uploads(options);
  const std::string id = Send(uploads, "a");
  const std::string filler(600'000, 'x');
  std::ofstream(mount.File("filler")) << std::string(400'000, 'x');
  const NewUpload second{"b", "admin", "", filler.size(), DigestOf(filler)};
  const std::string other = Require(uploads.Begin(second)).id;
  const auto refused = uploads.Append(other, {0, filler.size(), filler});
  ExpectCode(refused, 995, "No space left on device");
  EXPECT_EQ(refused.error().received, 0u);
  EXPECT_EQ(Require(uploads.ProgressOf(other)).received, 0u);
  ASSERT_TRUE(uploads.End(id, name_).ok());
  fs::remove(mount.File("filler"));
  fs::remove(mount.File("a.iso"));
  EXPECT_EQ(Require(uploads.Append(other, {0, filler.size(), filler})), filler.size());
  ASSERT_TRUE(uploads.End(other, name_).ok());
  EXPECT_EQ(Read(mount.File("b.iso")), filler);
}

TEST_F(UploadsTest, Folder_NotMounted_RefusesInsteadOfBeginningAgain) {
  if (!test::CanMount()) GTEST_SKIP() << test::kCannotMount;
  const test::MountPoint mount("images");
  const std::string real = mount.folder().File("real");
  fs::create_directory(real);
  ASSERT_TRUE(mount.Bind(real));
  UploadOptions options = Options();
  options.roots = {mount.path()};
  Uploads uploads(options);
  const std::string id = Require(uploads.Begin(Of("a"))).id;
  (void)Require(uploads.Append(id, Piece(content_, 0, 1000)));
  ASSERT_TRUE(mount.Unmount());
  ExpectCode(uploads.Append(id, Piece(content_, 1000, 1000)), 949,
             "The folder of the upload of the image 'a' is not mounted");
  ExpectCode(uploads.ProgressOf(id), 949, "is not mounted");
  ExpectCode(uploads.End(id, name_), 949, "is not mounted");
  ExpectCode(uploads.Cancel(id, name_), 949, "is not mounted");
  now_ += std::chrono::hours(48);
  uploads.CleanUp({});
  ASSERT_TRUE(mount.Bind(real));
  EXPECT_EQ(Require(uploads.ProgressOf(id)).received, 1000u);
}

TEST_F(UploadsTest, Folder_DoesNotAnswer_CallsAreRefusedAfterTimeout) {
  Uploads healthy(Options());
  NewUpload second = Of("b");
  second.root = host_.folder().File("second");
  const std::string other = Require(healthy.Begin(second)).id;
  const std::string image = Send(healthy, "c");
  ASSERT_TRUE(healthy.End(image, name_).ok());
  const auto release = std::make_shared<std::latch>(1);
  UploadOptions options = Options();
  options.timeout = std::chrono::seconds(2);
  const auto hang_in = [release](const std::string& hanging) {
    return [release, hanging](const std::string& folder) {
      if (folder == hanging) release->wait();
    };
  };
  options.probe = hang_in(second.root);
  {
    Uploads uploads(options);
    const std::string reason = "The file system of '" + second.root + "' does not answer. Try again once it does";
    ExpectCode(uploads.ProgressOf(other), 949, reason);
    ExpectCode(uploads.Append(other, Piece(content_, 0, 1000)), 949, reason);
    ExpectCode(uploads.End(other, name_), 949, reason);
    ExpectCode(uploads.Cancel(other, name_), 949, reason);
    NewUpload another = second;
    another.name = "d";
    ExpectCode(uploads.Begin(another), 949, reason);
    uploads.CleanUp({});
    // The other folder is used meanwhile.
    const std::string id = Send(uploads, "a");
    for (const ListedUpload& listed : Require(uploads.List())) {
      EXPECT_EQ(listed.received.has_value(), listed.upload.id == id);
    }
  }
  options.probe = hang_in(Root());
  Uploads uploads(options);
  const RemovedImage removed = Require(uploads.RemoveImage(image, name_));
  EXPECT_EQ(removed.file, RemovedImage::File::kLater);
  EXPECT_EQ(removed.reason, "the file system of '" + Root() + "' does not answer");
  release->count_down();
}

TEST_F(UploadsTest, End_Incomplete_IsRefused) {
  Uploads uploads(Options());
  const std::string id = Require(uploads.Begin(Of("a"))).id;
  ExpectCode(uploads.End(id, name_), 993, "0 of 600001 bytes have arrived");
  (void)Require(uploads.Append(id, Piece(content_, 0, 1000)));
  ExpectCode(uploads.End(id, name_), 993, "1000 of 600001 bytes have arrived");
  EXPECT_EQ(Require(uploads.ProgressOf(id)).received, 1000u);
}

TEST_F(UploadsTest, End_OtherDigest_RemovesFileAndUpload) {
  Uploads uploads(Options());
  NewUpload upload = Of("a");
  upload.sha256 = DigestOf("something else");
  const std::string id = Require(uploads.Begin(upload)).id;
  (void)Require(uploads.Append(id, Piece(content_, 0, content_.size())));
  ExpectCode(uploads.End(id, name_), 994, "The SHA-256 of what arrived is " + DigestOf(content_));
  EXPECT_THAT(Files(), ::testing::IsEmpty());
  EXPECT_THAT(Unfinished(), ::testing::IsEmpty());
  EXPECT_THAT(ImageNames(), ::testing::IsEmpty());
}

TEST_F(UploadsTest, End_HostStops_CanBeRepeated) {
  UploadOptions options = Options();
  bool is_stopping = true;
  options.is_stopping = [&] { return is_stopping; };
  Uploads uploads(options);
  const std::string id = Send(uploads, "a");
  ExpectCode(uploads.End(id, name_), 949, "This host is stopping. End the upload again when it is back");
  is_stopping = false;
  EXPECT_TRUE(uploads.End(id, name_).ok());
}

TEST_F(UploadsTest, End_NameTakenMeanwhile_CanBeRepeated) {
  Uploads uploads(Options());
  const std::string id = Send(uploads, "a");
  // By a file: never replaced.
  std::ofstream(Path("a.iso")) << "other";
  ExpectCode(uploads.End(id, name_), 990, "The name 'a' is taken by the file '" + Path("a.iso") + "'");
  EXPECT_EQ(Read(Path("a.iso")), "other");
  fs::rename(Path("a.iso"), Path("c.iso"));
  // By an image.
  std::string image;
  ASSERT_TRUE(disks::AddImage(host_.store(), {Root()}, {"a", Path("c.iso"), ""}, image).ok());
  ExpectCode(uploads.End(id, name_), 990, "The image '" + image + "' has the name 'a'");
  EXPECT_FALSE(fs::exists(Path("a.iso")));
  EXPECT_EQ(Require(uploads.ProgressOf(id)).received, content_.size());
  ASSERT_TRUE(disks::RemoveImage(host_.store(), image, name_).ok());
  ASSERT_TRUE(uploads.End(id, name_).ok());
  EXPECT_EQ(Read(Path("a.iso")), content_);
}

TEST_F(UploadsTest, End_StoreFails_CanBeRepeated) {
  Uploads uploads(Options());
  const std::string id = Send(uploads, "a");
  host_.store().FailCommits();
  EXPECT_EQ(uploads.End(id, name_).error().code, kRecordFailed);
  host_.store().Heal();
  ASSERT_TRUE(uploads.End(id, name_).ok());
  EXPECT_EQ(ImageNames(), std::vector<std::string>{"a"});
}

TEST_F(UploadsTest, Kill_BeforeEachStep_LosesNothing) {
  // First without a kill, to learn how many steps there are.
  steps_.clear();
  {
    Uploads uploads(Options());
    ASSERT_TRUE(uploads.End(Send(uploads, "first"), name_).ok());
  }
  const std::vector<std::string> steps = steps_;
  ASSERT_GE(steps.size(), 7u);
  for (std::size_t i = 0; i < steps.size(); ++i) {
    SCOPED_TRACE("before the step " + steps[i]);
    const std::string name = "image-" + std::to_string(i);
    kill_at_ = static_cast<int>(i) + 1;
    std::string id;
    try {
      Uploads uploads(Options());
      id = Require(uploads.Begin(Of(name))).id;
      (void)Require(uploads.Append(id, Piece(content_, 0, content_.size())));
      (void)uploads.End(id, name_);
      FAIL() << "not killed";
    } catch (const Killed&) {
    }
    kill_at_ = 0;
    // What the next process does, and the client.
    Uploads uploads(Options());
    int added = 0;
    uploads.CleanUp([&](const Upload& upload) {
      ++added;
      EXPECT_EQ(upload.name, name);
      EXPECT_EQ(upload.user, "admin");
    });
    if (added == 0) {
      const UploadProgress begun = Require(uploads.Begin(Of(name)));
      if (begun.received < content_.size()) {
        (void)Require(uploads.Append(begun.id, Piece(content_, begun.received, content_.size())));
      }
      ASSERT_TRUE(uploads.End(begun.id, name_).ok());
    }
    EXPECT_EQ(Read(Path(name + ".iso")), content_);
    EXPECT_THAT(ImageNames(), ::testing::Contains(name));
    EXPECT_THAT(Unfinished(), ::testing::IsEmpty());
  }
  EXPECT_EQ(Files().size(), steps.size() + 1);
  EXPECT_EQ(ImageNames().size(), steps.size() + 1);
}

TEST_F(UploadsTest, Kill_WhileNameIsGivenBack_LosesNothing) {
  Uploads uploads(Options());
  const std::string id = Send(uploads, "a");
  std::ofstream(Path("c.iso")) << "other";
  std::string image;
  ASSERT_TRUE(disks::AddImage(host_.store(), {Root()}, {"a", Path("c.iso"), ""}, image).ok());
  kill_before_ = "rename back";
  EXPECT_THROW((void)uploads.End(id, name_), Killed);
  kill_before_.clear();
  Uploads next(Options());
  next.CleanUp({});
  ASSERT_TRUE(disks::RemoveImage(host_.store(), image, name_).ok());
  ASSERT_TRUE(next.End(id, name_).ok());
  EXPECT_EQ(Read(Path("a.iso")), content_);
}

TEST_F(UploadsTest, Kill_WhileDamagedUploadIsRemoved_LeavesNoFile) {
  for (const char* step : {"remove", "forget"}) {
    NewUpload upload = Of("a");
    upload.sha256 = DigestOf("something else");
    Uploads uploads(Options());
    const std::string id = Require(uploads.Begin(upload)).id;
    (void)Require(uploads.Append(id, Piece(content_, 0, content_.size())));
    kill_before_ = step;
    EXPECT_THROW((void)uploads.End(id, name_), Killed);
    kill_before_.clear();
    ASSERT_TRUE(Uploads(Options()).Cancel(id, name_).ok());
    EXPECT_THAT(Files(), ::testing::IsEmpty()) << step;
    EXPECT_THAT(Unfinished(), ::testing::IsEmpty()) << step;
  }
}

TEST_F(UploadsTest, SealedFile_Gone_IsUploadedAgain) {
  Uploads uploads(Options());
  const std::string id = Send(uploads, "a");
  kill_before_ = "rename";
  EXPECT_THROW((void)uploads.End(id, name_), Killed);
  kill_before_.clear();
  ExpectCode(uploads.Cancel(id, name_), 108, "The upload is being finished");
  fs::remove(Path(".vexa-upload-" + id));
  ExpectCode(uploads.End(id, name_), 993, "The file with what has arrived is gone. Upload it again");
  EXPECT_EQ(Require(uploads.ProgressOf(id)).received, 0u);
  (void)Require(uploads.Append(id, Piece(content_, 0, content_.size())));
  EXPECT_TRUE(uploads.End(id, name_).ok());
}

TEST_F(UploadsTest, PartialFile_ReplacedByLink_IsNotWritten) {
  Uploads uploads(Options());
  const std::string id = Require(uploads.Begin(Of("a"))).id;
  const std::string victim = host_.folder().File("victim");
  std::ofstream(victim) << "";
  fs::create_symlink(victim, Path(".vexa-upload-" + id));
  EXPECT_FALSE(uploads.Append(id, Piece(content_, 0, 1000)).ok());
  EXPECT_FALSE(uploads.Append(id, Piece(content_, victim.size(), 1000)).ok());
  fs::remove(Path(".vexa-upload-" + id));
  fs::create_hard_link(victim, Path(".vexa-upload-" + id));
  ExpectCode(uploads.Append(id, Piece(content_, 0, 1000)), 949, "Operation not permitted");
  EXPECT_EQ(Read(victim), "");
}

TEST_F(UploadsTest, Cancel_RemovesFileAndRecord) {
  Uploads uploads(Options());
  const std::string id = Send(uploads, "a");
  ASSERT_TRUE(uploads.Cancel(id, name_).ok());
  EXPECT_EQ(name_, "a");
  EXPECT_THAT(Files(), ::testing::IsEmpty());
  ExpectCode(uploads.Cancel(id, name_), 403, "There is no upload");
  ExpectCode(uploads.Append(id, Piece(content_, 0, 10)), 403, "There is no upload");
  ExpectCode(uploads.ProgressOf(id), 403, "There is no upload");
}

TEST_F(UploadsTest, OtherHost_IsNamed) {
  const std::string id = Require(Uploads(Options()).Begin(Of("a"))).id;
  UploadOptions options = Options();
  options.host_id = "22222222-2222-4222-8222-222222222222";
  Uploads other(options);
  ExpectCode(other.ProgressOf(id), 403, "The upload '" + id + "' is on the host '" + kHost + "'");
  ExpectCode(other.Append(id, Piece(content_, 0, 10)), 403, "is on the host");
  // Its host is not in the cluster any more.
  test::ClearCapturedSyslog();
  other.CleanUp({});
  EXPECT_THAT(Unfinished(), ::testing::IsEmpty());
  EXPECT_TRUE(
      test::SyslogContains("The upload of the image 'a' has been forgotten: its host is not in the cluster any more."));
}

TEST_F(UploadsTest, CleanUp_HostInCluster_KeepsItsUploads) {
  host_.Put("host", kHost, Parsed(R"({"name":"nas-1"})"));
  (void)Require(Uploads(Options()).Begin(Of("a")));
  UploadOptions options = Options();
  options.host_id = "22222222-2222-4222-8222-222222222222";
  Uploads(options).CleanUp({});
  EXPECT_EQ(Unfinished().size(), 1u);
}

TEST_F(UploadsTest, CleanUp_DayWithoutByte_RemovesUpload) {
  Uploads uploads(Options());
  const std::string id = Require(uploads.Begin(Of("a"))).id;
  (void)Require(uploads.Append(id, Piece(content_, 0, 1000)));
  Wait(uploads, std::chrono::hours(23));
  EXPECT_EQ(Require(uploads.ProgressOf(id)).received, 1000u);
  Wait(uploads, std::chrono::hours(1));
  EXPECT_EQ(Unfinished().size(), 1u);
  test::ClearCapturedSyslog();
  Wait(uploads, std::chrono::hours(1));
  EXPECT_THAT(Unfinished(), ::testing::IsEmpty());
  EXPECT_THAT(Files(), ::testing::IsEmpty());
  EXPECT_TRUE(test::SyslogContains("The upload of the image 'a' has been removed: nothing has arrived for 24 hours."));
}

TEST_F(UploadsTest, CleanUp_ClockSetForward_KeepsUploadThatGoesOn) {
  Uploads uploads(Options());
  const std::string id = Require(uploads.Begin(Of("a"))).id;
  (void)Require(uploads.Append(id, Piece(content_, 0, 1000)));
  now_ += std::chrono::hours(24 * 365);
  uploads.CleanUp({});
  steady_now_ += std::chrono::minutes(50);
  uploads.CleanUp({});
  (void)Require(uploads.Append(id, Piece(content_, 1000, 1000)));
  steady_now_ += std::chrono::minutes(50);
  uploads.CleanUp({});
  EXPECT_EQ(Require(uploads.ProgressOf(id)).received, 2000u);
  // Another process begins to observe by itself.
  Uploads next(Options());
  next.CleanUp({});
  EXPECT_EQ(Unfinished().size(), 1u);
  steady_now_ += std::chrono::hours(1);
  next.CleanUp({});
  EXPECT_THAT(Unfinished(), ::testing::IsEmpty());
}

TEST_F(UploadsTest, CleanUp_WhilePieceIsWritten_KeepsUpload) {
  UploadOptions options = Options();
  Uploads* self = nullptr;
  options.before_step = [&](const char* step) {
    if (std::string_view(step) != "write") return;
    std::thread([&] { Wait(*self, std::chrono::hours(25)); }).join();
    std::thread([&] { Wait(*self, std::chrono::hours(2)); }).join();
  };
  Uploads uploads(options);
  self = &uploads;
  const std::string id = Require(uploads.Begin(Of("a"))).id;
  EXPECT_EQ(Require(uploads.Append(id, Piece(content_, 0, 1000))), 1000u);
  EXPECT_EQ(Require(uploads.ProgressOf(id)).received, 1000u);
}

TEST_F(UploadsTest, CleanUp_FileCannotBeRemoved_IsLogged) {
  UploadOptions options = Options();
  options.calls.unlink = [](int, const char*) { return EROFS; };
  Uploads uploads(options);
  const std::string id = Send(uploads, "a");
  Wait(uploads, std::chrono::hours(25));
  test::ClearCapturedSyslog();
  Wait(uploads, std::chrono::hours(1));
  EXPECT_TRUE(
      test::SyslogContains("The upload of the image 'a', of which nothing arrives, cannot be removed: The "
                           "upload of the image 'a' cannot be removed in '" +
                           Root() + "': Read-only file system."));
  EXPECT_EQ(Unfinished().size(), 1u);
}

TEST_F(UploadsTest, Piece_WhileAnotherIsWritten_IsRefusedAsBusy) {
  UploadOptions options = Options();
  std::string id;
  Uploads* self = nullptr;
  int code = 0;
  options.before_step = [&](const char* step) {
    if (std::string_view(step) != "write") return;
    std::thread([&] { code = self->Append(id, Piece(content_, 0, 10)).error().code; }).join();
  };
  Uploads uploads(options);
  self = &uploads;
  id = Require(uploads.Begin(Of("a"))).id;
  EXPECT_EQ(Require(uploads.Append(id, Piece(content_, 0, 1000))), 1000u);
  EXPECT_EQ(code, 108);
  EXPECT_EQ(Read(Path(".vexa-upload-" + id)).size(), 1000u);
}

TEST_F(UploadsTest, DamagedRecord_IsForgotten) {
  Put(UploadKey(kHost), "7");
  Uploads uploads(Options());
  EXPECT_FALSE(uploads.ProgressOf(kHost).ok());
  uploads.CleanUp({});
  EXPECT_THAT(Unfinished(), ::testing::IsEmpty());
}

}  // namespace
}  // namespace vexa::storage
