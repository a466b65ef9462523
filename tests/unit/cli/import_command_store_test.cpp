// `vexa import` on a real store.
#include <gmock/gmock.h>
#include <stdlib.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli/import_command.h"
#include "host/base/json_parse.h"
#include "host/hypervisor/handles.h"
#include "host/records/live_state.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "tests/unit/cli/import_words.h"

namespace vexa::cli {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr const char* kFirst = "11111111-2222-4333-8444-555555555551";
constexpr const char* kSecond = "11111111-2222-4333-8444-555555555552";

std::string Domain(const std::string& id, const std::string& name, const std::string& disks = "") {
  return "<domain><name>" + name + "</name><uuid>" + id + "</uuid><memory unit='MiB'>64</memory><devices>" + disks +
         "</devices></domain>";
}

std::string Disk(const std::string& target) {
  return "<disk><source file='/no/such/image'/><target dev='" + target + "' bus='virtio'/></disk>";
}

class ImportOnStore : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = ::testing::TempDir() + "vexa-import-XXXXXX";
    folder_ = ::mkdtemp(pattern.data());
    store::LmdbOptions options;
    options.directory = folder_ + "/store";
    auto opened = store::OpenLmdbStore(options);
    ASSERT_TRUE(opened.ok()) << opened.error().ToString();
    store_ = std::move(*opened);
  }
  void TearDown() override {
    store_.reset();
    std::filesystem::remove_all(folder_);
  }

  std::string File(const std::string& name, const std::string& content) {
    std::ofstream(folder_ + "/" + name) << content;
    return folder_ + "/" + name;
  }

  Status Run(const std::vector<std::string>& words) {
    const Result<ImportArguments> arguments = ParseImportArguments(words);
    EXPECT_TRUE(arguments.ok()) << arguments.error().ToString();
    std::ostringstream out;
    std::ostringstream err;
    const Status status = RunImport(*arguments, *store_, out, err);
    out_ = out.str();
    err_ = err.str();
    return status;
  }

  Json::Value Record(const std::string& category, const std::string& id) {
    const auto snapshot = store_->Read();
    EXPECT_TRUE(snapshot.ok());
    const auto value = (*snapshot)->Get(store::MakeKey({"dash", category, id, "object"}));
    EXPECT_TRUE(value.ok());
    if (!value->has_value()) return Json::Value();
    const auto record = ParseJson((*value)->text);
    EXPECT_TRUE(record.ok());
    return *record;
  }

  std::vector<std::string> Ids(const std::string& category) {
    const auto snapshot = store_->Read();
    EXPECT_TRUE(snapshot.ok());
    return *(*snapshot)->Children("/dash/" + category);
  }

  store::Revision Revision() {
    const auto snapshot = store_->Read();
    EXPECT_TRUE(snapshot.ok());
    return (*snapshot)->revision();
  }

  void Put(const std::string& category, const std::string& id, const std::string& text) {
    ASSERT_TRUE(store_->Commit({{}, {{store::MakeKey({"dash", category, id, "object"}), text}}}).ok());
  }

  // "" when absent.
  std::string Text(const std::string& key) {
    const auto snapshot = store_->Read();
    EXPECT_TRUE(snapshot.ok());
    const auto value = (*snapshot)->Get(key);
    EXPECT_TRUE(value.ok());
    return value->has_value() ? std::string((*value)->text) : "";
  }

  static cluster::Observation Observed(const std::string& state, std::uint64_t counter, const std::string& host = "a") {
    return {state, {1, counter}, host, std::chrono::system_clock::time_point(std::chrono::seconds(1'800'000'000))};
  }

  // The host tells the state of the first guest.
  void Tell(const std::string& state, std::uint64_t counter, const std::string& host = "a") {
    const auto told = cluster::Observe(*store_, kFirst, Observed(state, counter, host));
    ASSERT_TRUE(told.ok()) << told.error().ToString();
    ASSERT_EQ(*told, cluster::Observed::kStored);
  }

  std::string folder_;
  std::shared_ptr<store::Store> store_;
  std::string out_;
  std::string err_;
};

TEST_F(ImportOnStore, Files_AreWrittenAndReported) {
  const std::string first = File("a.xml", Domain(kFirst, "one", Disk("vda")));
  const std::string second = File("b.xml", Domain(kSecond, "two"));
  ASSERT_TRUE(Run({first, second, "--disk-size", "vda=20"}).ok()) << err_;
  EXPECT_THAT(out_, StartsWith(first + ": imported 'one' (" + kFirst + "): 1 disk, 0 network interfaces\n"));
  EXPECT_THAT(out_, HasSubstr(second + ": imported 'two' (" + kSecond + "): 0 disks, 0 network interfaces\n"));
  EXPECT_THAT(out_, HasSubstr("  The guest has no video card: it gets one when a card is set.\n"));
  EXPECT_EQ(err_, "");
  const Json::Value guest = Record("guest", kFirst);
  EXPECT_EQ(guest["name"], "one");
  ASSERT_EQ(guest["vdisks"].size(), 1u);
  EXPECT_EQ(Record("vdisk", guest["vdisks"][0].asString())["size"], 20480);
}

TEST_F(ImportOnStore, OneBadFile_DoesNotKeepTheOthersBack) {
  const std::string good = File("a.xml", Domain(kFirst, "one"));
  const std::string bad = File("b.xml", Domain(kSecond, "two", Disk("vda")));
  const Status status = Run({bad, folder_ + "/none.xml", good});
  ASSERT_FALSE(status.ok());
  EXPECT_EQ(status.error().ToString(), "2 of 3 guests could not be imported");
  EXPECT_THAT(err_, HasSubstr(bad + ": The size of the disk 'vda' is not known"));
  EXPECT_THAT(err_, HasSubstr("none.xml: Cannot open"));
  EXPECT_EQ(Record("guest", kFirst)["name"], "one");
  EXPECT_THAT(Ids("guest"), SizeIs(1));
  EXPECT_THAT(Ids("vdisk"), IsEmpty());
}

TEST_F(ImportOnStore, Import_ExistingGuest_IsRefusedAndUnchanged) {
  const std::string file = File("a.xml", Domain(kFirst, "one"));
  ASSERT_TRUE(Run({file}).ok());
  const store::Revision before = Revision();
  ASSERT_FALSE(Run({file}).ok());
  EXPECT_EQ(err_, file + ": The guest '" + kFirst + "' exists already: use --replace to replace it\n");
  EXPECT_EQ(Revision(), before);
}

TEST_F(ImportOnStore, Replace_DropsDisksThatAreNoLongerUsed) {
  ASSERT_TRUE(
      Run({File("a.xml", Domain(kFirst, "one", Disk("vda") + Disk("vdb"))), "--disk-size=vda=1", "--disk-size=vdb=1"})
          .ok());
  ASSERT_THAT(Ids("vdisk"), SizeIs(2));
  ASSERT_TRUE(Run({File("a.xml", Domain(kFirst, "renamed", Disk("vda"))), "--disk-size=vda=2", "--replace"}).ok());
  EXPECT_THAT(out_, HasSubstr(": replaced 'renamed'"));
  ASSERT_THAT(Ids("vdisk"), SizeIs(1));
  EXPECT_EQ(Record("vdisk", Ids("vdisk")[0])["size"], 2048);
  EXPECT_EQ(Record("guest", kFirst)["name"], "renamed");
}

TEST_F(ImportOnStore, DefinitionAndFiles_AreHandedOver) {
  const std::string xml = Domain(kFirst, "one") + "<!-- mine -->";
  ASSERT_TRUE(Run({File("a.xml", xml)}).ok()) << err_;
  const auto snapshot = store_->Read();
  ASSERT_TRUE(snapshot.ok());
  const auto domain = guests::ReadDomain(**snapshot, kFirst);
  ASSERT_TRUE(domain.ok());
  ASSERT_TRUE(domain->has_value());
  EXPECT_EQ((*domain)->domain.xml, xml);
  EXPECT_FALSE((*domain)->domain.autostart);
  EXPECT_EQ(Text(guests::FilesKey()), "\"" + std::string(kFirst) + "\"");
}

TEST_F(ImportOnStore, Replace_TakesTheNewDefinitionAndKeepsTheVariables) {
  ASSERT_TRUE(Run({File("a.xml", Domain(kFirst, "one"))}).ok()) << err_;
  Put("guest", kFirst, R"({"name":"one","nvram":"/vars/old.fd","pending":["vram_size"]})");
  const std::string xml = Domain(kFirst, "two");
  ASSERT_TRUE(Run({File("a.xml", xml), "--replace"}).ok()) << err_;
  EXPECT_EQ(Record("guest", kFirst)["nvram"], "/vars/old.fd");
  EXPECT_FALSE(Record("guest", kFirst).isMember("pending"));
  const auto snapshot = store_->Read();
  EXPECT_EQ((**guests::ReadDomain(**snapshot, kFirst)).domain.xml, xml);
}

TEST_F(ImportOnStore, Replace_LeavesDisksOfOthersAlone) {
  Put("guest", kFirst, R"({"name":"one","vdisks":["theirs","lost","mine"],"vnics":["n"]})");
  Put("vdisk", "theirs", R"({"guest_id":"somebody"})");
  Put("vdisk", "mine", R"({"guest_id":")" + std::string(kFirst) + R"("})");
  Put("vnic", "n", R"({"guest_id":5})");
  ASSERT_TRUE(Run({File("a.xml", Domain(kFirst, "two")), "--replace"}).ok()) << err_;
  EXPECT_THAT(Ids("vdisk"), ElementsAre("theirs"));
  EXPECT_THAT(Ids("vnic"), ElementsAre("n"));
}

TEST_F(ImportOnStore, ReplaceOfARunningGuest_IsRefused) {
  Put("guest", kFirst, R"({"name":"one","state":"guest_running"})");
  ASSERT_FALSE(Run({File("a.xml", Domain(kFirst, "one")), "--replace"}).ok());
  EXPECT_THAT(err_, HasSubstr("is in the state 'guest_running': shut it down before it is replaced"));
  EXPECT_EQ(Record("guest", kFirst)["state"], "guest_running");
}

TEST_F(ImportOnStore, ReplaceOfAGuestThatRunsByItsLiveState_IsRefused) {
  Put("guest", kFirst, R"({"name":"one","state":"guest_shutdown","host_id":"a"})");
  const std::string file = File("a.xml", Domain(kFirst, "one"));
  Tell("guest_running", 1);
  const store::Revision before = Revision();
  for (const char* option : {"--replace", "--dry-run"}) {
    ASSERT_FALSE(Run({file, "--replace", option}).ok());
    EXPECT_THAT(err_, HasSubstr("is in the state 'guest_running': shut it down before it is replaced"));
  }
  EXPECT_EQ(Revision(), before);
  Tell("guest_shutdown", 2);
  EXPECT_TRUE(Run({file, "--replace"}).ok()) << err_;
}

TEST_F(ImportOnStore, LiveStateOfAShutDownGuest_GoesBeforeItsRecords) {
  Put("guest", kFirst, R"({"name":"one","state":"guest_running","host_id":"a"})");
  Tell("guest_shutdown", 1);
  EXPECT_TRUE(Run({File("a.xml", Domain(kFirst, "one")), "--replace"}).ok()) << err_;
}

TEST_F(ImportOnStore, Replace_LiveStateDamaged_IsRefused) {
  Put("guest", kFirst, R"({"name":"one","state":"guest_shutdown"})");
  for (const char* text : {"{", "7", "null", "{}", "\"\""}) {
    ASSERT_TRUE(store_->Commit({{}, {{cluster::LiveStateKey(kFirst), text}}}).ok());
    ASSERT_FALSE(Run({File("a.xml", Domain(kFirst, "two")), "--replace"}).ok()) << text;
    EXPECT_THAT(err_, HasSubstr("live state")) << text;
  }
  EXPECT_EQ(Record("guest", kFirst)["name"], "one");
}

TEST_F(ImportOnStore, ReplacedOnTheSameHost_OlderObservationsStayOlder) {
  constexpr const char* kHost = "11111111-2222-4333-8444-55555555555a";
  const std::string file = File("a.xml", Domain(kFirst, "one"));
  ASSERT_TRUE(Run({file, "--host-id", kHost}).ok()) << err_;
  Tell("guest_shutdown", 5, kHost);
  ASSERT_TRUE(Run({file, "--host-id", kHost, "--replace"}).ok()) << err_;
  EXPECT_EQ(Text(cluster::LiveStateKey(kFirst)), "\"guest_shutdown\"");
  EXPECT_EQ(*cluster::Observe(*store_, kFirst, Observed("guest_running", 4, kHost)), cluster::Observed::kOlder);
  EXPECT_EQ(*cluster::Observe(*store_, kFirst, Observed("guest_running", 6, kHost)), cluster::Observed::kStored);
}

TEST_F(ImportOnStore, ReplacedForAnotherHost_BeginsWithoutALiveState) {
  constexpr const char* kHost = "11111111-2222-4333-8444-55555555555a";
  Put("guest", kFirst, R"({"name":"one","host_id":"a"})");
  Tell("guest_shutdown", 5);
  ASSERT_TRUE(Run({File("a.xml", Domain(kFirst, "one")), "--host-id", kHost, "--replace"}).ok()) << err_;
  EXPECT_EQ(Text(cluster::LiveStateKey(kFirst)), "");
  EXPECT_EQ(Text(cluster::LiveRecordKey(kFirst)), "");
  EXPECT_EQ(*cluster::Observe(*store_, kFirst, Observed("guest_running", 6)), cluster::Observed::kNotOurs);
}

TEST_F(ImportOnStore, Import_LeftoverStateOfDeletedGuest_IsIgnored) {
  ASSERT_TRUE(store_
                  ->Commit({{},
                            {{cluster::LiveStateKey(kFirst), "\"guest_running\""},
                             {cluster::LiveRecordKey(kFirst), R"({"host_id":"gone"})"}}})
                  .ok());
  ASSERT_TRUE(Run({File("a.xml", Domain(kFirst, "one"))}).ok()) << err_;
  EXPECT_EQ(Text(cluster::LiveStateKey(kFirst)), "");
  EXPECT_EQ(Text(cluster::LiveRecordKey(kFirst)), "");
}

TEST_F(ImportOnStore, NameOfAnotherGuest_IsRefused) {
  Put("guest", kSecond, R"({"name":"one"})");
  const std::string file = File("a.xml", Domain(kFirst, "one"));
  for (const char* option : {"--dry-run", "--replace"}) {
    ASSERT_FALSE(Run({file, option}).ok());
    EXPECT_EQ(err_, file + ": The name 'one' belongs to the guest '" + kSecond + "': rename one of the two\n");
  }
  EXPECT_THAT(Ids("guest"), SizeIs(1));
}

TEST_F(ImportOnStore, SameNameInTwoFiles_RefusesTheSecond) {
  const std::string first = File("a.xml", Domain(kFirst, "one"));
  const std::string second = File("b.xml", Domain(kSecond, "one"));
  for (const char* option : {"--dry-run", "--replace"}) {
    ASSERT_FALSE(Run({first, second, option}).ok());
    EXPECT_EQ(err_, second + ": The name 'one' belongs to the guest '" + kFirst + "': rename one of the two\n");
  }
}

TEST_F(ImportOnStore, Replace_NameGivenUpByRename_CanBeReused) {
  ASSERT_TRUE(Run({File("a.xml", Domain(kFirst, "one"))}).ok());
  const std::string renamed = File("a.xml", Domain(kFirst, "two"));
  const std::string heir = File("b.xml", Domain(kSecond, "one"));
  ASSERT_TRUE(Run({renamed, heir, "--replace", "--dry-run"}).ok()) << err_;
  ASSERT_TRUE(Run({renamed, heir, "--replace"}).ok()) << err_;
}

TEST_F(ImportOnStore, DryRun_PrintsTheRecordsAndWritesNothing) {
  const store::Revision before = Revision();
  ASSERT_TRUE(Run({File("a.xml", Domain(kFirst, "one", Disk("vda"))), "--disk-size=vda=1", "--dry-run"}).ok());
  EXPECT_EQ(Revision(), before);
  const auto printed = ParseJson(out_);
  ASSERT_TRUE(printed.ok()) << out_;
  ASSERT_EQ(printed->size(), 1u);
  EXPECT_EQ((*printed)[0]["id"], kFirst);
  EXPECT_EQ((*printed)[0]["source"], folder_ + "/a.xml");
  EXPECT_EQ((*printed)[0]["guest"]["name"], "one");
  EXPECT_EQ((*printed)[0]["disks"][0]["object"]["size"], 1024);
}

TEST_F(ImportOnStore, DryRunWithTheSameGuestTwice_RefusesTheSecond) {
  const std::string file = File("a.xml", Domain(kFirst, "one"));
  ASSERT_FALSE(Run({file, file, "--dry-run"}).ok());
  EXPECT_THAT(err_, HasSubstr("exists already"));
}

TEST_F(ImportOnStore, ExamplesManifest_ImportsAllOfIt) {
  ASSERT_TRUE(Run({"--manifest", std::string(VEXA_SOURCE_DIR) + "/examples/cluster.json"}).ok()) << err_;
  EXPECT_THAT(Ids("guest"), SizeIs(3));
  EXPECT_THAT(Ids("vdisk"), SizeIs(4));
  EXPECT_THAT(Ids("vnic"), SizeIs(5));
  const Json::Value gateway = Record("guest", "7f20d8a4-e1b6-4905-9c3f-d24b86a05e17");
  EXPECT_EQ(gateway["host_id"], "e5c8107d-93af-4b26-8d41-7a60f2b9c358");
  EXPECT_EQ(Record("vnic", gateway["vnics"][1].asString())["network_group_id"], "a6d03c91-4be2-4f70-8c15-62d9e08f7b34");
  EXPECT_EQ(Record("vdisk", gateway["vdisks"][0].asString())["size"], 8192);
}

TEST_F(ImportOnStore, ManifestWithAnotherId_IsRefused) {
  File("a.xml", Domain(kFirst, "one"));
  const std::string manifest =
      File("m.json", R"({"guests": [{"file": "a.xml", "id": ")" + std::string(kSecond) + R"("}]})");
  ASSERT_FALSE(Run({"--manifest", manifest}).ok());
  EXPECT_THAT(err_, HasSubstr("the manifest says '" + std::string(kSecond) + "'; correct one of them"));
}

TEST_F(ImportOnStore, EveryDomainOfALibvirtConnection_IsImported) {
  ASSERT_TRUE(Run({"--all", "test:///default"}).ok()) << err_;
  EXPECT_THAT(
      out_, StartsWith("test: imported 'test' (6695eb01-f6a4-8304-79aa-97f2502e193f): 1 disk, 1 network interface\n"));
  EXPECT_EQ(Record("guest", "6695eb01-f6a4-8304-79aa-97f2502e193f")["vcpu_num"], 2);
  const auto snapshot = store_->Read();
  const auto domain = guests::ReadDomain(**snapshot, "6695eb01-f6a4-8304-79aa-97f2502e193f");
  ASSERT_TRUE(domain.ok() && domain->has_value());
  EXPECT_THAT((*domain)->domain.xml, StartsWith("<domain type='test'"));
}

// All connections to the driver's default machine in one process see the same one.
TEST_F(ImportOnStore, Import_AutostartedDomain_StoresAutostart) {
  const hypervisor::ConnectHandle connection(virConnectOpen("test:///default"));
  ASSERT_TRUE(connection);
  const hypervisor::DomainHandle domain(virDomainLookupByName(connection.get(), "test"));
  ASSERT_TRUE(domain);
  ASSERT_EQ(virDomainSetAutostart(domain.get(), 1), 0);
  ASSERT_TRUE(Run({"--all", "test:///default"}).ok()) << err_;
  const auto snapshot = store_->Read();
  const auto stored = guests::ReadDomain(**snapshot, "6695eb01-f6a4-8304-79aa-97f2502e193f");
  ASSERT_TRUE(stored.ok() && stored->has_value());
  EXPECT_TRUE((*stored)->domain.autostart);
  ASSERT_EQ(virDomainSetAutostart(domain.get(), 0), 0);
}

TEST_F(ImportOnStore, PasswordOfAScreen_IsAPartOfTheDefinition) {
  const hypervisor::ConnectHandle connection(virConnectOpen("test:///default"));
  ASSERT_TRUE(connection);
  const std::string xml =
      "<domain type='test'><name>screen</name><uuid>" + std::string(kFirst) +
      "</uuid><memory unit='MiB'>64</memory><os><type>hvm</type></os><devices><graphics type='vnc' port='5999' "
      "passwd='hush'/></devices></domain>";
  const hypervisor::DomainHandle domain(virDomainDefineXML(connection.get(), xml.c_str()));
  ASSERT_TRUE(domain);
  EXPECT_TRUE(Run({"--all", "test:///default"}).ok()) << err_;
  EXPECT_EQ(virDomainUndefine(domain.get()), 0);
  const auto snapshot = store_->Read();
  const auto stored = guests::ReadDomain(**snapshot, kFirst);
  ASSERT_TRUE(stored.ok() && stored->has_value());
  EXPECT_THAT((*stored)->domain.xml, HasSubstr("passwd='hush'"));
}

TEST_F(ImportOnStore, Import_ConnectionFails_IsAnError) {
  const Status status = Run({"--all", "qemu+unix:///system?socket=/no/such/socket"});
  ASSERT_FALSE(status.ok());
  EXPECT_EQ(status.error().code(), ErrorCode::kUnavailable);
}

// Between the look at the store and the commit somebody else writes the same guest.
class RacingStore : public store::Store {
 public:
  RacingStore(store::Store& base, std::string key, std::string text = R"({"name":"theirs"})")
      : base_(base), key_(std::move(key)), text_(std::move(text)) {}
  Result<std::unique_ptr<store::Snapshot>> Read() const override { return base_.Read(); }
  Result<store::Revision> Commit(const store::Transaction& transaction) override {
    EXPECT_TRUE(base_.Commit({{}, {{key_, text_}}}).ok());
    return base_.Commit(transaction);
  }
  Result<store::ChangeBatch> Watch(std::string_view prefix, store::Revision from,
                                   std::chrono::milliseconds timeout) override {
    return base_.Watch(prefix, from, timeout);
  }
  store::Health health() const override { return base_.health(); }

 private:
  store::Store& base_;
  std::string key_;
  std::string text_;
};

TEST_F(ImportOnStore, GuestThatStartsMeanwhile_IsNotReplaced) {
  Put("guest", kFirst, R"({"name":"one"})");
  RacingStore racing(*store_, cluster::LiveStateKey(kFirst), "\"guest_running\"");
  ImportArguments arguments;
  arguments.files = {File("a.xml", Domain(kFirst, "two"))};
  arguments.on_existing = OnExisting::kReplace;
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_FALSE(RunImport(arguments, racing, out, err).ok());
  EXPECT_THAT(err.str(), HasSubstr("was changed meanwhile: import it again"));
  EXPECT_EQ(Record("guest", kFirst)["name"], "one");
}

TEST_F(ImportOnStore, Import_GuestHeldByHost_IsNotReplaced) {
  Put("guest", kFirst, R"({"name":"one"})");
  const std::string file = File("a.xml", Domain(kFirst, "two"));
  for (const auto& [key, words] : {std::pair{guests::RunKey(kFirst), "runs on a host: power it off"},
                                   std::pair{guests::DeletionKey(kFirst), "is being deleted: wait until it is gone"},
                                   std::pair{guests::EditKey(kFirst), "is being edited: wait until that is done"}}) {
    SCOPED_TRACE(key);
    ASSERT_TRUE(store_->Commit({{}, {{key, "{}"}}}).ok());
    EXPECT_FALSE(Run({file, "--replace"}).ok());
    EXPECT_THAT(err_, HasSubstr(words));
    EXPECT_EQ(Record("guest", kFirst)["name"], "one");
    ASSERT_TRUE(store_->Commit({{}, {{key, std::nullopt}}}).ok());
  }
  EXPECT_TRUE(Run({file, "--replace"}).ok()) << err_;
}

TEST_F(ImportOnStore, Import_GuestTakenMeanwhile_IsNotReplaced) {
  Put("guest", kFirst, R"({"name":"one"})");
  ImportArguments arguments;
  arguments.files = {File("a.xml", Domain(kFirst, "two"))};
  arguments.on_existing = OnExisting::kReplace;
  for (const std::string& key : {guests::RunKey(kFirst), guests::DeletionKey(kFirst), guests::EditKey(kFirst)}) {
    SCOPED_TRACE(key);
    RacingStore racing(*store_, key, "{}");
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_FALSE(RunImport(arguments, racing, out, err).ok());
    EXPECT_THAT(err.str(), HasSubstr("was changed meanwhile: import it again"));
    EXPECT_EQ(Record("guest", kFirst)["name"], "one");
    ASSERT_TRUE(store_->Commit({{}, {{key, std::nullopt}}}).ok());
  }
}

TEST_F(ImportOnStore, Import_StoreChangedMeanwhile_ChangesNothing) {
  RacingStore racing(*store_, store::MakeKey({"dash", "guest", kFirst, "object"}));
  ImportArguments arguments;
  arguments.files = {File("a.xml", Domain(kFirst, "one", Disk("vda")))};
  arguments.disk_sizes_mib["vda"] = 1024;
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_FALSE(RunImport(arguments, racing, out, err).ok());
  EXPECT_THAT(err.str(), HasSubstr("was changed meanwhile: import it again"));
  EXPECT_EQ(Record("guest", kFirst)["name"], "theirs");
  EXPECT_THAT(Ids("vdisk"), IsEmpty());
}

TEST_F(ImportOnStore, Import_GuestHeldDeletedOrEdited_IsNotReplaced) {
  ImportArguments arguments;
  arguments.files = {File("a.xml", Domain(kFirst, "two"))};
  arguments.on_existing = OnExisting::kReplace;
  for (const auto& [key, said] :
       {std::pair{guests::RunKey(kFirst), "runs on a host"}, std::pair{guests::DeletionKey(kFirst), "is being deleted"},
        std::pair{guests::EditKey(kFirst), "is being edited"}}) {
    Put("guest", kFirst, R"({"name":"one"})");
    ASSERT_TRUE(store_->Commit({{}, {{key, "{}"}}}).ok());
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_FALSE(RunImport(arguments, *store_, out, err).ok());
    EXPECT_THAT(err.str(), HasSubstr(said));
    ASSERT_TRUE(store_->Commit({{}, {{key, std::nullopt}}}).ok());
    RacingStore racing(*store_, key, "{}");
    EXPECT_FALSE(RunImport(arguments, racing, out, err).ok());
    EXPECT_THAT(err.str(), HasSubstr("was changed meanwhile: import it again"));
    EXPECT_EQ(Record("guest", kFirst)["name"], "one");
    ASSERT_TRUE(store_->Commit({{}, {{key, std::nullopt}}}).ok());
  }
}

TEST_F(ImportOnStore, Replace_DiskMovedMeanwhile_IsNotDeleted) {
  Put("guest", kFirst, R"({"name":"one","vdisks":["d"]})");
  Put("vdisk", "d", R"({"guest_id":")" + std::string(kFirst) + R"("})");
  RacingStore racing(*store_, store::MakeKey({"dash", "vdisk", "d", "object"}), R"({"guest_id":"somebody"})");
  ImportArguments arguments;
  arguments.files = {File("a.xml", Domain(kFirst, "two"))};
  arguments.on_existing = OnExisting::kReplace;
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_FALSE(RunImport(arguments, racing, out, err).ok());
  EXPECT_THAT(err.str(), HasSubstr("was changed meanwhile: import it again"));
  EXPECT_THAT(Ids("vdisk"), ElementsAre("d"));
}

// Somebody renames another guest to the name that is imported, at the same time.
TEST_F(ImportOnStore, Import_GuestRenamedMeanwhile_OneOfTwoIsRefused) {
  RacingStore racing(*store_, guests::RenamesKey(), "\"x\"");
  ImportArguments arguments;
  arguments.files = {File("a.xml", Domain(kFirst, "one"))};
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_FALSE(RunImport(arguments, racing, out, err).ok());
  EXPECT_THAT(err.str(), HasSubstr("was changed meanwhile: import it again"));
  EXPECT_TRUE(RunImport(arguments, *store_, out, err).ok());
  EXPECT_EQ(Text(guests::RenamesKey()), "\"" + std::string(kFirst) + "\"");
}

}  // namespace
}  // namespace vexa::cli
