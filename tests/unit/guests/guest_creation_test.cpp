// Guests that are created from nothing: what they get, what is refused, and what a failure leaves.
#include <sys/stat.h>

#include <cerrno>
#include <thread>

#include "host/base/guest_settings.h"
#include "host/cluster/grants.h"
#include "host/guests/creation/network_id.h"
#include "host/guests/creation/os_defaults.h"
#include "host/guests/deletion/deletion.h"
#include "host/guests/import/guest_import.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/network_record.h"
#include "tests/support/require.h"
#include "tests/unit/guests/guest_creation_fixture.h"

namespace vexa::test {
namespace {

using testing::HasSubstr;

constexpr std::int64_t kMib = 1024 * 1024;

TEST_F(CreationTest, Create_NameOnly_GetsAllSettings) {
  const auto created = Create(Named("fresh"));
  ASSERT_TRUE(created.ok()) << created.error().reason;
  EXPECT_EQ(*created,
            Parsed(R"({"guest_id":")" + std::string(kCreated) + R"(","name":"fresh","host_id":")" + kThisHost + "\"}"));
  const Json::Value guest = Guest();
  EXPECT_EQ(guest["state"], "guest_shutdown");
  EXPECT_EQ(guest["host_id"], kThisHost);
  EXPECT_EQ(guest["repository_id"], kRepository);
  EXPECT_EQ(guest["is_general_vm"], true);
  EXPECT_EQ(guest["vdisks"], Parsed("[]"));
  EXPECT_EQ(guest["vnics"], Parsed("[]"));
  for (const GuestSetting& setting : kGuestSettings) {
    if (!setting.IsScalar()) continue;
    EXPECT_TRUE(guest.isMember(setting.name)) << setting.name;
    EXPECT_TRUE(IsValidValue(setting, guest[setting.name])) << setting.name;
  }
  // Of the creation itself nothing is left.
  for (const auto& [key, text] : Everything(*store_)) {
    EXPECT_FALSE(key.starts_with("/creation") || key.starts_with("/request")) << key;
  }
  EXPECT_FALSE(guest.isMember("creation_request"));
}

TEST_F(CreationTest, Create_EveryOs_CanBeStarted) {
  int number = 0;
  for (const std::string_view os : guests::OsNames()) {
    SCOPED_TRACE(os);
    const std::string id = "5a0c6d1e-7b24-4f83-9d15-c2e8a7b3f61" + std::to_string(number++);
    ExpectDone(
        Named("of-" + std::string(os),
              R"(,"os":")" + std::string(os) + R"(","vdisks_add":[{"vdisk_size":1}],"vnics_add":[{"network_id":""}])"),
        id);
    domain_xml::GuestRecords records{id, Guest(id), {}, {}};
    for (const auto& disk : records.guest["vdisks"]) {
      records.disks.emplace_back(disk.asString(), RecordOf(*store_, "vdisk", disk.asString()));
    }
    for (const auto& nic : records.guest["vnics"]) {
      records.nics.emplace_back(nic.asString(), RecordOf(*store_, "vnic", nic.asString()));
    }
    ASSERT_EQ(records.disks.size(), 1u);
    ASSERT_EQ(records.nics.size(), 1u);
    const auto xml = domain_xml::BuildDomainXml(records, {});
    ASSERT_TRUE(xml) << xml.error().ToString();
    const bool is_linux = os == "linux";
    EXPECT_EQ(xml->find(R"(bus="virtio")") != std::string::npos, is_linux) << *xml;
    EXPECT_EQ(records.disks[0].second["vdisk_mode"], is_linux ? 1 : 3);
    EXPECT_EQ(records.nics[0].second["vnic_type"], is_linux ? 1 : 2);
    EXPECT_EQ(records.guest["use_ovmf"], os == "windows");
    EXPECT_EQ(records.guest["hyperv_enlighten"], os == "windows");
  }
}

TEST_F(CreationTest, Create_GivenSettings_WinOverDefaults) {
  ExpectDone(Named("own", R"(,"os":"windows","vcpu_num":4,"vram_size":2048,"use_ovmf":false,"cpu_passthru":false,)"
                          R"("desc":"mine","usbs":["1234:00ab"],"iso_images":[],)"
                          R"("vdisks_add":[{"vdisk_size":8,"vdisk_mode":4}])"));
  const Json::Value guest = Guest();
  EXPECT_EQ(guest["vcpu_num"], 4);
  EXPECT_EQ(guest["vram_size"], 2048);
  EXPECT_EQ(guest["use_ovmf"], false);
  // It needs the host's own processor.
  EXPECT_EQ(guest["hyperv_enlighten"], false);
  EXPECT_EQ(guest["desc"], "mine");
  EXPECT_EQ(guest["usbs"], Parsed(R"(["1234:00ab","unmounted","unmounted","unmounted"])"));
  EXPECT_EQ(guest["iso_images"], Parsed("[]"));
  EXPECT_EQ(RecordOf(*store_, "vdisk", guest["vdisks"][0].asString())["vdisk_mode"], 4);
}

TEST_F(CreationTest, Create_DisksAndInterfaces_HaveRecordsAndFiles) {
  ExpectDone(Named("full", std::string(kTwoDisks) + R"(,"vnics_add":[{"network_id":")" + kNetwork0 +
                               R"("},{"network_id":"","mac":"02:00:00:00:00:77","vnic_type":3}])"));
  const Json::Value guest = Guest();
  ASSERT_EQ(guest["vdisks"].size(), 2u);
  for (const auto& [index, mib, format] : {std::tuple(0u, 32, "qcow2"), std::tuple(1u, 64, "raw")}) {
    const Json::Value disk = RecordOf(*store_, "vdisk", guest["vdisks"][index].asString());
    EXPECT_EQ(disk["guest_id"], kCreated);
    EXPECT_EQ(disk["size"], mib);
    EXPECT_EQ(disk["driver"], format);
    EXPECT_EQ(environment_.Images().at(FileOf(disk)), mib * kMib);
    struct stat info {};
    ASSERT_EQ(::stat(disk["path"].asCString(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
  }
  ASSERT_EQ(guest["vnics"].size(), 2u);
  EXPECT_EQ(RecordOf(*store_, "vnic", guest["vnics"][0].asString())["network_name"], "br0");
  EXPECT_EQ(RecordOf(*store_, "vnic", guest["vnics"][1].asString())["mac_address"], "02:00:00:00:00:77");
  EXPECT_TRUE(guests::CheckNoUnfinishedJob(*store_, kCreated).ok());
}

// Otherwise the guest would be in the wrong network, depending on the ids.
TEST_F(CreationTest, NetworkId_NameOfNetworkAndHostsName_PrefersTheNetwork) {
  constexpr char kFirst[] = "00000000-0000-4000-8000-00000000000a";
  constexpr char kSecond[] = "00000000-0000-4000-8000-00000000000b";
  PutRecord(*store_, KeyOf("network", kFirst), Parsed(R"({"name":"lan","bridge_name":"br7"})"));
  PutRecord(*store_, KeyOf("network", kSecond), Parsed(R"({"name":"br7","bridge_name":"br8"})"));
  EXPECT_EQ(Require(guests::FindNetworkId(*Require(store_->Read()), "br7")), kSecond);
  EXPECT_EQ(Require(guests::FindNetworkId(*Require(store_->Read()), "br8")), kSecond);
  EXPECT_EQ(Require(guests::FindNetworkId(*Require(store_->Read()), "lan")), kFirst);
}

TEST_F(CreationTest, NetworkId_HostHasFoundIt_IsThatOfEdits) {
  EXPECT_EQ(Require(guests::FindNetworkId(*Require(store_->Read()), "br9")), std::nullopt);
  PutText(*store_, records::NetworkReportKey(kThisHost), R"({"found":[{"name":"br9","kind":"bridge"}]})");
  EXPECT_EQ(Require(guests::FindNetworkId(*Require(store_->Read()), "br9")), domain_xml::NetworkGroupId("br9"));
}

TEST_F(CreationTest, Create_WithoutHost_HasNone) {
  ExpectDone(R"({"name":"free","repository_id":")" + std::string(kRepository) + "\"}");
  EXPECT_EQ(Guest()["host_id"], "");
}

TEST_F(CreationTest, Create_BadParameters_AreRefused) {
  const std::string long_name(129, 'x');
  for (const auto& [parameters, words] :
       {std::pair<std::string, std::string>{R"({"repository_id":"r"})", "The parameter 'name' is missing"},
        {Named(""), "The parameter 'name' is not a string of 1 to 128 bytes"},
        {Named(long_name), "The parameter 'name' is not a string of 1 to 128 bytes"},
        {R"({"name":7,"repository_id":"r"})", "The parameter 'name' is not a string"},
        {Named("x", R"(,"os":"plan9")"), "The parameter 'os' is not one of linux, windows, other"},
        {Named("x", R"(,"os":1)"), "The parameter 'os' is not one of linux, windows, other"},
        {R"({"name":"x"})", "The parameter 'repository_id' is not the id of a repository"},
        {R"({"name":"x","repository_id":1})", "The parameter 'repository_id' is not the id of a repository"},
        {R"({"name":"x","repository_id":"r","host_id":[]})", "The parameter 'host_id' is not the id of a host"},
        {Named("x", R"(,"vcpu_num":0)"), "The parameter 'vcpu_num' is not a number from 1 to 512"},
        {Named("x", R"(,"vcpu_num":513)"), "The parameter 'vcpu_num' is not a number from 1 to 512"},
        {Named("x", R"(,"vcpu_num":"2")"), "The parameter 'vcpu_num' is not a number from 1 to 512"},
        {Named("x", R"(,"cpu_pin_num":2)"), "The parameter 'cpu_pin_num' is more than the guest's virtual CPUs"},
        {Named("x", R"(,"vdisks_add":{})"), "The parameter 'vdisks_add' is not a list"},
        {Named("x", R"(,"vdisks_add":[1])"), "The parameter 'vdisks_add[0]' is not an object"},
        {Named("x", R"(,"vdisks_add":[{"vdisk_size":0}])"), "The parameter 'vdisks_add[0].vdisk_size' is not a number"},
        {Named("x", R"(,"vnics_add":[{"network_id":5}])"), "The parameter 'vnics_add[0].network_id' is not a UUID"},
        {Named("x", R"(,"grants":1)"), "The parameter 'grants' is not a list of at most 256 users and groups"},
        {Named("x", R"(,"grants":[{"kind":"robot","id":1,"seen":1}])"), "The parameter 'grants[0]' is not a user or"},
        {Named("x", R"(,"grants":[{"kind":"user","id":-1,"seen":1}])"), "The parameter 'grants[0]' is not a user or"},
        {Named("x", R"(,"request_id":"a b","owner":"1","digest":"d")"), "The parameter 'request_id' is not 1 to 64"},
        {Named("x", R"(,"request_id":"","owner":"1","digest":"d")"), "The parameter 'request_id' is not 1 to 64"},
        {Named("x", R"(,"request_id":"a")"), "The parameter 'owner' is not an account's id"},
        {Named("x", R"(,"request_id":"a","owner":"1")"), "The parameter 'digest' is not a digest"},
        {"[]", "The parameter '' is not an object"}}) {
    ExpectRefused(parameters, kBadEdit, words);
  }
  ExpectUnchanged();
}

TEST_F(CreationTest, Create_UnknownPlacesAndParts_AreRefused) {
  ExpectRefused(R"({"name":"x","repository_id":"nowhere"})", 403, "There is no repository 'nowhere'");
  ExpectRefused(R"({"name":"x","host_id":"nobody","repository_id":")" + std::string(kRepository) + "\"}", 403,
                "There is no host 'nobody'");
  ExpectRefused(Named("x", std::string(R"(,"vnics_add":[{"network_id":")") + kUnknownId + "\"}]"), 903,
                "There is no network");
  ExpectRefused(Named("x", R"(,"vnics_add":[{"network_id":"","mac":"02:00:00:00:00:03"}])"), 903,
                "Another guest has the MAC address");
  ExpectRefused(Named("x", std::string(R"(,"iso_images":[")") + kUnknownId + "\"]"), 932, "There is no image");
  ExpectRefused(Named("x", R"(,"vdisks_del":[{"vdisk_id":")" + std::string(kDisk0) + "\"}]"), 904,
                "The guest has no disk");
  std::string disks;
  for (int i = 0; i < 65; ++i) disks += std::string(i == 0 ? "" : ",") + R"({"vdisk_size":1})";
  ExpectRefused(Named("x", R"(,"vdisks_add":[)" + disks + "]"), 410, "A guest has at most 64 disks");
  ExpectUnchanged();
}

TEST_F(CreationTest, Create_NoDomainCouldBeBuilt_IsRefused) {
  std::string disks;
  for (int i = 0; i < 5; ++i) disks += std::string(i == 0 ? "" : ",") + R"({"vdisk_size":1,"vdisk_mode":2})";
  ExpectRefused(Named("x", R"(,"vdisks_add":[)" + disks + "]"), kBadEdit,
                "The guest could not be started: The guest has more than four disks on IDE");
  ExpectUnchanged();
}

TEST_F(CreationTest, Create_NameOfAnotherGuest_IsRefused) {
  ExpectRefused(Named("web", kTwoDisks), 902, "Another guest has the name 'web'");
  ExpectRefused(Named("web"), 902, "Another guest has the name 'web'");
  ExpectUnchanged();
}

TEST_F(CreationTest, Create_RepositoryOfOtherHost_IsRefused) {
  Json::Value repository(Json::objectValue);
  repository["host_id"] = kOtherHost;
  PutRecord(*store_, KeyOf("repository", kRepository), repository);
  Remember();
  ExpectRefused(Named("x", kTwoDisks), 912, "The guest's repository belongs to the host");
  ExpectUnchanged();
}

// Lists show it, nobody can take its name, and no other operation touches it.
TEST_F(CreationTest, Create_InProgress_ShowsGuestAndHoldsIt) {
  int looked = 0;
  At("make 0", [&] {
    ++looked;
    EXPECT_EQ(Guest()["state"], "guest_creating");
    EXPECT_EQ(Guest()["name"], "half");
    const auto job = guests::CheckNoUnfinishedJob(*store_, kCreated);
    ASSERT_FALSE(job.ok());
    EXPECT_THAT(job.error().reason, HasSubstr("The guest is being created or imported (started by 'alice' at "));
    const auto other = Creations(environment_.Options(store_)).Create(kCreatedToo, Parsed(Named("half")), Alice());
    ASSERT_FALSE(other.ok());
    EXPECT_EQ(other.error().code, 902);
    const auto edited = Edits(environment_.Options(store_)).Edit(kCreated, Parsed(R"({"desc":"x"})"), Alice());
    ASSERT_FALSE(edited.ok());
    EXPECT_EQ(edited.error().code, 915);
    EXPECT_THAT(edited.error().reason, HasSubstr("The guest is being created"));
    guests::DeletionOptions deletions;
    static_cast<guests::JobOptions&>(deletions) = environment_.Options(store_);
    const auto deleted = guests::Deletion(std::move(deletions)).Delete(kCreated, Alice());
    ASSERT_FALSE(deleted.ok());
    EXPECT_EQ(deleted.error().code, 915);
    guests::ImportRequest import;
    import.xml = "<domain type='kvm'><uuid>" + std::string(kCreated) +
                 "</uuid><name>other</name><memory>1048576</memory><vcpu>1</vcpu><os><type>hvm</type></os></domain>";
    import.repository_id = kRepository;
    import.host_id = kThisHost;
    guests::ImportedGuest imported;
    const auto replaced =
        guests::GuestImport(*store_, {.on_existing = guests::OnExisting::kReplace}).Import(import, imported);
    EXPECT_FALSE(replaced.ok());
  });
  ExpectDone(Named("half", kTwoDisks));
  EXPECT_EQ(looked, 1);
  EXPECT_EQ(Guest()["state"], "guest_shutdown");
}

TEST_F(CreationTest, Create_FileCannotBeMade_LeavesNothing) {
  for (const int code : {ENOSPC, EIO, EROFS}) {
    int made = 0;
    options_.file_calls.write = [&](int file, std::string_view bytes, std::uint64_t offset) {
      return ++made > 1 ? code : disks::WriteToFile(file, bytes, offset);
    };
    ExpectRefused(Named("x", R"(,"vdisks_add":[{"vdisk_size":32},{"vdisk_size":32}])"), 901, std::strerror(code));
    ExpectUnchanged();
  }
}

// Every commit, in turn, fails; so does everything after it until the host starts again.
TEST_F(CreationTest, Create_StoreFailsAtAnyCommit_IsUndoneAtTheNextStart) {
  for (const char* step : {"commit making", "make 0", "make 1", "sync done 0", "commit records"}) {
    SCOPED_TRACE(step);
    At(step, [&] { store_->FailCommits(); });
    const auto created = Create(Named("x", std::string(kTwoDisks) + Numbered("number-1")));
    EXPECT_FALSE(created.ok());
    store_->Heal();
    Creations(environment_.Options(store_)).FinishAll();
    RemoveKey(*store_, guests::RequestKey("1000", "number-1"));
    ExpectUnchanged();
  }
}

TEST_F(CreationTest, Create_Grants_AreInTheSameCommit) {
  ExpectDone(Named("granted", R"(,"grants":[{"kind":"user","id":1026,"name":"alice","seen":0},)"
                              R"({"kind":"user","id":1026,"name":"alice","seen":0},)"
                              R"({"kind":"group","id":100,"name":"staff","seen":0}])"));
  for (const auto kind : {records::AccountKind::kUser, records::AccountKind::kGroup}) {
    const auto record =
        Require(cluster::ReadGrants(*Require(store_->Read()), kind, kind == records::AccountKind::kUser ? 1026 : 100));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->guest_ids, std::vector<std::string>{kCreated});
  }
}

TEST_F(CreationTest, Create_GrantToAnotherName_IsRefusedAndUndone) {
  PutRecord(*store_, KeyOf("guest_admin", "users-1026"), Parsed(R"({"name":"bob","guests":{},"authlevel":"user"})"));
  Remember();
  ExpectRefused(Named("x", std::string(kTwoDisks) + R"(,"grants":[{"kind":"user","id":1026,"name":"alice","seen":0}])"),
                403, "The guest cannot be granted to 'alice': ");
  ExpectUnchanged();
}

TEST_F(CreationTest, Create_RepositoryRemovedMeanwhile_IsRefused) {
  At("commit making", [&] { RemoveKey(*store_, KeyOf("repository", kRepository)); });
  const auto created = Create(Named("x"));
  EXPECT_TRUE(created.ok());  // without files there is no such step
  At("commit records", [&] { RemoveKey(*store_, KeyOf("repository", kRepository)); });
  RemoveKey(*store_, KeyOf("guest", kCreated));
  ExpectDone(Named("x", kTwoDisks));
}

TEST_F(CreationTest, Create_EightCreators_OneGetsTheName) {
  std::vector<std::thread> creators;
  std::atomic<int> done = 0;
  std::atomic<int> taken = 0;
  for (int i = 0; i < 8; ++i) {
    creators.emplace_back([&, i] {
      const std::string id = "5a0c6d1e-7b24-4f83-9d15-c2e8a7b3f62" + std::to_string(i);
      const auto created = Create(Named("wanted", i % 2 == 0 ? kTwoDisks : ""), id);
      if (created.ok()) ++done;
      if (!created.ok() && created.error().code == 902) ++taken;
    });
  }
  for (std::thread& creator : creators) creator.join();
  EXPECT_EQ(done, 1);
  EXPECT_EQ(taken, 7);
  int guests = 0;
  for (const auto& [key, text] : Everything(*store_)) {
    if (key.starts_with("/dash/guest/") && text.find("\"wanted\"") != std::string::npos) ++guests;
    EXPECT_FALSE(key.starts_with("/creation/")) << key;
  }
  EXPECT_EQ(guests, 1);
}

// On the repository's host, and on any other while that one is gone.
TEST_F(CreationTest, Delete_NeverStarted_WorksOnEveryHost) {
  for (const char* host : {kThisHost, kOtherHost}) {
    SCOPED_TRACE(host);
    ExpectDone(Named("short", kTwoDisks));
    guests::DeletionOptions deletions;
    static_cast<guests::JobOptions&>(deletions) = environment_.Options(store_);
    deletions.host_id = host;
    const auto deleted = guests::Deletion(deletions).Delete(kCreated, Alice());
    EXPECT_TRUE(deleted.ok()) << deleted.error().reason;
    deletions.host_id = kThisHost;
    guests::Deletion(deletions).RemoveLeftovers();
    ExpectUnchanged();
  }
}

// Not in the fixture's process: this one must not have the store open.
TEST(CreationKill, Create_KilledAtAnyStep_IsUndoneOrDone) {
  int completed = 0;
  for (int step = 0; completed == 0; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    ASSERT_LT(step, 100);
    const CreationEnvironment environment;
    {
      const auto store = environment.OpenStore();
      environment.Fill(*store);
    }
    const End end = RunUntil(environment, step, [](guests::CreationOptions options) {
      return Creations(std::move(options))
          .Create(kCreated, Parsed(Named("x", std::string(kTwoDisks) + Numbered("number-1"))), Alice())
          .ok();
    });
    ASSERT_NE(end, End::kFailed);
    if (end == End::kCompleted) ++completed;
    FinishKilledAtEachStep(environment);
    const auto store = environment.OpenStore();
    const Json::Value guest = RecordOf(*store, "guest", kCreated);
    const Json::Value request = Parsed(TextOf(*store, guests::RequestKey("1000", "number-1")).value_or("{}"));
    if (guest.isNull()) {
      EXPECT_EQ(environment.Images().size(), 2u);  // those of the other guest
      EXPECT_NE(request["state"], "done");
      EXPECT_NE(request["state"], "doing");
    } else {
      EXPECT_EQ(guest["state"], "guest_shutdown");
      EXPECT_EQ(environment.Images().size(), 4u);
      EXPECT_EQ(request["state"], "done");
    }
    for (const auto& [key, text] : Everything(*store)) EXPECT_FALSE(key.starts_with("/creation/")) << key << text;
  }
}

}  // namespace
}  // namespace vexa::test
