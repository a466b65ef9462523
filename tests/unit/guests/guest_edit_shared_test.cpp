// Edits of files that several disks use, and concurrent edits of the same guest or records.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <set>
#include <utility>

#include "host/records/environment.h"
#include "tests/unit/guests/guest_edit_fixture.h"

namespace vexa::test {
namespace {

std::string Grow(const char* id) { return R"({"vdisks_edit":[{"vdisk_size":48,)" + Id(id) + "}]}"; }

class SharedEdit : public EditTest {};

// The other guest may be running: neither its image's header nor its length is to change under it.
TEST_F(SharedEdit, Grow_FileOfOtherGuestsDisk_IsRefused) {
  std::filesystem::create_directory_symlink(environment_.File("images"), environment_.File("alias"));
  const std::string aliased = environment_.File(std::string("alias/") + kRepository + "/");
  for (const char* disk : {kDisk0, kDisk1}) {
    for (const std::string& path : {environment_.PathOf(disk), aliased + disk + ".qcow2"}) {
      SCOPED_TRACE(path);
      PutDisk(*store_, "disk-of-neighbour", kNeighbour, path);
      Remember();
      const auto refused = Edit(Grow(disk));
      ASSERT_FALSE(refused.ok());
      EXPECT_EQ(refused.error().code, 904);
      EXPECT_THAT(refused.error().reason, HasSubstr("another disk"));
      ExpectUnchanged();
    }
  }
  RemoveKey(*store_, KeyOf("vdisk", "disk-of-neighbour"));
  EXPECT_EQ(Code(Grow(kDisk0)), 0);
}

TEST_F(SharedEdit, Grow_FileOfTwoDisks_WorksAfterRemovingOther) {
  Json::Value disk = RecordOf(*store_, "vdisk", kDisk1);
  disk["path"] = environment_.PathOf(kDisk0);
  PutRecord(*store_, KeyOf("vdisk", kDisk1), disk);
  Remember();
  EXPECT_EQ(Code(Grow(kDisk0)), 904);
  const std::string both =
      R"("vdisks_edit":[{"vdisk_size":48,)" + Id(kDisk0) + R"(},{"vdisk_size":48,"vdisk_mode":2,)" + Id(kDisk1) + "}]";
  EXPECT_EQ(Code("{" + both + "}"), 904);
  ExpectUnchanged();
  EXPECT_EQ(Code(R"({"vdisks_edit":[{"vdisk_size":48,)" + Id(kDisk0) + R"(}],"vdisks_del":[{)" + Id(kDisk1) + "}]}"),
            0);
  EXPECT_EQ(environment_.Images().at(std::string(kDisk0) + ".qcow2"), 48 << 20);
}

// An import, say, of a guest that is to have the file.
TEST_F(SharedEdit, Purge_HiddenFileAssignedToOtherDisk_IsKept) {
  At("sync done 0", [&] { PutDisk(*store_, "new-disk", kNeighbour, environment_.PathOf(kDisk1)); });
  EXPECT_EQ(Code(R"({"vdisks_del":[{)" + Id(kDisk1) + "}]}"), 0);
  EXPECT_TRUE(RecordOf(*store_, "vdisk", kDisk1).isNull());
  EXPECT_FALSE(RecordOf(*store_, "vdisk", "new-disk").isNull());
  EXPECT_EQ(environment_.Images(), images_);
}

// Else the folder may be gone after a power failure, and the disk with it, while the records name it.
TEST_F(SharedEdit, AddDisk_NewFolder_IsSyncedBeforeRecords) {
  for (const bool is_there : {false, true}) {
    if (!is_there) std::filesystem::remove_all(environment_.Folder());
    struct stat root {};
    ASSERT_EQ(::stat(environment_.File("images").c_str(), &root), 0);
    std::vector<bool> are_root;
    options_.file_calls.sync = [&](int folder) {
      struct stat info {};
      EXPECT_EQ(::fstat(folder, &info), 0);
      are_root.push_back(info.st_ino == root.st_ino);
      return disks::SyncFolder(folder);
    };
    bool is_synced = false;
    At("commit records", [&] { is_synced = are_root == std::vector<bool>{true, false}; });
    EXPECT_EQ(Code(R"({"vdisks_add":[{"vdisk_size":1}]})"), 0);
    EXPECT_TRUE(is_synced);
    EXPECT_EQ(environment_.Images().size(), is_there ? 2u : 1u);
  }
}

// Otherwise users who may put images into drives could read a disk by another path.
TEST_F(SharedEdit, InsertImage_DiskByOtherPath_IsRefused) {
  std::filesystem::create_directory_symlink(environment_.File("images"), environment_.File("alias"));
  const std::string file = std::string("/") + kRepository + "/data.iso";
  WriteFile(environment_.File("images") + file);
  PutDisk(*store_, "disk-of-neighbour", kNeighbour, environment_.File("alias") + file);
  Remember();
  for (const char* folder : {"images", "alias"}) {
    const auto refused = Edit("{\"iso_images\":[\"" + environment_.File(folder) + file + "\"]}");
    ASSERT_FALSE(refused.ok()) << folder;
    EXPECT_EQ(refused.error().code, 932);
    EXPECT_EQ(Everything(*store_), records_);
  }
}

// The guest's record stays as it is, so what chose the name is what must be compared.
TEST_F(SharedEdit, SetBus_ConcurrentOnTwoHosts_AssignsDifferentTargets) {
  RemoveKey(*store_, KeyOf("repository", kRepository));  // so that any host may
  const auto to_scsi = [](const char* disk, int mib) {
    return R"({"vdisks_edit":[{"vdisk_mode":3,"vdisk_size":)" + std::to_string(mib) + "," + Id(disk) + "}]}";
  };
  At("commit", [&] {
    EditOptions other = environment_.Options(store_);
    other.host_id = kOtherHost;
    EXPECT_TRUE(Edits(other).Edit(kEdited, Parsed(to_scsi(kDisk1, 16)), Alice()).ok());
  });
  EXPECT_EQ(Code(to_scsi(kDisk0, 8)), 0);
  EXPECT_EQ(RecordOf(*store_, "vdisk", kDisk1)["name"], "sda");
  EXPECT_EQ(RecordOf(*store_, "vdisk", kDisk0)["name"], "sdb");
}

}  // namespace
}  // namespace vexa::test
