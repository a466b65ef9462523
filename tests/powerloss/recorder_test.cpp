// The recorder sees everything that a program does to files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/powerloss/recorded_program.h"
#include "tests/support/temp_dir.h"

namespace vexa::powerloss {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

class Recorder : public testing::Test {
 protected:
  Recorder() {
    std::filesystem::create_directory(Root());
    std::ofstream(Root() + "/there-before") << "there before";
    std::ofstream(Root() + "/gone") << "not for long";
  }
  std::string Root() const { return folder_.File("root"); }
  std::vector<Call> Record(std::vector<std::string> argv) {
    RecordedProgram program(Root(), folder_.File("recording-" + std::to_string(++recordings_)),
                            {.argv = std::move(argv)});
    const auto ended = program.process().Wait(60s);
    EXPECT_TRUE(ended && ended->code == 0) << program.process().errors();
    return program.Calls();
  }
  static std::string ContentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  test::TempDir folder_;
  int recordings_ = 0;
};

TEST_F(Recorder, EveryWayToChangeFiles_IsRecorded) {
  const DiskModel model(Record({FILE_CHANGER_PROGRAM, Root()}));
  DiskFolder folder(Root(), folder_.File("spare"));
  EXPECT_EQ(folder.FindDifference(model), "");
  std::mt19937 random(1);
  const Disk disk = model.After(model.calls().size(), Loss::kNothing, random);
  EXPECT_TRUE(disk.ContentOf("written").starts_with("FIRST, second, third"));
  EXPECT_EQ(disk.ContentOf("there-before"), "there before, and changed");
  EXPECT_EQ(disk.ContentOf("renamed/two"), "/a/one");
  EXPECT_EQ(disk.ContentOf("b/linked"), "/a/four");
  EXPECT_FALSE(disk.Has("gone"));
  EXPECT_EQ(model.calls().back().bytes, "done\n");
}

// A recording that lacks a call, or has a byte wrong, does not pass for the folder.
TEST_F(Recorder, RecordingThatLacksACall_Differs) {
  const std::vector<Call> calls = Record({FILE_CHANGER_PROGRAM, Root()});
  const std::size_t start = DiskModel(calls).start();
  std::size_t noticed = 0;
  for (std::size_t i = start; i < calls.size(); ++i) {
    std::vector<Call> others = calls;
    if (calls[i].kind == CallKind::kWrite) {
      others[i].bytes.back() = static_cast<char>(others[i].bytes.back() ^ 1);
    } else if (calls[i].kind == CallKind::kMode || calls[i].kind == CallKind::kRename) {
      others.erase(others.begin() + static_cast<std::ptrdiff_t>(i));
    } else {
      continue;
    }
    DiskFolder folder(Root(), folder_.File("spare"));
    if (!folder.FindDifference(DiskModel(others)).empty()) ++noticed;
  }
  EXPECT_GE(noticed, 10u);  // some writes are overwritten later
  std::ofstream(Root() + "/unrecorded") << "x";
  DiskFolder folder(Root(), folder_.File("spare"));
  EXPECT_THAT(folder.FindDifference(DiskModel(calls)), HasSubstr("/unrecorded' was not recorded"));
}

TEST_F(Recorder, ExitCodeAndOutput_AreThoseOfTheProgram) {
  RecordedProgram program(Root(), folder_.File("recording"), {.argv = {"sh", "-c", "echo out; echo err >&2; exit 7"}});
  const auto ended = program.process().Wait(60s);
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, 7);
  EXPECT_EQ(program.process().output(), "out\n");
  EXPECT_EQ(program.process().errors(), "err\n");
}

TEST_F(Recorder, Put_KeepsTheIdentitiesOfFiles) {
  const DiskModel model(Record({FILE_CHANGER_PROGRAM, Root()}));
  DiskFolder folder(Root(), folder_.File("spare"));
  ASSERT_EQ(folder.FindDifference(model), "");
  const auto inode = [&](const std::string& name) {
    struct stat info {};
    EXPECT_EQ(::stat((Root() + name).c_str(), &info), 0) << name;
    return info.st_ino;
  };
  const ino_t file = inode("/written");
  const ino_t renamed = inode("/renamed");
  std::mt19937 random(1);
  folder.Put(model.After(model.start(), Loss::kNothing, random), random);
  EXPECT_FALSE(std::filesystem::exists(Root() + "/written"));
  EXPECT_EQ(ContentOf(Root() + "/there-before"), "there before");
  EXPECT_EQ(ContentOf(Root() + "/gone"), "not for long");
  folder.Put(model.After(model.calls().size(), Loss::kNothing, random), random);
  EXPECT_EQ(inode("/written"), file);
  EXPECT_EQ(inode("/renamed"), renamed);
  EXPECT_TRUE(ContentOf(Root() + "/written").starts_with("FIRST, second, third"));
  EXPECT_FALSE(std::filesystem::exists(Root() + "/gone"));
}

}  // namespace
}  // namespace vexa::powerloss
