// Imports that copy the images of disks: what becomes of the definition, what is refused, and what a failure or a kill
// leaves.
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "host/guests/jobs/guest_locks.h"
#include "host/records/domain_record.h"
#include "tests/support/process.h"
#include "tests/support/qcow2_image.h"
#include "tests/support/require.h"
#include "tests/unit/guests/guest_creation_fixture.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;
using guests::ImportedGuest;
using guests::ImportRequest;
using testing::HasSubstr;
using testing::Not;

constexpr char kQemuImg[] = "/usr/bin/qemu-img";
constexpr std::size_t kMib = std::size_t{1} << 20;

std::string DiskXml(const std::string& target, const std::string& path, const std::string& format,
                    const std::string& more = "") {
  return "<disk type='file'><driver name='qemu' type='" + format + "' cache='none'/><source file='" + path +
         "' index='3'/><target dev='" + target + "' bus='virtio'/>" + more + "</disk>";
}

ImportRequest RequestOf(const std::string& devices, const std::string& name = "moved") {
  ImportRequest request;
  request.xml = "<domain type='kvm'><name>" + name + "</name><uuid>" + kCreated +
                "</uuid><title>Kept</title><memory unit='MiB'>64</memory><devices>" + devices + "</devices></domain>";
  request.repository_id = kRepository;
  request.host_id = kThisHost;
  return request;
}

std::string Content() {
  std::string content(3 * kMib, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7 + i / 4096);
  return content;
}

class CopiedImportTest : public CreationTest {
 protected:
  void SetUp() override {
    if (::access(kQemuImg, X_OK) != 0) GTEST_SKIP() << "qemu-img is not installed";
    std::ofstream(Path("old.raw"), std::ios::binary) << Content();
    Remember();
  }
  std::string Path(const std::string& name) const { return environment_.File("images/" + name); }
  std::string Convert(const std::string& from_format, const std::string& from, const std::string& format,
                      const std::string& to) const {
    const ProcessResult made = RunProcess({.argv = {kQemuImg, "convert", "-f", from_format, "-O", format, from, to}});
    EXPECT_EQ(made.exit_code, 0) << made.errors;
    return to;
  }
  std::string Seen(const std::string& format, const std::string& path) const {
    std::ifstream in(Convert(format, path, "raw", environment_.File("seen.raw")), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  Result<void, Refusal> Import(const ImportRequest& request, guests::GuestImport::Options importing = {}) {
    return Creations(options_).Import(request, importing, Alice(), imported_);
  }
  void ExpectNotImported(const ImportRequest& request, int code, const std::string& words) {
    SCOPED_TRACE(words);
    const auto done = Import(request);
    ASSERT_FALSE(done.ok());
    EXPECT_EQ(done.error().code, code);
    EXPECT_THAT(done.error().reason, HasSubstr(words));
    ExpectUnchanged();
  }
  void CopyWith(const std::string& script) {
    const std::string program = environment_.File("program");
    std::ofstream(program) << "#!/bin/sh\n" << script;
    fs::permissions(program, fs::perms::owner_all);
    options_.copy.program = program;
  }
  std::string StoredXml() const {
    const auto domain = Require(records::ReadDomain(*Require(store_->Read()), kCreated));
    return domain ? domain->domain.xml : "";
  }

  ImportedGuest imported_;
};

TEST_F(CopiedImportTest, Import_EachFormat_IsCopiedAndNamedInTheDefinition) {
  const std::string devices =
      DiskXml("vda", Path("old.raw"), "raw", "<serial>S1</serial>") +
      DiskXml("vdb", Convert("raw", Path("old.raw"), "qcow2", Path("old.qcow2")), "qcow2", "<backingStore/>") +
      DiskXml("vdc", Convert("raw", Path("old.raw"), "vmdk", Path("old.vmdk")), "vmdk") +
      DiskXml("vdd", Convert("raw", Path("old.raw"), "vdi", Path("old.vdi")), "vdi") +
      "<disk type='file' device='cdrom'><source file='/isos/a.iso'/><target dev='sda' bus='sata'/></disk>";
  const auto done = Import(RequestOf(devices));
  ASSERT_TRUE(done.ok()) << done.error().reason;
  EXPECT_EQ(imported_.id, kCreated);
  EXPECT_EQ(imported_.name, "moved");
  const Json::Value guest = Guest();
  EXPECT_EQ(guest["state"], "guest_shutdown");
  EXPECT_EQ(guest["repository_id"], kRepository);
  ASSERT_EQ(guest["vdisks"].size(), 4u);
  for (const auto& [index, format] : {std::pair(0u, "raw"), {1u, "qcow2"}, {2u, "qcow2"}, {3u, "qcow2"}}) {
    SCOPED_TRACE(index);
    const Json::Value disk = RecordOf(*store_, "vdisk", guest["vdisks"][index].asString());
    const std::string path = disk["path"].asString();
    EXPECT_EQ(disk["driver"], format);
    EXPECT_EQ(disk["size"], 3);
    EXPECT_EQ(disk["guest_id"], kCreated);
    EXPECT_EQ(fs::path(path).parent_path(), environment_.Folder());
    EXPECT_EQ(Seen(format, path), Content());
    EXPECT_THAT(StoredXml(), HasSubstr("file=\"" + path + "\""));
  }
  // Everything else of the definition stays, and so do the images that were copied.
  for (const char* kept : {"<title>Kept</title>", "cache=\"none\"", "<serial>S1</serial>", "/isos/a.iso"}) {
    EXPECT_THAT(StoredXml(), HasSubstr(kept));
  }
  for (const char* gone : {"old.", "index=", "backingStore", "vmdk", "vdi"}) {
    EXPECT_THAT(StoredXml(), Not(HasSubstr(gone)));
  }
  EXPECT_TRUE(Require(records::ReadDomain(*Require(store_->Read()), kCreated))->domain.has_own_images);
  EXPECT_EQ(Seen("raw", Path("old.raw")), Content());
  EXPECT_TRUE(guests::CheckNoUnfinishedJob(*store_, kCreated).ok());
  EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kCreated, "progress")));
}

TEST_F(CopiedImportTest, Import_InProgress_IsImportingAndHeld) {
  int looked = 0;
  At("copy 0", [&] {
    ++looked;
    EXPECT_EQ(Guest()["state"], "guest_importing");
    EXPECT_EQ(Guest()["name"], "moved");
    const auto job = guests::CheckNoUnfinishedJob(*store_, kCreated);
    ASSERT_FALSE(job.ok());
    EXPECT_THAT(job.error().reason, HasSubstr("The guest is being created or imported (started by 'alice' at "));
    const auto again = Creations(environment_.Options(store_)).Import(RequestOf(""), {}, Alice(), imported_);
    ASSERT_FALSE(again.ok());
    EXPECT_EQ(again.error().code, 902);
  });
  CopyWith("echo '    (50.00/100%)'; while [ ! -e " + environment_.File("go") + " ]; do sleep 0.01; done");
  std::thread importer([&] {
    const auto done = Import(RequestOf(DiskXml("vda", Path("old.raw"), "raw")));
    EXPECT_TRUE(done.ok()) << done.error().reason;
  });
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (TextOf(*store_, KeyOf("guest", kCreated, "progress")) != "50" && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(TextOf(*store_, KeyOf("guest", kCreated, "progress")), "50");
  std::ofstream(environment_.File("go")) << "";
  importer.join();
  EXPECT_EQ(looked, 1);
  EXPECT_EQ(Guest()["state"], "guest_shutdown");
}

TEST_F(CopiedImportTest, Import_ImagesThatCannotBeCopied_AreRefused) {
  Qcow2Image backed;
  backed.backing_file = "/etc/passwd";
  std::ofstream(Path("backed.qcow2"), std::ios::binary) << backed.Text();
  Qcow2Image with_data;
  with_data.features = 4;
  with_data.data_file = "/etc/passwd";
  std::ofstream(Path("data.qcow2"), std::ios::binary) << with_data.Text();
  const std::string qcow2 = Convert("raw", Path("old.raw"), "qcow2", Path("old.qcow2"));
  Remember();
  const std::string source = "<source file='" + qcow2 + "'>";
  const std::string target = "<target dev='vda' bus='virtio'/></disk>";
  for (const auto& [devices, words] :
       {std::pair<std::string, std::string>{DiskXml("vda", Path("backed.qcow2"), "qcow2"), "backing file"},
        {DiskXml("vda", Path("data.qcow2"), "qcow2"), "/etc/passwd"},
        {DiskXml("vda", Path("missing.raw"), "raw"), "there is no such file"},
        {DiskXml("vda", "/etc/passwd", "raw"), "it is outside the image folders"},
        {DiskXml("vda", qcow2, "raw"), "The disk 'vda' has the format 'raw' in its definition, and its image '"},
        {DiskXml("vda", Path("old.raw"), "qcow2"), "has the format 'raw'. Correct the definition"},
        {DiskXml("vda", Path("old.raw"), "vpc"), "The disk 'vda' has the format 'vpc' in its definition"},
        {DiskXml("vda", qcow2, "qcow2", "<backingStore type='file'><source file='/b'/></backingStore>"),
         "The disk 'vda' has a backing image. Merge both"},
        {"<disk>" + source + "<dataStore type='file'/></source>" + target, "The disk 'vda' has its data in another"},
        {"<disk>" + source + "<slices><slice type='storage' offset='1'/></slices></source>" + target,
         "The disk 'vda' is a part of its image"},
        {"<disk type='block'><source dev='/dev/sda'/>" + target, "The disk 'vda' has the type 'block'"},
        {DiskXml("vda", qcow2, "qcow2") + DiskXml("vda", qcow2, "qcow2"), "Two disks have the target 'vda'"}}) {
    ExpectNotImported(RequestOf(devices), 401, words);
  }
  ImportRequest broken = RequestOf("");
  broken.xml = "<domain>";
  ExpectNotImported(broken, 401, "The XML is malformed");
}

TEST_F(CopiedImportTest, Import_PlaceOrNameUnusable_IsRefused) {
  const std::string devices = DiskXml("vda", Path("old.raw"), "raw");
  ImportRequest request = RequestOf(devices);
  request.repository_id = kUnknownId;
  ExpectNotImported(request, 403, std::string("There is no repository '") + kUnknownId + "'");
  request = RequestOf(devices);
  request.host_id = kUnknownId;
  ExpectNotImported(request, 403, std::string("There is no host '") + kUnknownId + "'");
  request = RequestOf(devices);
  request.expected_id = kUnknownId;
  ExpectNotImported(request, 401, "and the manifest has '");
  ExpectNotImported(RequestOf(devices, "web"), 902, "The name 'web' belongs to the guest");
  options_.image_roots.clear();
  ExpectNotImported(RequestOf(devices), 949, "has no folder here");
}

TEST_F(CopiedImportTest, Import_DryRun_ChangesNothing) {
  const auto done = Import(RequestOf(DiskXml("vda", Path("old.raw"), "raw")), {.mode = guests::ImportMode::kCheck});
  ASSERT_TRUE(done.ok()) << done.error().reason;
  EXPECT_EQ(imported_.records["disks"][0]["object"]["size"], 3);
  ExpectUnchanged();
}

TEST_F(CopiedImportTest, Import_DryRunOrNoDisks_ChecksHostAndRepository) {
  ImportRequest request = RequestOf(DiskXml("vda", Path("old.raw"), "raw"));
  request.host_id = kUnknownId;
  const auto checked = Import(request, {.mode = guests::ImportMode::kCheck});
  ASSERT_FALSE(checked.ok());
  EXPECT_EQ(checked.error().code, 403);
  request = RequestOf("");
  request.repository_id = kUnknownId;
  ExpectNotImported(request, 403, std::string("There is no repository '") + kUnknownId + "'");
}

TEST_F(CopiedImportTest, Import_CopyFails_LeavesNothing) {
  CopyWith("echo 'qemu-img: error while writing: No space left on device' >&2; exit 1");
  const ImportRequest request = RequestOf(DiskXml("vda", Path("old.raw"), "raw"));
  ExpectNotImported(request, 901, "No space left on device");
  CopyWith("exec sleep 600");
  options_.is_stopping = [] { return true; };
  ExpectNotImported(request, 949, "the host is stopping");
}

// qemu-io opens images as a machine does.
TEST_F(CopiedImportTest, Import_MachineUsesImage_IsRefused) {
  if (::access("/usr/bin/qemu-io", X_OK) != 0) GTEST_SKIP() << "qemu-io is not installed";
  const Process machine({.argv = {"/usr/bin/qemu-io", "-f", "raw", "-c", "sleep 600000", Path("old.raw")}});
  const auto is_free = [&] {
    return RunProcess({.argv = {kQemuImg, "info", "-f", "raw", Path("old.raw")}}).exit_code == 0;
  };
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (is_free() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ExpectNotImported(RequestOf(DiskXml("vda", Path("old.raw"), "raw")), 901,
                    "could not be copied: a machine uses it. Shut that machine down first");
}

TEST_F(CopiedImportTest, Import_StoreFailsAtAnyCommit_IsUndoneAtTheNextStart) {
  for (const char* step : {"commit making", "make 0", "copy 0", "sync done 0", "commit records"}) {
    SCOPED_TRACE(step);
    At(step, [&] { store_->FailCommits(); });
    EXPECT_FALSE(Import(RequestOf(DiskXml("vda", Path("old.raw"), "raw"))).ok());
    store_->Heal();
    Creations(environment_.Options(store_)).FinishAll();
    ExpectUnchanged();
  }
}

// Another host has settled the job, because an administrator has removed this one from the cluster.
TEST_F(CopiedImportTest, Import_JobRemovedMeanwhile_IsRefused) {
  // Its progress is stored after that, and is not kept.
  At("copy 0", [&] {
    RemoveKey(*store_, "/creation/" + std::string(kCreated));
    RemoveKey(*store_, KeyOf("guest", kCreated));
  });
  ExpectNotImported(RequestOf(DiskXml("vda", Path("old.raw"), "raw")), 901,
                    "The record of the guest's import was changed");
}

// An administrator removes the host that the guest is for. Another one copies.
TEST_F(CopiedImportTest, Import_GuestsHostRemovedMeanwhile_IsUndone) {
  for (const char* step : {"copy 0", "commit records"}) {
    SCOPED_TRACE(step);
    PutRecord(*store_, KeyOf("host", kOtherHost), Parsed(R"({"name":"nas-2"})"));
    ImportRequest request = RequestOf(DiskXml("vda", Path("old.raw"), "raw"));
    request.host_id = kOtherHost;
    At(step, [&] {
      Json::Value guest = Guest();
      guest.removeMember("host_id");
      PutRecord(*store_, KeyOf("guest", kCreated), guest);
      RemoveKey(*store_, KeyOf("host", kOtherHost));
    });
    ExpectNotImported(request, 403, std::string("There is no host '") + kOtherHost + "'");
  }
}

// The guest was imported again, by another host, after an administrator had removed this one from the cluster.
TEST_F(CopiedImportTest, Import_JobOfAnotherHostMeanwhile_LeavesItsRecords) {
  const std::string job = "/creation/" + std::string(kCreated);
  At("copy 0", [&] {
    Json::Value others = Parsed(*TextOf(*store_, job));
    others["host_id"] = kOtherHost;
    PutRecord(*store_, job, others);
    PutRecord(*store_, KeyOf("guest", kCreated), Parsed(R"({"name":"theirs","state":"guest_importing"})"));
  });
  const auto done = Import(RequestOf(DiskXml("vda", Path("old.raw"), "raw")));
  ASSERT_FALSE(done.ok());
  EXPECT_THAT(done.error().reason, HasSubstr("The record of the guest's import was changed"));
  EXPECT_EQ(Guest()["name"], "theirs");
  EXPECT_EQ(Parsed(*TextOf(*store_, job))["host_id"], kOtherHost);
  EXPECT_EQ(environment_.Images(), images_);
}

TEST_F(CopiedImportTest, Import_TargetWithLineFeed_IsQuotedInOneLine) {
  const auto done = Import(RequestOf(DiskXml("v&#10;da", Path("old.raw"), "qcow2")));
  ASSERT_FALSE(done.ok());
  EXPECT_THAT(done.error().reason, HasSubstr("has the format 'qcow2' in its definition"));
  for (const char c : done.error().reason) EXPECT_GE(static_cast<unsigned char>(c), 0x20);
}

TEST_F(CopiedImportTest, Import_WithoutDisks_IsOneCommit) {
  ASSERT_TRUE(Import(RequestOf("")).ok());
  EXPECT_EQ(Guest()["state"], "guest_shutdown");
}

// Not in the fixture's process: this one must not have the store open.
TEST(CopiedImportKill, Import_KilledAtAnyStep_IsUndoneOrDone) {
  if (::access(kQemuImg, X_OK) != 0) GTEST_SKIP() << "qemu-img is not installed";
  int completed = 0;
  for (int step = 0; completed == 0; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    ASSERT_LT(step, 100);
    const CreationEnvironment environment;
    environment.Fill(*environment.OpenStore());
    const std::string old = environment.File("images/old.raw");
    std::ofstream(old, std::ios::binary) << Content();
    const std::size_t images = environment.Images().size();
    const End end = RunUntil(environment, step, [&](guests::CreationOptions options) {
      ImportedGuest imported;
      return Creations(std::move(options))
          .Import(RequestOf(DiskXml("vda", old, "raw") + DiskXml("vdb", old, "raw")), {}, Alice(), imported)
          .ok();
    });
    ASSERT_NE(end, End::kFailed);
    if (end == End::kCompleted) ++completed;
    FinishKilledAtEachStep(environment);
    const auto store = environment.OpenStore();
    const Json::Value guest = RecordOf(*store, "guest", kCreated);
    EXPECT_EQ(environment.Images().size(), guest.isNull() ? images : images + 2);
    EXPECT_EQ(guest["state"], guest.isNull() ? Json::Value() : Json::Value("guest_shutdown"));
    for (const auto& [key, text] : Everything(*store)) EXPECT_FALSE(key.starts_with("/creation/")) << key << text;
  }
}

}  // namespace
}  // namespace vexa::test
