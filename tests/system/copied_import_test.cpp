// vexa import --copy-disks against a real host in test mode.
#include <unistd.h>

#include <fstream>

#include "tests/system/cli_guest_host.h"

namespace vexa::test {
namespace {

constexpr char kMoved[] = "5a0c6d1e-7b24-4f83-9d15-c2e8a7b3f604";

class CopiedImportOnDaemon : public CliGuestHostTest {
 protected:
  void SetUp() override {
    if (::access("/usr/bin/qemu-img", X_OK) != 0) GTEST_SKIP() << "qemu-img is not installed";
    std::ofstream(Old()) << std::string(5 << 20, 'x');
  }
  std::string Old() const { return ImageFolder() + "/old.raw"; }
  // The options of an import of a guest with one disk.
  std::vector<std::string> Import(const std::string& image, std::vector<std::string> options = {}) {
    const std::string file = folder_.File("moved.xml");
    std::ofstream(file) << "<domain type='kvm'><name>moved</name><uuid>" << kMoved
                        << "</uuid><memory unit='MiB'>64</memory><os><type>hvm</type></os><devices><disk><driver "
                           "type='raw'/><source file='"
                        << image << "'/><target dev='vda' bus='virtio'/></disk></devices></domain>";
    options.insert(options.begin(), {"import", file, "--copy-disks"});
    return options;
  }
};

TEST_F(CopiedImportOnDaemon, Import_Guest_HasCopiesInTheRepositoryAndRuns) {
  const auto dry = RunOn(Import(Old(), {"--dry-run"}));
  EXPECT_EQ(dry.exit_code, 0) << dry.errors;
  EXPECT_EQ(Parsed(dry.output)[0]["disks"][0]["object"]["size"], 5);
  EXPECT_TRUE(RecordOf(*store_, "guest", kMoved).isNull());

  auto twice = Import(Old(), {"--dry-run"});
  twice.push_back(twice[1]);
  EXPECT_THAT(RunOn(twice).errors, HasSubstr("or its name 'moved' is imported twice"));

  const auto imported = RunOn(Import(Old()));
  ASSERT_EQ(imported.exit_code, 0) << imported.errors;
  EXPECT_THAT(imported.output, HasSubstr(": imported 'moved' (" + std::string(kMoved) + "): 1 disk, 0 network"));
  const Json::Value disk = RecordOf(*store_, "vdisk", RecordOf(*store_, "guest", kMoved)["vdisks"][0].asString());
  EXPECT_THAT(disk["path"].asString(), StartsWith(environment_.Folder() + "/"));
  std::ifstream copy(disk["path"].asString());
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(copy), {}), std::string(5 << 20, 'x'));
  EXPECT_THAT(RunOn({"log"}).output, HasSubstr("The virtual machine [moved] has been imported."));
  const auto started = RunOn({"guest", "start", "moved"});
  EXPECT_EQ(started.exit_code, 0) << started.errors;
  EXPECT_EQ(RunOn({"guest", "kill", "moved"}).exit_code, 0);
  EXPECT_EQ(RunOn({"guest", "delete", "moved", "--yes"}).exit_code, 0);
  EXPECT_TRUE(std::ifstream(Old()).good());
}

TEST_F(CopiedImportOnDaemon, Import_Refused_PrintsTheReasonAndChangesNothing) {
  const std::size_t images = environment_.Images().size();
  for (const auto& [image, sentence] : {std::pair(ImageFolder() + "/missing.raw", "there is no such file"),
                                        {std::string("/etc/passwd"), "it is outside the image folders"}}) {
    const auto refused = RunOn(Import(image));
    EXPECT_EQ(refused.exit_code, 1);
    EXPECT_THAT(refused.errors, HasSubstr(sentence));
  }
  EXPECT_TRUE(RecordOf(*store_, "guest", kMoved).isNull());
  EXPECT_EQ(environment_.Images().size(), images);
  const auto both = RunOn(Import(Old(), {"--replace"}));
  EXPECT_EQ(both.exit_code, 2);
  EXPECT_THAT(both.errors, HasSubstr("--copy-disks is for new guests only. Leave out --replace"));
  ASSERT_EQ(RunOn(Import(Old())).exit_code, 0);
  const auto again = RunOn(Import(Old()));
  EXPECT_EQ(again.exit_code, 1);
  EXPECT_THAT(again.errors, HasSubstr("exists already"));
  EXPECT_EQ(environment_.Images().size(), images + 1);
}

// The host ended while it copied.
TEST_F(CopiedImportOnDaemon, Status_WhileCopying_IsImportingWithProgress) {
  ASSERT_EQ(RunOn(Import(Old())).exit_code, 0);
  Json::Value guest = RecordOf(*store_, "guest", kMoved);
  guest["state"] = "guest_importing";
  PutRecord(*store_, KeyOf("guest", kMoved), guest);
  PutText(*store_, KeyOf("guest", kMoved, "progress"), "42");
  const Json::Value status = Parsed(RunOn({"--json", "guest", "status", kMoved}).output);
  EXPECT_EQ(status["status"], "importing");
  EXPECT_EQ(status["progress"], 42);
}

}  // namespace
}  // namespace vexa::test
