// The power fails while a command makes keys: each file is there completely or not at all, and all of them are when the
// command has said so.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/powerloss/power_cuts.h"
#include "tests/powerloss/recorded_program.h"
#include "tests/support/temp_dir.h"

namespace vexa::powerloss {
namespace {

TEST(ClusterKeys, PowerFails_ConfirmedKeysAreThereAndOthersWholeOrAbsent) {
  const test::TempDir folder;
  const std::string root = folder.File("root");
  std::filesystem::create_directory(root);
  RecordedProgram program(root, folder.File("recording"),
                          {.argv = {"sh", "-c",
                                    "\"$0\" cluster init --dir keys/authority && "
                                    "exec \"$0\" cluster certificate --dir keys/authority --out keys/host --host-id "
                                    "6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55",
                                    VEXA_PROGRAM},
                           .working_directory = root});
  const auto ended = program.process().Wait(std::chrono::seconds(60));
  ASSERT_TRUE(ended && ended->code == 0) << program.process().errors();
  const DiskModel model(program.Calls());
  ASSERT_EQ(DiskFolder(root, folder.File("spare")).FindDifference(model), "");
  std::mt19937 random(1);
  const Disk last = model.After(model.calls().size(), Loss::kNothing, random);
  const std::vector<std::vector<std::string>> files{
      {"keys/authority/authority.key", "keys/authority/authority.pem"},
      {"keys/host/host.key", "keys/host/host.pem", "keys/host/authority.pem"}};
  for (const PowerCut& cut : ChooseCuts(model, model.start(), 1000)) {
    SCOPED_TRACE(Describe(cut, model));
    std::mt19937 own_random(cut.seed);
    const Disk disk = model.After(cut.at, cut.loss, own_random);
    std::size_t confirmed = 0;
    for (std::size_t i = 0; i < cut.at; ++i) {
      const Call& call = model.calls()[i];
      // Sanitizers write to pipes of their own.
      confirmed += call.kind == CallKind::kReply && call.descriptor == STDOUT_FILENO ? 1 : 0;
    }
    for (std::size_t command = 0; command < files.size(); ++command) {
      for (const std::string& file : files[command]) {
        ASSERT_NE(last.ContentOf(file), "") << file;
        if (command < confirmed || disk.Has(file)) {
          ASSERT_EQ(disk.ContentOf(file), last.ContentOf(file)) << file;
        }
      }
    }
  }
}

}  // namespace
}  // namespace vexa::powerloss
