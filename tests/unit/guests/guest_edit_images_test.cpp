// Growing images and undoing it, unusual images that stay unchanged, and invalid records of edits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <utility>

#include "host/guests/deletion/deletion.h"
#include "tests/unit/guests/guest_edit_fixture.h"

namespace vexa::test {
namespace {

using disks::DiskFiles;
using domain_xml::ImageFormat;

constexpr std::uint64_t kMib = 1024 * 1024;
constexpr std::uint64_t kGib = 1024 * kMib;

class Images : public EditTest {
 protected:
  static std::string ContentOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  static void Patch(const std::string& path, std::size_t offset, const std::string& bytes) {
    std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(static_cast<std::streamoff>(offset));
    out << bytes;
  }
  // How it is answered when the image is to have `size` bytes.
  std::optional<ErrorCode> Plan(const std::string& path, std::uint64_t size, ImageFormat format = ImageFormat::kQcow2) {
    const auto growth = disks::PlanGrowth(files_, path, format, size);
    return growth ? std::nullopt : std::optional(growth.error().code());
  }
  void Change(const char* category, const char* id, const char* member, const Json::Value& value) {
    Json::Value record = RecordOf(*store_, category, id);
    record[member] = value;
    PutRecord(*store_, KeyOf(category, id), record);
  }

  const DiskFiles files_{{environment_.File("images")}, {}};
  const std::string qcow2_ = environment_.PathOf(kDisk0);
  const std::string raw_ = environment_.PathOf(kDisk1);
};

TEST_F(Images, Grow_UnusualQcow2_IsRefused) {
  const std::string usual = ContentOf(qcow2_);
  const std::pair<std::size_t, std::string> rows[] = {
      {0, "QFI"},                                                                          // is there already
      {0, "x"},     {7, "\x01"},  {7, "\x04"},  {23, "\x08"}, {23, "\x16"}, {35, "\x01"},  // encrypted
      {63, "\x01"},                                                                        // a snapshot
      {79, "\x01"},                                                                        // not closed
      {72, "\x80"}, {95, "\x01"}, {88, "\x80"},
  };
  bool is_first = true;
  for (const auto& [offset, bytes] : rows) {
    SCOPED_TRACE(offset);
    Patch(qcow2_, offset, bytes);
    EXPECT_EQ(Plan(qcow2_, 16 * kMib),
              std::exchange(is_first, false) ? std::nullopt : std::optional(ErrorCode::kInvalid));
    Patch(qcow2_, 0, usual.substr(0, 104));
  }
  for (const std::size_t length : {0, 4, 71, 72, 103}) {
    std::filesystem::resize_file(qcow2_, length);
    EXPECT_EQ(Plan(qcow2_, 16 * kMib), ErrorCode::kInvalid) << length;
  }
}

TEST_F(Images, Qcow2OfVersion2_HasNoFeatures) {
  Patch(qcow2_, 7, "\x02");
  Patch(qcow2_, 79, "\x01");
  EXPECT_EQ(Plan(qcow2_, 16 * kMib), std::nullopt);
}

TEST_F(Images, Grow_Qcow2LargerThanRecord_IsUnchanged) {
  EXPECT_EQ(Plan(qcow2_, 8 * kMib), std::nullopt);
  EXPECT_EQ(Plan(qcow2_, 7 * kMib), ErrorCode::kConflict);
  EXPECT_EQ(Plan(raw_, 15 * kMib, ImageFormat::kRaw), ErrorCode::kConflict);
}

TEST_F(Images, Grow_Qcow2WithShortTable_NeedsZerosBehindIt) {
  Patch(qcow2_, 36, std::string("\0\0\0\1", 4));
  const auto growth = disks::PlanGrowth(files_, qcow2_, ImageFormat::kQcow2, kGib);
  ASSERT_TRUE(growth.ok());
  EXPECT_EQ(growth->to_header, std::string("\0\0\0\0\x40\0\0\0\0\0\0\0\0\0\0\2", 16));
  const auto table = static_cast<std::size_t>(3) << 16;
  Patch(qcow2_, table + 15, "\x01");
  EXPECT_EQ(Plan(qcow2_, kGib), ErrorCode::kInvalid);
  EXPECT_EQ(Plan(qcow2_, kGib / 2), std::nullopt);
}

TEST_F(Images, UndoGrowth_AfterGrow_RestoresBytesAndIsIdempotent) {
  for (const auto& [path, format] : {std::pair(qcow2_, ImageFormat::kQcow2), std::pair(raw_, ImageFormat::kRaw)}) {
    SCOPED_TRACE(path);
    const std::string before = ContentOf(path);
    const auto growth = disks::PlanGrowth(files_, path, format, 64 * kMib);
    ASSERT_TRUE(growth.ok());
    EXPECT_EQ(ContentOf(path), before);
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(disks::Grow(files_, *growth).ok());
    EXPECT_EQ(*domain_xml::ReadImageSize(path, format), 64 * kMib);
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(disks::UndoGrowth(files_, *growth).ok());
    EXPECT_EQ(ContentOf(path), before);
  }
}

TEST_F(Images, Undo_ImagesChangedElsewhere_AreKept) {
  const auto raw = disks::PlanGrowth(files_, raw_, ImageFormat::kRaw, 64 * kMib);
  const auto qcow2 = disks::PlanGrowth(files_, qcow2_, ImageFormat::kQcow2, 64 * kMib);
  ASSERT_TRUE(raw.ok() && qcow2.ok());
  std::filesystem::resize_file(raw_, 32 * kMib);
  Patch(qcow2_, 28, "\x02");
  const std::string before = ContentOf(qcow2_);
  for (const auto& growth : {*raw, *qcow2}) {
    EXPECT_EQ(disks::Grow(files_, growth).error().code(), ErrorCode::kConflict);
    EXPECT_EQ(disks::UndoGrowth(files_, growth).error().code(), ErrorCode::kConflict);
  }
  EXPECT_EQ(std::filesystem::file_size(raw_), 32 * kMib);
  EXPECT_EQ(ContentOf(qcow2_), before);
}

TEST_F(Images, Grow_NotRegularFile_IsRefusedWithoutBlocking) {
  const std::string fifo = environment_.Folder() + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string link = environment_.Folder() + "/link";
  ASSERT_EQ(::symlink(raw_.c_str(), link.c_str()), 0);
  ASSERT_EQ(::symlink(environment_.Folder().c_str(), environment_.File("images/away").c_str()), 0);
  for (const std::string& path :
       {fifo, link, environment_.Folder(), environment_.File("images/away/") + kDisk1 + ".qcow2",
        environment_.File("store/data.mdb"), std::string("/dev/null")}) {
    for (const ImageFormat format : {ImageFormat::kRaw, ImageFormat::kQcow2}) {
      const auto growth = disks::PlanGrowth(files_, path, format, 64 * kMib);
      EXPECT_FALSE(growth.ok()) << path;
    }
    Change("vdisk", kDisk1, "path", path);
    EXPECT_EQ(Code(R"({"vdisks_edit":[{"vdisk_size":48,)" + Id(kDisk1) + "}]}"), 904) << path;
  }
}

TEST_F(Images, AddDisk_WriteFails_LeavesNoFile) {
  disks::FileSystemCalls calls;
  calls.write = [](int, std::string_view, std::uint64_t) { return ENOSPC; };
  const DiskFiles full({environment_.File("images")}, calls);
  const auto image = disks::MakeEmptyImage(ImageFormat::kQcow2, kMib);
  EXPECT_FALSE(full.Create(environment_.PathOf(kUnknownId), image.length, image.pieces));
  EXPECT_FALSE(std::filesystem::exists(environment_.PathOf(kUnknownId)));
}

// Odd records of disks and guests.

TEST_F(Images, Grow_DiskWithoutDriver_UsesItsType) {
  for (const auto& [id, path] : {std::pair(kDisk0, qcow2_), std::pair(kDisk1, raw_)}) {
    Change("vdisk", id, "driver", "");
    EXPECT_EQ(Code(R"({"vdisks_edit":[{"vdisk_size":48,)" + Id(id) + "}]}"), 0);
  }
  EXPECT_EQ(*domain_xml::ReadImageSize(qcow2_, ImageFormat::kQcow2), 48 * kMib);
  EXPECT_LT(std::filesystem::file_size(qcow2_), kMib);
  EXPECT_EQ(std::filesystem::file_size(raw_), 48 * kMib);
}

TEST_F(Images, Grow_UnsupportedDisk_IsRefused) {
  const std::string grow = R"({"vdisks_edit":[{"vdisk_size":48,)" + Id(kDisk1) + "}]}";
  for (const char* path : {"7", "null", "\"\"", "\"relative\"", "\"/a/../b\"", "[]", "\"/\"", "\"/a\\u0000b\""}) {
    Change("vdisk", kDisk1, "path", Parsed(path));
    EXPECT_EQ(Code(grow), 904) << path;
  }
  Change("vdisk", kDisk1, "path", raw_);
  EXPECT_EQ(Code(R"({"vdisks_edit":[{"vdisk_size":16,"unmap":true,)" + Id(kDisk1) +
                 R"(},{"vdisk_size":16,"vdisk_mode":3,)" + Id(kDisk1) + "}]}"),
            904);
  std::filesystem::resize_file(raw_, kMib);
  EXPECT_EQ(Code(R"({"vdisks_edit":[{"vdisk_size":8,)" + Id(kDisk1) + "}]}"), 904);
  EXPECT_EQ(std::filesystem::file_size(raw_), kMib);
  for (const char* size : {"-5", "\"x\"", "1e300", "[]", "null"}) {
    Change("vdisk", kDisk0, "size", Parsed(size));
    EXPECT_EQ(Code(R"({"vdisks_edit":[{"vdisk_size":7,)" + Id(kDisk0) + "}]}"), 904) << size;
  }
}

TEST_F(Images, AddDisk_RepositoryIdNotFolderName_IsRefused) {
  for (const char* id : {"..", "../outside", "a/b", "", ".", "a b"}) {
    Change("guest", kEdited, "repository_id", id);
    EXPECT_EQ(Code(R"({"vdisks_add":[{"vdisk_size":1}]})"), 949) << id;
  }
  EXPECT_FALSE(std::filesystem::exists(environment_.File("outside")));
}

TEST_F(Images, Rename_NameCannotBeChecked_IsRefused) {
  const Texts before = Everything(*store_);
  store_->FailSnapshots();
  EXPECT_EQ(Code(R"({"name":"wanted"})"), 901);
  store_->Heal();
  EXPECT_EQ(Everything(*store_), before);
}

TEST_F(Images, Delete_EditBeginning_IsRefused) {
  guests::DeletionOptions deletion;
  deletion.store = store_;
  deletion.host_id = kThisHost;
  deletion.image_roots = options_.image_roots;
  const std::string theirs = R"({"host_id":"h","stage":"doing","made":[],"hidden":[],"grown":[]})";
  deletion.before_step = [&, done = false](std::string_view step) mutable {
    if (step == "commit hiding" && !std::exchange(done, true)) PutText(*store_, records::EditKey(kEdited), theirs);
  };
  const auto images = environment_.Images();
  const auto refused = guests::Deletion(deletion).Delete(kEdited, Alice());
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, 915);
  EXPECT_EQ(environment_.Images(), images);
}

// Records that no edit has written are kept for an administrator to inspect.
TEST_F(Images, FinishAll_InvalidRecords_AreKeptAndFilesUnchanged) {
  const auto images = environment_.Images();
  const std::string twice = environment_.Folder() + "//" + kDisk0 + ".qcow2";
  const std::string header(32, '0');
  const auto grown = [&](const std::string& from, const std::string& to) {
    return R"("stage":"doing","made":[],"hidden":[],"grown":[{"path":")" + raw_ + R"(","from":)" + from + R"(,"to":)" +
           to + "}]";
  };
  const std::string rows[] = {
      R"("stage":"doing","hidden":[],"grown":[],"made":[")" + twice + "\"]",
      R"("stage":"doing","hidden":[],"grown":[],"made":[")" + environment_.Folder() + "/./" + kDisk0 + ".qcow2\"]",
      R"("stage":"doing","hidden":[],"grown":[],"made":[")" + environment_.Folder() + "/other.qcow2\"]",
      R"("stage":"doing","hidden":[],"grown":[],"made":[7])",
      R"("stage":"doing","hidden":[],"grown":[],"made":{})",
      R"("stage":"doing","hidden":[],"made":[])",
      R"("stage":"other","made":[],"hidden":[],"grown":[])",
      R"("stage":7,"made":[],"hidden":[],"grown":[])",
      R"("stage":"purging","made":[],"grown":[],"hidden":[{"path":")" + raw_ + R"(","hidden":")" + kDisk1 +
          ".qcow2\"}]",
      R"("stage":"purging","made":[],"grown":[],"hidden":[{"path":")" + raw_ + R"(","hidden":"../x"}])",
      grown("-1", std::to_string(16 * kMib)),
      grown("0", "\"" + header + "\""),
      grown("\"00\"", "\"00\""),
      grown("\"" + header + "\"", "\"" + header.substr(1) + "g\""),
      grown("1.5", "null"),
  };
  for (const std::string& row : rows) {
    SCOPED_TRACE(row);
    const std::string text = "{\"host_id\":\"" + std::string(kThisHost) + "\"," + row + "}";
    PutText(*store_, records::EditKey(kEdited), text);
    Edits(options_).FinishAll();
    EXPECT_EQ(TextOf(*store_, records::EditKey(kEdited)), text);
    EXPECT_EQ(environment_.Images(), images);
  }
  for (const char* text : {"", "7", "[]", "{", "{}", "\"doing\"", "{\"host_id\":7}"}) {
    PutText(*store_, records::EditKey(kEdited), text);
    Edits(options_).FinishAll();
    EXPECT_EQ(TextOf(*store_, records::EditKey(kEdited)), text);
    EXPECT_EQ(Code(R"({"vdisks_add":[{"vdisk_size":1}]})"), 915) << text;
  }
}

}  // namespace
}  // namespace vexa::test
