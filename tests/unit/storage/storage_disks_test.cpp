// The states of disks: which state a file gives its disk, and in which order files are checked.
#include "host/storage/storage_disks.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "host/disks/image_file.h"
#include "host/records/run_record.h"
#include "host/storage/storage_watch.h"
#include "tests/support/matchers.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"
#include "tests/unit/storage/mount_point.h"
#include "tests/unit/storage/storage_watch_fixture.h"
#include "webapi/platform/ccc.h"

namespace vexa::storage {
namespace {

namespace fs = std::filesystem;
namespace disks_are = VexaCCC::State::vDisk;
namespace repositories_are = VexaCCC::State::Repo;

DiskFile Disk(const std::string& id, const std::string& path = "", bool is_qcow2 = false, std::uint64_t size_mib = 0) {
  return {id, "", path, is_qcow2, size_mib};
}

void WriteQcow2(const std::string& path, std::uint64_t size) {
  const disks::EmptyImage image = disks::MakeEmptyImage(domain_xml::ImageFormat::kQcow2, size);
  std::ofstream(path) << "";
  fs::resize_file(path, image.length);
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  for (const disks::FilePiece& piece : image.pieces) {
    file.seekp(static_cast<std::streamoff>(piece.offset));
    file << piece.bytes;
  }
}

TEST(DiskFileLook, CheckFile_Each_IsFineMissingOrShort) {
  const test::TempDir folder;
  const std::string raw = folder.File("raw");
  std::ofstream(raw) << "";
  fs::resize_file(raw, 2 << 20);
  const std::string qcow2 = folder.File("qcow2");
  WriteQcow2(qcow2, 4 << 20);
  EXPECT_EQ(CheckFile(Disk("d", raw, false, 2)), FileState::kFine);
  EXPECT_EQ(CheckFile(Disk("d", raw, false, 0)), FileState::kFine) << "a record without a size";
  EXPECT_EQ(CheckFile(Disk("d", raw, false, 3)), FileState::kShort);
  EXPECT_EQ(CheckFile(Disk("d", raw, false, ~std::uint64_t{0})), FileState::kShort);
  EXPECT_EQ(CheckFile(Disk("d", qcow2, true, 4)), FileState::kFine) << "its header counts, not its length";
  EXPECT_EQ(CheckFile(Disk("d", qcow2, true, 5)), FileState::kShort);
  fs::resize_file(qcow2, 20);
  EXPECT_EQ(CheckFile(Disk("d", qcow2, true, 0)), FileState::kShort) << "without its header";
  EXPECT_EQ(CheckFile(Disk("d", raw, true, 1)), FileState::kShort) << "it is not a qcow2 image";
  EXPECT_EQ(CheckFile(Disk("d", folder.File("none"))), FileState::kMissing);
  EXPECT_EQ(CheckFile(Disk("d", raw + "/below")), FileState::kMissing);
  EXPECT_EQ(CheckFile(Disk("d", folder.path())), FileState::kMissing) << "a folder";
  EXPECT_EQ(CheckFile(Disk("d", "")), FileState::kMissing);
  ASSERT_EQ(::mkfifo(folder.File("fifo").c_str(), 0600), 0);
  EXPECT_EQ(CheckFile(Disk("d", folder.File("fifo"), true, 1)), FileState::kMissing) << "and nobody waits for it";
}

TEST(DiskState, Rows_AreTheDocumentedOnes) {
  struct Row {
    const char* repository;
    std::optional<FileState> file;
    const char* stored;
    std::optional<std::string> state;
  };
  const Row rows[] = {
      {repositories_are::online, FileState::kFine, "", disks_are::online},
      {repositories_are::online, FileState::kMissing, "", disks_are::inaccessible},
      {repositories_are::online, FileState::kShort, "", disks_are::crashed},
      {repositories_are::unavailable, FileState::kFine, disks_are::online, disks_are::unavailable},
      {repositories_are::unavailable, FileState::kMissing, "", disks_are::unavailable},
      {repositories_are::crashed, FileState::kMissing, "", disks_are::crashed},
      {repositories_are::inaccessible, std::nullopt, disks_are::online, disks_are::inaccessible},
      {repositories_are::full, FileState::kFine, "", disks_are::full},
      {repositories_are::degraded, FileState::kFine, "", disks_are::degraded},
      {repositories_are::provision_warning, FileState::kFine, "", disks_are::provision_warning},
      {repositories_are::full, FileState::kMissing, "", disks_are::inaccessible},
      {repositories_are::degraded, FileState::kShort, "", disks_are::crashed},
      {repositories_are::online, std::nullopt, disks_are::unavailable, disks_are::online},
      {repositories_are::online, std::nullopt, disks_are::crashed, std::nullopt},
      {repositories_are::online, std::nullopt, disks_are::inaccessible, std::nullopt},
      {repositories_are::online, std::nullopt, "", std::nullopt},
      {"anything", FileState::kFine, "", disks_are::online},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(DiskStateOf(row.repository, row.file, row.stored), row.state)
        << row.repository << " " << (row.file ? static_cast<int>(*row.file) : -1) << " " << row.stored;
  }
  EXPECT_EQ(VisibleDiskState(repositories_are::inaccessible, disks_are::online), disks_are::inaccessible);
  EXPECT_EQ(VisibleDiskState(repositories_are::online, disks_are::crashed), disks_are::crashed);
  EXPECT_EQ(VisibleDiskState(repositories_are::degraded, ""), disks_are::degraded);
  EXPECT_EQ(VisibleDiskState("", ""), disks_are::online);
}

TEST(DiskChoice, Choose_Disks_RotateAndPreferRunningGuests) {
  std::vector<DiskFile> disks;
  for (const char* id : {"a", "b", "c", "d", "e"}) disks.push_back(Disk(id));
  for (const char* id : {"x", "y", "z", "zz"}) {
    disks.push_back(Disk(id));
    disks.back().guest_id = "runs";
  }
  DiskStates states;
  const auto choose = [&] {
    std::vector<std::string> ids;
    for (const DiskFile& disk : states.Choose(disks, {"runs"}, 4)) ids.push_back(disk.id);
    return ids;
  };
  EXPECT_THAT(choose(), ElementsAre("x", "y", "z", "a"));
  EXPECT_THAT(choose(), ElementsAre("zz", "x", "y", "b"));
  EXPECT_THAT(choose(), ElementsAre("z", "zz", "x", "c"));
  disks.resize(5);
  EXPECT_THAT(choose(), ElementsAre("d", "e", "a", "b"));
  disks.resize(1);
  EXPECT_THAT(choose(), ElementsAre("a"));
  disks.clear();
  EXPECT_THAT(choose(), ElementsAre());
}

class DiskWatch : public WatchedStorage {
 protected:
  void PutDisk(const std::string& id, std::uint64_t size_mib = 0, const std::string& members = "{}") {
    Json::Value record = test::Parsed(members);
    record["path"] = mount_.File("p/" + id);
    record["repository_id"] = kPool;
    record["size"] = static_cast<Json::UInt64>(size_mib);
    host_.Put("vdisk", id, record);
  }
  static std::string StateOf(const std::string& id) {
    std::string state;
    VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::vDisk, id).Get(state, VexaCCC::DB::_k::state);
    return state;
  }
};

TEST_F(DiskWatch, DiskStates_Files_AreCheckedAndOnlyChangesWritten) {
  test::WriteImage(mount_.File("p/d1"));
  test::WriteImage(mount_.File("p/d3"));
  PutDisk("d1");
  PutDisk("d2");
  PutDisk("d3", 2);
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_EQ(StateOf("d1"), disks_are::online);
  EXPECT_EQ(StateOf("d2"), disks_are::inaccessible);
  EXPECT_EQ(StateOf("d3"), disks_are::crashed);
  const store::Revision before = Revision();
  watch.Refresh();
  StorageWatch(Options()).Refresh();
  EXPECT_EQ(Revision(), before);
  test::WriteImage(mount_.File("p/d2"));
  fs::resize_file(mount_.File("p/d3"), 2 << 20);
  fs::remove(mount_.File("p/d1"));
  watch.Refresh();
  EXPECT_EQ(StateOf("d1"), disks_are::inaccessible);
  EXPECT_EQ(StateOf("d2"), disks_are::online);
  EXPECT_EQ(StateOf("d3"), disks_are::online);
}

// Records have the format in "driver" or "type"; "format" is the same for all disks.
TEST_F(DiskWatch, CheckFile_Qcow2_IsMeasuredByHeader) {
  fs::create_directories(mount_.File("p"));
  for (const char* id : {"d1", "d2", "d3"}) WriteQcow2(mount_.File("p/" + std::string(id)), 64 << 20);
  PutDisk("d1", 64, R"({"format":2,"type":2,"driver":"qcow2"})");
  PutDisk("d2", 64, R"({"format":2,"type":2})");
  PutDisk("d3", 128, R"({"format":2,"type":2,"driver":"qcow2"})");
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_EQ(StateOf("d1"), disks_are::online);
  EXPECT_EQ(StateOf("d2"), disks_are::online);
  EXPECT_EQ(StateOf("d3"), disks_are::crashed);
}

TEST_F(DiskWatch, CheckFile_SizeNotWholeMib_MatchesImportRounding) {
  test::WriteImage(mount_.File("p/d1"));
  fs::resize_file(mount_.File("p/d1"), (2 << 20) + 512);
  PutDisk("d1", 3);
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_EQ(StateOf("d1"), disks_are::online);
}

TEST_F(DiskWatch, DiskStates_StorageMissing_AllDisksShowItUntilItReturns) {
  test::WriteImage(mount_.File("p/d1"));
  PutDisk("d1");
  PutDisk("d2");
  StorageWatch watch(Options());
  watch.Refresh();
  fs::rename(mount_.path(), mount_.folder().File("away"));
  fs::create_directory(mount_.path());
  watch.Refresh();
  EXPECT_EQ(StateOf("d1"), disks_are::unavailable);
  EXPECT_EQ(StateOf("d2"), disks_are::unavailable);
  fs::remove_all(mount_.path());
  fs::rename(mount_.folder().File("away"), mount_.path());
  watch.Refresh();
  EXPECT_EQ(StateOf("d1"), disks_are::online);
  EXPECT_EQ(StateOf("d2"), disks_are::inaccessible);
}

TEST_F(DiskWatch, DiskStates_RepositoryDegraded_DisksAreDegraded) {
  test::WriteImage(mount_.File("p/d1"));
  PutDisk("d1");
  (void)test::Require(
      host_.store().Commit({{}, {{RepositoryStateKey(kPool), '"' + std::string(repositories_are::degraded) + '"'}}}));
  StorageWatch(Options()).Refresh();
  EXPECT_EQ(StateOf("d1"), disks_are::degraded);
}

TEST_F(DiskWatch, DiskStates_FilesNotNeeded_AreOnline) {
  PutDisk("d1", 5);
  StorageOptions options = Options();
  options.files = StorageOptions::Files::kNotNeeded;
  StorageWatch(options).Refresh();
  EXPECT_EQ(StateOf("d1"), disks_are::online);
}

TEST_F(DiskWatch, DiskStates_ManyDisks_AreCheckedInBatches) {
  constexpr std::size_t kDisks = DiskStates::kFilesPerPass + 100;
  for (std::size_t i = 0; i < kDisks; ++i) PutDisk("d" + std::to_string(10000 + i));
  auto looks = std::make_shared<std::set<std::string>>();
  StorageOptions options = Options();
  options.check_file = [looks](const DiskFile& disk) {
    looks->insert(disk.id);
    return FileState::kFine;
  };
  StorageWatch watch(options);
  watch.Refresh();
  EXPECT_EQ(looks->size(), DiskStates::kFilesPerPass);
  watch.Refresh();
  EXPECT_EQ(looks->size(), kDisks);
  EXPECT_EQ(StateOf("d10000"), disks_are::online);
  EXPECT_EQ(StateOf("d10355"), disks_are::online);
}

TEST_F(DiskWatch, DiskStates_DiskDeletedDuringCheck_GetsNoState) {
  test::WriteImage(mount_.File("p/d1"));
  PutDisk("d1");
  StorageOptions options = Options();
  options.check_file = [&](const DiskFile& disk) {
    host_.Remove("vdisk", disk.id);
    return FileState::kFine;
  };
  StorageWatch(options).Refresh();
  EXPECT_EQ(StateOf("d1"), "");
}

TEST_F(DiskWatch, DiskStates_FilesNotResponding_KeepStates) {
  test::WriteImage(mount_.File("p/d1"));
  PutDisk("d1");
  StorageWatch(Options()).Refresh();
  StorageOptions options = Options();
  options.timeout = std::chrono::milliseconds(300);
  auto hangs = std::make_shared<std::atomic<bool>>(true);
  options.check_file = [hangs](const DiskFile&) {
    while (*hangs) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return FileState::kMissing;
  };
  StorageWatch watch(options);
  const auto begin = std::chrono::steady_clock::now();
  watch.Refresh();
  watch.Refresh();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  EXPECT_EQ(StateOf("d1"), disks_are::online);
  *hangs = false;
}

}  // namespace
}  // namespace vexa::storage
