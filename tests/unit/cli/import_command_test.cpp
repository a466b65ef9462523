// The parts of `vexa import` before the server: arguments, manifests, and the domains of libvirt.
#include "cli/import_command.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "host/hypervisor/domain_list.h"
#include "tests/support/matchers.h"
#include "tests/unit/cli/import_arguments.h"

namespace vexa::cli {
namespace {

constexpr const char* kUuid = "abcdef00-0000-4000-8000-000000000001";

std::string RefusalOf(const std::vector<std::string>& arguments) {
  const Result<ImportArguments> parsed = ParseImportArguments(arguments);
  return parsed.ok() ? "" : parsed.error().ToString();
}

TEST(ImportArguments, Parse_FilesAndEveryOption_AreSet) {
  const Result<ImportArguments> arguments = ParseImportArguments(
      {"a.xml", "--replace", "--dry-run", "--disk-size", "vda=20", "--disk-size=vdb=1", "--network",
       std::string("lan=x=") + kUuid, "--repository-id", kUuid, "--host-id", kUuid, "--", "-b.xml"});
  ASSERT_TRUE(arguments.ok()) << arguments.error().ToString();
  EXPECT_THAT(arguments->files, ElementsAre("a.xml", "-b.xml"));
  EXPECT_EQ(arguments->on_existing, OnExisting::kReplace);
  EXPECT_EQ(arguments->mode, ImportMode::kDryRun);
  EXPECT_THAT(arguments->disk_sizes_mib, ElementsAre(Pair("vda", 20480), Pair("vdb", 1024)));
  EXPECT_THAT(arguments->networks, ElementsAre(Pair("lan=x", kUuid)));
  EXPECT_EQ(arguments->repository, kUuid);
  EXPECT_EQ(arguments->host, kUuid);
}

TEST(ImportArguments, OptionBeforeAFile_TakesOneValue) {
  const Result<ImportArguments> arguments =
      ParseImportArguments({"--disk-size", "vda=20", "a.xml", "--network", std::string("lan=") + kUuid, "b.xml"});
  ASSERT_TRUE(arguments.ok()) << arguments.error().ToString();
  EXPECT_THAT(arguments->files, ElementsAre("a.xml", "b.xml"));
}

TEST(ImportArguments, Parse_NoOptions_RefusesExistingAndWrites) {
  const Result<ImportArguments> arguments = ParseImportArguments({"a.xml"});
  ASSERT_TRUE(arguments.ok());
  EXPECT_EQ(arguments->on_existing, OnExisting::kRefuse);
  EXPECT_EQ(arguments->mode, ImportMode::kWrite);
}

TEST(ImportArguments, Parse_AllOrManifest_IsSet) {
  EXPECT_EQ(ParseImportArguments({"--all", "test:///default"})->uri, "test:///default");
  EXPECT_EQ(ParseImportArguments({"--manifest=m.json"})->manifest, "m.json");
}

TEST(ImportArguments, Parse_InvalidArguments_ReportReason) {
  const std::string sources = "Name one source of guests to import: files, --all URI or --manifest FILE";
  const auto size = [](const std::string& text) {
    return "'" + text + "' is not a value for --disk-size. Use NAME=GiB, such as 'vda=20', with 1 to 2097151 GiB";
  };
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{}, sources},
      {{"--replace"}, sources},
      {{"a.xml", "--all", "test:///default"}, sources},
      {{"--all=test:///default", "--manifest=m"}, sources},
      {{""}, "A file name is empty. Use the path of a domain XML file"},
      {{"a", "--disk-size", "vda"}, size("vda")},
      {{"--disk-size", "vda=", "a"}, size("vda=")},
      {{"--disk-size", "=1", "a"}, size("=1")},
      {{"--disk-size", "vda=0", "a"}, size("vda=0")},
      {{"--disk-size", "vda=-1", "a"}, size("vda=-1")},
      {{"--disk-size", "vda=1.5", "a"}, size("vda=1.5")},
      {{"--disk-size", "vda=2097152", "a"}, size("vda=2097152")},
      {{"--disk-size", "vda=18446744073709551617", "a"}, size("vda=18446744073709551617")},
      {{"--network", "lan=", "a"},
       "'lan=' is not a value for --network. Use NAME=NETWORK, a name in the definition and a network's id or name"},
      {{"--manifest", "m", "--disk-size", "vda=1"},
       "--manifest takes repositories, hosts, networks and disk sizes from the file. Leave out the other options"},
  };
  for (const auto& [arguments, sentence] : rows) EXPECT_EQ(RefusalOf(arguments), sentence);
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--force", "a"}, {"-r", "a"}, {"--all"}, {"a", "--disk-size"}}) {
    EXPECT_NE(RefusalOf(arguments), "");
  }
}

class Manifest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = ::testing::TempDir() + "vexa-manifest-XXXXXX";
    folder_ = ::mkdtemp(pattern.data());
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  Result<std::vector<ImportSource>> Read(const std::string& text) {
    std::ofstream(folder_ + "/manifest.json") << text;
    return ReadManifest(folder_ + "/manifest.json");
  }
  std::string RefusalOf(const std::string& text) {
    const auto sources = Read(text);
    return sources.ok() ? "" : sources.error().ToString();
  }

  std::string folder_;
};

TEST_F(Manifest, Read_OwnAndCommonOptions_AreMerged) {
  const auto sources = Read(R"({
    "repository_id": "ABCDEF00-0000-4000-8000-000000000001", "host_id": "abcdef00-0000-4000-8000-000000000002",
    "networks": {"lan": "abcdef00-0000-4000-8000-000000000003"},
    "guests": [{"file": "a.xml"},
               {"file": "/b.xml", "id": "ABCDEF00-0000-4000-8000-000000000004",
                "host_id": "abcdef00-0000-4000-8000-000000000005",
                "repository_id": "abcdef00-0000-4000-8000-000000000006", "disk_sizes_gib": {"vda": 2}}]})");
  ASSERT_TRUE(sources.ok()) << sources.error().ToString();
  ASSERT_THAT(*sources, SizeIs(2));
  const ImportSource& first = (*sources)[0];
  EXPECT_EQ(first.file, folder_ + "/a.xml");
  EXPECT_EQ(first.label, "a.xml");
  EXPECT_EQ(first.expected_id, "");
  EXPECT_EQ(first.options.repository_id, "abcdef00-0000-4000-8000-000000000001");
  EXPECT_EQ(first.options.host_id, "abcdef00-0000-4000-8000-000000000002");
  EXPECT_THAT(first.options.networks, ElementsAre(Pair("lan", "abcdef00-0000-4000-8000-000000000003")));
  EXPECT_TRUE(first.options.disk_sizes_mib.empty());
  const ImportSource& second = (*sources)[1];
  EXPECT_EQ(second.file, "/b.xml");
  EXPECT_EQ(second.expected_id, "abcdef00-0000-4000-8000-000000000004");
  EXPECT_EQ(second.options.host_id, "abcdef00-0000-4000-8000-000000000005");
  EXPECT_EQ(second.options.repository_id, "abcdef00-0000-4000-8000-000000000006");
  EXPECT_THAT(second.options.disk_sizes_mib, ElementsAre(Pair("vda", 2048)));
}

TEST_F(Manifest, Read_Names_AreKeptForTheServer) {
  const auto sources = Read(R"({"repository": "pool", "host": "nas-1", "networks": {"br0": "lan"},
    "guests": [{"file": "a.xml"}, {"file": "b.xml", "repository": "fast", "host": "nas-2"}]})");
  ASSERT_TRUE(sources.ok()) << sources.error().ToString();
  ASSERT_THAT(*sources, SizeIs(2));
  EXPECT_EQ((*sources)[0].options.repository_id, "pool");
  EXPECT_EQ((*sources)[0].options.host_id, "nas-1");
  EXPECT_THAT((*sources)[0].options.networks, ElementsAre(Pair("br0", "lan")));
  EXPECT_EQ((*sources)[1].options.repository_id, "fast");
  EXPECT_EQ((*sources)[1].options.host_id, "nas-2");
}

TEST_F(Manifest, Read_InvalidMembers_ReportReason) {
  const std::string range = " that is not a whole number from 1 to 2097151 GiB";
  const std::pair<std::string, std::string> rows[] = {
      {"[]", "The manifest's root is not an object"},
      {"{}", "The manifest's root has no 'guests'. List the guests there, as objects with a 'file' each"},
      {R"({"guests": {}})",
       "The manifest's root has no 'guests'. List the guests there, as objects with a 'file' each"},
      {R"({"guest": []})", "The manifest's root has the unknown member 'guest'. Remove it"},
      {R"({"guests": [], "a\nb": 1})", "The manifest's root has the unknown member 'a\\nb'. Remove it"},
      {R"({"guests": [], "host_id": 1})", "The manifest's root has a 'host_id' that is not a UUID"},
      {R"({"guests": [], "repository_id": ""})", "The manifest's root has a 'repository_id' that is not a UUID"},
      {R"({"guests": [], "networks": []})", "The manifest's 'networks' is not an object of names and networks"},
      {R"({"guests": [], "networks": {"lan": 5}})",
       "The manifest's 'networks' has a 'lan' that is neither an id nor a name"},
      {R"({"guests": [], "networks": {"lan": ""}})",
       "The manifest's 'networks' has a 'lan' that is neither an id nor a name"},
      {R"({"guests": [], "host": ""})", "The manifest's root has a 'host' that is neither an id nor a name"},
      {R"({"guests": [{"file": "a", "repository": 1}]})",
       "The manifest's guest 1 has a 'repository' that is neither an id nor a name"},
      {R"({"guests": [], "host": "nas-1", "host_id": "abcdef00-0000-4000-8000-000000000002"})",
       "The manifest's root has both 'host' and 'host_id'"},
      {R"({"guests": [1]})", "The manifest's guest 1 is not an object"},
      {R"({"guests": [{}]})", "The manifest's guest 1 has no 'file'. Name a domain XML file there"},
      {R"({"guests": [{"file": "a"}, {"file": 1}]})",
       "The manifest's guest 2 has no 'file'. Name a domain XML file there"},
      {R"({"guests": [{"file": "a", "id": "x"}]})", "The manifest's guest 1 has a 'id' that is not a UUID"},
      {R"({"guests": [{"file": "a", "disk_sizes_gib": 1}]})",
       "The manifest's guest 1 has a 'disk_sizes_gib' that is not an object of disk names and numbers"},
      {R"({"guests": [{"file": "a", "disk_sizes_gib": {"vda": "20"}}]})",
       "The manifest's guest 1 has a size for the disk 'vda'" + range},
      {R"({"guests": [{"file": "a", "disk_sizes_gib": {"vda": 0}}]})",
       "The manifest's guest 1 has a size for the disk 'vda'" + range},
      {R"({"guests": [{"file": "a", "disk_sizes_gib": {"vda": -1}}]})",
       "The manifest's guest 1 has a size for the disk 'vda'" + range},
      {R"({"guests": [{"file": "a", "disk_sizes_gib": {"vda": 2097152}}]})",
       "The manifest's guest 1 has a size for the disk 'vda'" + range},
  };
  for (const auto& [text, sentence] : rows) EXPECT_EQ(RefusalOf(text), sentence) << text;
  EXPECT_THAT(RefusalOf("{"), HasSubstr("Cannot read the manifest"));
}

TEST_F(Manifest, Read_FileMissing_IsNotFound) {
  const auto sources = ReadManifest(folder_ + "/none.json");
  ASSERT_FALSE(sources.ok());
  EXPECT_EQ(sources.error().code(), ErrorCode::kNotFound);
}

TEST(Libvirt, DefaultTestConnection_ListsADomainThatCanBeImported) {
  const auto connection = hypervisor::DomainConnection::Open("test:///default");
  ASSERT_TRUE(connection.ok()) << connection.error().ToString();
  const auto domains = (*connection)->List();
  ASSERT_TRUE(domains.ok()) << domains.error().ToString();
  ASSERT_THAT(*domains, SizeIs(1));
  EXPECT_EQ((*domains)[0].name, "test");
  domain_xml::ImportOptions options;
  options.disk_sizes_mib["vda"] = 1024;
  const auto guest = domain_xml::ParseDomainXml((*domains)[0].xml, options);
  ASSERT_TRUE(guest.ok()) << guest.error().ToString();
  EXPECT_EQ(guest->id, (*domains)[0].id);
  EXPECT_EQ(guest->guest["name"], "test");
  EXPECT_EQ(guest->guest["vcpu_num"], 2);
  EXPECT_EQ(guest->guest["vram_size"], 8192);
  EXPECT_THAT(guest->disks, SizeIs(1));
  EXPECT_THAT(guest->nics, SizeIs(1));
  EXPECT_TRUE((*connection)->DiskSize(guest->id, "/guest/diskimage1").ok());
}

TEST(Libvirt, DiskSize_NotADiskOfTheDomain_IsUnavailable) {
  const auto connection = hypervisor::DomainConnection::Open("test:///default");
  ASSERT_TRUE(connection.ok());
  for (const char* id : {"6695eb01-f6a4-8304-79aa-97f2502e193f", kUuid, "x"}) {
    const auto size = (*connection)->DiskSize(id, "/etc/passwd");
    ASSERT_FALSE(size.ok());
    EXPECT_EQ(size.error().code(), ErrorCode::kUnavailable);
  }
}

TEST(Libvirt, Open_InvalidUri_ReportsReasonAndPrintsNothing) {
  ::testing::internal::CaptureStderr();
  const auto connection = hypervisor::DomainConnection::Open("qemu+unix:///system?socket=/no/such/socket");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  ASSERT_FALSE(connection.ok());
  EXPECT_EQ(connection.error().code(), ErrorCode::kUnavailable);
  EXPECT_THAT(connection.error().ToString(),
              HasSubstr("Cannot connect to libvirt at 'qemu+unix:///system?socket=/no/such/socket': "));
  EXPECT_EQ(hypervisor::DomainConnection::Open("").error().code(), ErrorCode::kInvalid);
}

}  // namespace
}  // namespace vexa::cli
