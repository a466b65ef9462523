// `vexa import` up to the store: arguments, manifests, domains of libvirt, and the transaction that is built.
#include "cli/import_command.h"

#include <gmock/gmock.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "host/base/json_parse.h"
#include "host/hypervisor/domain_list.h"
#include "tests/unit/cli/import_words.h"

namespace vexa::cli {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr const char* kUuid = "abcdef00-0000-4000-8000-000000000001";

std::string RefusalOf(const std::vector<std::string>& words) {
  const Result<ImportArguments> arguments = ParseImportArguments(words);
  return arguments.ok() ? "" : arguments.error().ToString();
}

TEST(ImportArguments, FilesAndEveryOption_AreTaken) {
  const Result<ImportArguments> arguments = ParseImportArguments(
      {"a.xml", "--replace", "--dry-run", "--disk-size", "vda=20", "--disk-size=vdb=1", "--network",
       std::string("lan=x=") + kUuid, "--repository-id", kUuid, "--host-id", kUuid, "--", "-b.xml"});
  ASSERT_TRUE(arguments.ok()) << arguments.error().ToString();
  EXPECT_THAT(arguments->files, ElementsAre("a.xml", "-b.xml"));
  EXPECT_EQ(arguments->on_existing, OnExisting::kReplace);
  EXPECT_EQ(arguments->mode, ImportMode::kDryRun);
  EXPECT_THAT(arguments->disk_sizes_mib, ElementsAre(Pair("vda", 20480), Pair("vdb", 1024)));
  EXPECT_THAT(arguments->networks, ElementsAre(Pair("lan=x", kUuid)));
  EXPECT_EQ(arguments->repository_id, kUuid);
  EXPECT_EQ(arguments->host_id, kUuid);
}

TEST(ImportArguments, OptionBeforeAFile_TakesOneValue) {
  const Result<ImportArguments> arguments =
      ParseImportArguments({"--disk-size", "vda=20", "a.xml", "--network", std::string("lan=") + kUuid, "b.xml"});
  ASSERT_TRUE(arguments.ok()) << arguments.error().ToString();
  EXPECT_THAT(arguments->files, ElementsAre("a.xml", "b.xml"));
}

TEST(ImportArguments, NothingSaid_RefusesExistingGuestsAndWrites) {
  const Result<ImportArguments> arguments = ParseImportArguments({"a.xml"});
  ASSERT_TRUE(arguments.ok());
  EXPECT_EQ(arguments->on_existing, OnExisting::kRefuse);
  EXPECT_EQ(arguments->mode, ImportMode::kWrite);
}

TEST(ImportArguments, AllOrManifest_IsTaken) {
  EXPECT_EQ(ParseImportArguments({"--all", "test:///default"})->uri, "test:///default");
  EXPECT_EQ(ParseImportArguments({"--manifest=m.json"})->manifest, "m.json");
}

TEST(ImportArguments, WrongOnes_AreRefusedWithASentence) {
  const std::string sources = "Say what to import: files, or --all URI, or --manifest FILE";
  const auto size = [](const std::string& text) {
    return "--disk-size says '" + text + "': give NAME=GiB, such as 'vda=20', with 1 to 2097151 GiB";
  };
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{}, sources},
      {{"--replace"}, sources},
      {{"a.xml", "--all", "test:///default"}, sources},
      {{"--all=test:///default", "--manifest=m"}, sources},
      {{""}, "A file name is empty: give the path of a domain XML file"},
      {{"a", "--disk-size", "vda"}, size("vda")},
      {{"--disk-size", "vda=", "a"}, size("vda=")},
      {{"--disk-size", "=1", "a"}, size("=1")},
      {{"--disk-size", "vda=0", "a"}, size("vda=0")},
      {{"--disk-size", "vda=-1", "a"}, size("vda=-1")},
      {{"--disk-size", "vda=1.5", "a"}, size("vda=1.5")},
      {{"--disk-size", "vda=2097152", "a"}, size("vda=2097152")},
      {{"--disk-size", "vda=18446744073709551617", "a"}, size("vda=18446744073709551617")},
      {{"--network", "lan=1", "a"},
       "--network says 'lan=1': give NAME=UUID, the name of a network or bridge and its id"},
      {{"--host-id", "host", "a"}, "--host-id says 'host': give a UUID of the form 8-4-4-4-12"},
      {{"--manifest", "m", "--disk-size", "vda=1"},
       "--manifest takes ids, networks and disk sizes from the file: leave the other options out"},
  };
  for (const auto& [words, sentence] : rows) EXPECT_EQ(RefusalOf(words), sentence);
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"--force", "a"}, {"-r", "a"}, {"--all"}, {"a", "--disk-size"}}) {
    EXPECT_NE(RefusalOf(words), "");
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

TEST_F(Manifest, Guests_HaveTheirOwnOptionsAndTheCommonOnes) {
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

TEST_F(Manifest, WrongMembers_AreRefusedWithASentence) {
  const std::string range = " that is no whole number of 1 to 2097151 GiB";
  const std::pair<std::string, std::string> rows[] = {
      {"[]", "The manifest's root is no object"},
      {"{}", "The manifest's root has no 'guests': give an array of objects with a 'file' each"},
      {R"({"guests": {}})", "The manifest's root has no 'guests': give an array of objects with a 'file' each"},
      {R"({"guest": []})", "The manifest's root has the unknown member 'guest': remove it"},
      {R"({"guests": [], "a\nb": 1})", "The manifest's root has the unknown member 'a\\nb': remove it"},
      {R"({"guests": [], "host_id": 1})", "The manifest's root has a 'host_id' that is no UUID"},
      {R"({"guests": [], "repository_id": ""})", "The manifest's root has a 'repository_id' that is no UUID"},
      {R"({"guests": [], "networks": []})", "The manifest's 'networks' is no object of names and UUIDs"},
      {R"({"guests": [], "networks": {"lan": 5}})", "The manifest's 'networks' has a 'lan' that is no UUID"},
      {R"({"guests": [1]})", "The manifest's guest 1 is no object"},
      {R"({"guests": [{}]})", "The manifest's guest 1 has no 'file': give the path of a domain XML file"},
      {R"({"guests": [{"file": "a"}, {"file": 1}]})",
       "The manifest's guest 2 has no 'file': give the path of a domain XML file"},
      {R"({"guests": [{"file": "a", "id": "x"}]})", "The manifest's guest 1 has a 'id' that is no UUID"},
      {R"({"guests": [{"file": "a", "disk_sizes_gib": 1}]})",
       "The manifest's guest 1 has 'disk_sizes_gib' that is no object of disk names and numbers"},
      {R"({"guests": [{"file": "a", "disk_sizes_gib": {"vda": "20"}}]})",
       "The manifest's guest 1 has a size of the disk 'vda'" + range},
      {R"({"guests": [{"file": "a", "disk_sizes_gib": {"vda": 0}}]})",
       "The manifest's guest 1 has a size of the disk 'vda'" + range},
      {R"({"guests": [{"file": "a", "disk_sizes_gib": {"vda": -1}}]})",
       "The manifest's guest 1 has a size of the disk 'vda'" + range},
      {R"({"guests": [{"file": "a", "disk_sizes_gib": {"vda": 2097152}}]})",
       "The manifest's guest 1 has a size of the disk 'vda'" + range},
  };
  for (const auto& [text, sentence] : rows) EXPECT_EQ(RefusalOf(text), sentence) << text;
  EXPECT_THAT(RefusalOf("{"), HasSubstr("The manifest cannot be read"));
}

TEST_F(Manifest, Missing_IsNotFound) {
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
  hypervisor::ImportOptions options;
  options.disk_sizes_mib["vda"] = 1024;
  const auto guest = hypervisor::ParseDomainXml((*domains)[0].xml, options);
  ASSERT_TRUE(guest.ok()) << guest.error().ToString();
  EXPECT_EQ(guest->id, (*domains)[0].id);
  EXPECT_EQ(guest->guest["name"], "test");
  EXPECT_EQ(guest->guest["vcpu_num"], 2);
  EXPECT_EQ(guest->guest["vram_size"], 8192);
  EXPECT_THAT(guest->disks, SizeIs(1));
  EXPECT_THAT(guest->nics, SizeIs(1));
  EXPECT_TRUE((*connection)->DiskSize(guest->id, "/guest/diskimage1").ok());
}

TEST(Libvirt, SizeOfADiskThatTheDomainHasNot_IsUnavailable) {
  const auto connection = hypervisor::DomainConnection::Open("test:///default");
  ASSERT_TRUE(connection.ok());
  for (const char* id : {"6695eb01-f6a4-8304-79aa-97f2502e193f", kUuid, "x"}) {
    const auto size = (*connection)->DiskSize(id, "/etc/passwd");
    ASSERT_FALSE(size.ok());
    EXPECT_EQ(size.error().code(), ErrorCode::kUnavailable);
  }
}

TEST(Libvirt, WrongUri_IsASentenceAndNothingIsPrinted) {
  ::testing::internal::CaptureStderr();
  const auto connection = hypervisor::DomainConnection::Open("qemu+unix:///system?socket=/no/such/socket");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  ASSERT_FALSE(connection.ok());
  EXPECT_EQ(connection.error().code(), ErrorCode::kUnavailable);
  EXPECT_THAT(connection.error().ToString(),
              HasSubstr("Cannot connect to libvirt at 'qemu+unix:///system?socket=/no/such/socket': "));
  EXPECT_EQ(hypervisor::DomainConnection::Open("").error().code(), ErrorCode::kInvalid);
}

hypervisor::ImportedGuest TwoDisksOneNic() {
  hypervisor::ImportedGuest guest;
  guest.id = "g";
  guest.guest["name"] = "web ü";
  guest.guest["autorun"] = 0;
  for (const char* id : {"d1", "d2"}) {
    Json::Value disk(Json::objectValue);
    disk["name"] = id;
    guest.disks.emplace_back(id, disk);
    guest.guest["vdisks"].append(id);
  }
  guest.nics.emplace_back("n1", Json::Value(Json::objectValue));
  guest.guest["vnics"].append("n1");
  return guest;
}

// Key and text of every operation; "-" for a deletion.
std::vector<std::pair<std::string, std::string>> Operations(const store::Transaction& transaction) {
  std::vector<std::pair<std::string, std::string>> result;
  for (const store::Operation& operation : transaction.operations) {
    result.emplace_back(operation.key, operation.text.value_or("-"));
  }
  return result;
}

TEST(ImportTransaction, NewGuest_IsWrittenOnlyWhereNoneIs) {
  const store::Transaction transaction = MakeImportTransaction(TwoDisksOneNic(), {"<domain/>", true}, {});
  ASSERT_THAT(transaction.compares, SizeIs(6));
  EXPECT_EQ(transaction.compares[0].key, "/dash/guest/g/object");
  EXPECT_EQ(transaction.compares[0].revision, 0u);
  EXPECT_EQ(transaction.compares[1].key, "/dash/guest/g/state");
  EXPECT_EQ(transaction.compares[1].revision, 0u);
  EXPECT_EQ(transaction.compares[2].key, "/run/g");
  EXPECT_EQ(transaction.compares[3].key, "/deletion/g");
  EXPECT_EQ(transaction.compares[4].key, "/edit/g");
  EXPECT_EQ(transaction.compares[5].key, "/renames");
  EXPECT_THAT(
      Operations(transaction),
      ElementsAre(Pair("/dash/guest/g/object", R"({"autorun":0,"name":"web ü","vdisks":["d1","d2"],"vnics":["n1"]})"),
                  Pair("/dash/guest/g/domain", R"({"autostart":true,"xml":"<domain/>"})"), Pair("/files", R"("g")"),
                  Pair("/renames", R"("g")"), Pair("/dash/guest/g/state", "-"), Pair("/live/g", "-"),
                  Pair("/dash/vdisk/d1/object", R"({"name":"d1"})"), Pair("/dash/vdisk/d2/object", R"({"name":"d2"})"),
                  Pair("/dash/vnic/n1/object", "{}")));
}

TEST(ImportTransaction, Replace_DropsUnusedPartsAndKeepsMembersNotInXml) {
  StoredGuest stored;
  stored.revision = 7;
  stored.live_revision = 9;
  stored.renames_revision = 11;
  stored.record = *ParseJson(R"({"name":"old","autorun":1,"ha_group_id":"h","desc":"gone",
                                 "vdisks":["d2","d3","d3",5,"theirs"],"vnics":["n1","n2"]})");
  stored.parts = {{"/dash/vdisk/d2/object", 20},
                  {"/dash/vdisk/d3/object", 21},
                  {"/dash/vdisk/d3/object", 21},
                  {"/dash/vnic/n1/object", 22},
                  {"/dash/vnic/n2/object", 23}};
  const store::Transaction transaction = MakeImportTransaction(TwoDisksOneNic(), {"<domain/>", false}, stored);
  ASSERT_THAT(transaction.compares, SizeIs(8));
  EXPECT_EQ(transaction.compares[6].key, "/dash/vdisk/d3/object");
  EXPECT_EQ(transaction.compares[6].revision, 21u);
  EXPECT_EQ(transaction.compares[7].key, "/dash/vnic/n2/object");
  EXPECT_EQ(transaction.compares[7].revision, 23u);
  EXPECT_EQ(transaction.compares[0].revision, 7u);
  EXPECT_EQ(transaction.compares[1].revision, 9u);
  EXPECT_EQ(transaction.compares[5].revision, 11u);
  EXPECT_THAT(
      Operations(transaction),
      UnorderedElementsAre(
          Pair("/renames", R"("g")"), Pair("/files", R"("g")"),
          Pair("/dash/guest/g/domain", R"({"autostart":false,"xml":"<domain/>"})"),
          Pair("/dash/guest/g/object",
               R"({"autorun":1,"ha_group_id":"h","name":"web ü","vdisks":["d1","d2"],"vnics":["n1"]})"),
          Pair("/dash/vdisk/d1/object", R"({"name":"d1"})"), Pair("/dash/vdisk/d2/object", R"({"name":"d2"})"),
          Pair("/dash/vdisk/d3/object", "-"), Pair("/dash/vnic/n1/object", "{}"), Pair("/dash/vnic/n2/object", "-")));
}

TEST(ImportTransaction, StoredRecordOfOddTypes_DeletesNothing) {
  for (const char* text : {"null", "[]", "5", R"({"vdisks":{"a":1},"vnics":"n"})"}) {
    StoredGuest stored;
    stored.revision = 3;
    stored.record = *ParseJson(text);
    EXPECT_THAT(MakeImportTransaction(TwoDisksOneNic(), {"<domain/>", false}, stored).operations, SizeIs(7)) << text;
  }
}

}  // namespace
}  // namespace vexa::cli
