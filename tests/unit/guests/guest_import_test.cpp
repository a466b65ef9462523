// Imports on a real store: what is written, what is refused, and what others do at the same time.
#include "host/guests/import/guest_import.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <latch>
#include <thread>
#include <vector>

#include "host/records/domain_record.h"
#include "host/records/keys.h"
#include "host/records/live_state.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/qcow2_image.h"
#include "tests/support/racing_store.h"
#include "tests/support/record_test.h"

namespace vexa::guests {
namespace {

using records::kRecordExists;
using records::kRecordFailed;
using test::CountAccepted;

constexpr char kFirst[] = "11111111-2222-4333-8444-555555555551";
constexpr char kSecond[] = "11111111-2222-4333-8444-555555555552";
constexpr char kHost[] = "11111111-2222-4333-8444-55555555555a";

std::string Domain(const std::string& id, const std::string& name, const std::string& devices = "") {
  return "<domain><name>" + name + "</name><uuid>" + id + "</uuid><memory unit='MiB'>64</memory><devices>" + devices +
         "</devices></domain>";
}

std::string Disk(const std::string& target) {
  return "<disk><source file='/no/such/" + target + "'/><target dev='" + target + "' bus='virtio'/></disk>";
}

ImportRequest RequestOf(const std::string& xml) {
  ImportRequest request;
  request.xml = xml;
  for (const char* disk : {"vda", "vdb"}) request.disk_sizes_mib[disk] = 1024;
  return request;
}

records::Observation Observed(const std::string& state, std::uint64_t counter, const std::string& host = "a") {
  return {state, {1, counter}, host, std::chrono::system_clock::time_point(std::chrono::seconds(1'800'000'000))};
}

class GuestImports : public test::RecordTest {
 protected:
  Result<void, Refusal> ImportInto(store::Store& store, const ImportRequest& request,
                                   GuestImport::Options options = {}) {
    return GuestImport(store, std::move(options)).Import(request, imported_);
  }
  Result<void, Refusal> Import(const ImportRequest& request, OnExisting on_existing = OnExisting::kRefuse) {
    return ImportInto(host_.store(), request, {.on_existing = on_existing});
  }
  Result<void, Refusal> Replace(const std::string& xml) { return Import(RequestOf(xml), OnExisting::kReplace); }
  void ExpectImported(const std::string& xml) {
    const auto refused = Import(RequestOf(xml));
    EXPECT_TRUE(refused.ok()) << refused.error().reason;
  }
  void ExpectReplaced(const std::string& xml) {
    const auto refused = Replace(xml);
    EXPECT_TRUE(refused.ok()) << refused.error().reason;
    EXPECT_TRUE(imported_.is_replacement);
  }
  Json::Value Record(const std::string& category, const std::string& id) {
    const std::string text = TextOf(records::ObjectKey(category, id));
    return text.empty() ? Json::Value() : Parsed(text);
  }
  std::vector<std::string> Ids(const std::string& category) {
    return Require(Require(host_.store().Read())->Children("/dash/" + category));
  }
  records::DomainRecord Definition() {
    const auto domain = Require(records::ReadDomain(*Require(host_.store().Read()), kFirst));
    return domain ? domain->domain : records::DomainRecord();
  }
  void Report(const std::string& state, std::uint64_t counter, const std::string& host = "a") {
    ASSERT_EQ(Require(records::Observe(host_.store(), kFirst, Observed(state, counter, host))),
              records::ObserveResult::kStored);
  }

  ImportedGuest imported_;
};

TEST_F(GuestImports, Import_NewGuest_WritesDisksAndDefinition) {
  ImportRequest request = RequestOf(Domain(kFirst, "one", Disk("vda")) + "<!-- mine -->");
  request.autostart = true;
  const auto refused = Import(request);
  ASSERT_TRUE(refused.ok()) << refused.error().reason;
  EXPECT_EQ(imported_.id, kFirst);
  EXPECT_EQ(imported_.name, "one");
  EXPECT_FALSE(imported_.is_replacement);
  EXPECT_EQ(TextOf(records::GuestObjectKey(kFirst)), VexaVirtualization::json::ToText(imported_.records["guest"]));
  EXPECT_EQ(Record("guest", kFirst)["name"], "one");
  ASSERT_THAT(Ids("vdisk"), SizeIs(1));
  EXPECT_EQ(Record("vdisk", Ids("vdisk")[0])["size"], 1024);
  EXPECT_EQ(Definition().xml, request.xml);
  EXPECT_TRUE(Definition().autostart);
  EXPECT_EQ(TextOf(records::FileReferencesGuardKey()), "\"" + std::string(kFirst) + "\"");
}

// libvirt no longer starts it, so this system does. What a user has set since stays.
TEST_F(GuestImports, Import_GuestThatLibvirtStarted_GetsAutorun) {
  ImportRequest request = RequestOf(Domain(kFirst, "one"));
  request.autostart = true;
  EXPECT_TRUE(Import(request).ok());
  EXPECT_EQ(Record("guest", kFirst)["autorun"], 1);
  Json::Value record = Record("guest", kFirst);
  record["autorun"] = 0;
  host_.Put("guest", kFirst, record);
  EXPECT_TRUE(Import(request, OnExisting::kReplace).ok());
  EXPECT_EQ(Record("guest", kFirst)["autorun"], 0);
  ExpectImported(Domain(kSecond, "two"));
  EXPECT_EQ(Record("guest", kSecond)["autorun"], 0);
}

TEST_F(GuestImports, Import_DefinitionUnusable_IsRefusedWithSentence) {
  ImportRequest request;
  request.xml = Domain(kFirst, "one", Disk("vda"));
  ExpectRefused([&] { return Import(request); }, kBadDefinition,
                "The size of the disk 'vda' is unknown. Set it with --disk-size vda=GiB: There is no size of the image "
                "'/no/such/vda'");
  EXPECT_EQ(imported_.name, "");
  request = RequestOf(Domain(kFirst, "one"));
  request.expected_id = kSecond;
  ExpectRefused([&] { return Import(request); }, kBadDefinition,
                "<uuid> is '" + std::string(kFirst) + "' and the manifest has '" + kSecond + "'; correct one of them");
  EXPECT_EQ(imported_.name, "one");
}

TEST_F(GuestImports, Import_ImageSizes_OverrideGivenSizes) {
  ImportRequest request = RequestOf(Domain(kFirst, "one", Disk("vda") + Disk("vdb")));
  request.image_sizes["/no/such/vda"] = std::uint64_t{5} << 20;
  request.image_sizes["/no/such/vdb"] = std::nullopt;
  const auto refused = Import(request);
  ASSERT_TRUE(refused.ok()) << refused.error().reason;
  EXPECT_EQ(imported_.records["disks"][0]["object"]["size"], 5);
  EXPECT_EQ(imported_.records["disks"][1]["object"]["size"], 1024);
  const std::string notes = VexaVirtualization::json::ToText(imported_.records["notes"]);
  EXPECT_THAT(notes, HasSubstr("The image of the disk 'vda' has 5 MiB: the size given for it was not used."));
  EXPECT_THAT(notes, HasSubstr("The image of the disk 'vdb' could not be read: the size given for it was used."));
}

TEST_F(GuestImports, Import_ImageThatNamesOtherFiles_IsRefusedOnItsHost) {
  test::Qcow2Image image;
  image.backing_file = "/etc/shadow";
  const std::string path = host_.folder().File("image");
  std::ofstream(path, std::ios::binary) << image.Text();
  const auto request_for = [&](const std::string& format) {
    ImportRequest request = RequestOf(Domain(
        kFirst, "one",
        "<disk><driver type='" + format + "'/><source file='" + path + "'/><target dev='vda' bus='virtio'/></disk>"));
    request.host_id = kHost;
    return request;
  };
  GuestImport::Options options;
  options.own_host_id = kHost;
  ExpectRefused([&] { return ImportInto(host_.store(), request_for("qcow2"), options); }, kBadDefinition,
                "The image '" + path +
                    "' has the backing file '/etc/shadow', which QEMU would open as well. Merge both "
                    "into one image with 'qemu-img convert -O qcow2 OLD NEW'");
  EXPECT_THAT(Ids("guest"), SizeIs(0));
  // Another host's file of this path is another one.
  options.own_host_id = kSecond;
  EXPECT_TRUE(ImportInto(host_.store(), request_for("qcow2"), options).ok());
  // A raw image stays raw, whatever is in it.
  options.own_host_id = kHost;
  options.on_existing = OnExisting::kReplace;
  EXPECT_TRUE(ImportInto(host_.store(), request_for("raw"), options).ok());
  EXPECT_EQ(Record("vdisk", Ids("vdisk")[0])["driver"], "raw");
}

TEST_F(GuestImports, Import_StandaloneImage_Succeeds) {
  for (const std::uint32_t version : {2U, 3U}) {
    test::Qcow2Image image;
    image.version = version;
    const std::string path = host_.folder().File("image");
    std::ofstream(path, std::ios::binary) << image.Text();
    ImportRequest request = RequestOf(
        Domain(kFirst, "one",
               "<disk><driver type='qcow2'/><source file='" + path + "'/><target dev='vda' bus='virtio'/></disk>"));
    request.host_id = kHost;
    GuestImport::Options options;
    options.own_host_id = kHost;
    options.on_existing = OnExisting::kReplace;
    const auto refused = ImportInto(host_.store(), request, options);
    EXPECT_TRUE(refused.ok()) << version << ": " << refused.error().reason;
  }
}

TEST_F(GuestImports, Import_DefinitionWithBackingImage_IsRefused) {
  ExpectRefused(
      [&] {
        return Import(RequestOf(Domain(kFirst, "one",
                                       "<disk><source file='/no/such/vda'/><backingStore type='file'><source "
                                       "file='/b'/></backingStore><target dev='vda'/></disk>")));
      },
      kBadDefinition,
      "The disk 'vda' has a backing image. Merge both into one image with 'qemu-img convert', and remove "
      "<backingStore>");
}

TEST_F(GuestImports, Import_NvramNotCreatedYet_IsOmitted) {
  ImportRequest request =
      RequestOf("<domain><name>one</name><uuid>" + std::string(kFirst) +
                "</uuid><memory unit='MiB'>64</memory><os><nvram>/vars/one.fd</nvram></os></domain>");
  request.has_variables = false;
  EXPECT_TRUE(Import(request).ok());
  EXPECT_FALSE(Record("guest", kFirst).isMember(records::kNvramMember));
  request.has_variables = true;
  EXPECT_TRUE(Import(request, OnExisting::kReplace).ok());
  EXPECT_EQ(Record("guest", kFirst)[records::kNvramMember], "/vars/one.fd");
}

TEST_F(GuestImports, Import_GuestExists_IsRefusedAndUnchanged) {
  ExpectImported(Domain(kFirst, "one"));
  ExpectRefused([&] { return Import(RequestOf(Domain(kFirst, "one"))); }, kRecordExists,
                "The guest '" + std::string(kFirst) + "' exists already: use --replace to replace it");
}

TEST_F(GuestImports, Replace_DropsDisksThatAreNoLongerUsed) {
  ExpectImported(Domain(kFirst, "one", Disk("vda") + Disk("vdb")));
  ASSERT_THAT(Ids("vdisk"), SizeIs(2));
  ExpectReplaced(Domain(kFirst, "renamed", Disk("vda")));
  EXPECT_THAT(Ids("vdisk"), SizeIs(1));
  EXPECT_EQ(Record("guest", kFirst)["name"], "renamed");
}

TEST_F(GuestImports, Replace_NewDefinition_IsUsedAndNvramKept) {
  ExpectImported(Domain(kFirst, "one"));
  host_.PutText("guest", kFirst, R"({"name":"one","nvram":"/vars/old.fd","pending":["vram_size"]})");
  ExpectReplaced(Domain(kFirst, "two"));
  EXPECT_EQ(Record("guest", kFirst)["nvram"], "/vars/old.fd");
  EXPECT_FALSE(Record("guest", kFirst).isMember("pending"));
  EXPECT_EQ(Definition().xml, Domain(kFirst, "two"));
}

TEST_F(GuestImports, Replace_DisksOfOtherGuests_AreKept) {
  host_.PutText("guest", kFirst, R"({"name":"one","vdisks":["theirs","lost","mine"],"vnics":["n"]})");
  host_.PutText("vdisk", "theirs", R"({"guest_id":"somebody"})");
  host_.PutText("vdisk", "mine", R"({"guest_id":")" + std::string(kFirst) + R"("})");
  host_.PutText("vnic", "n", R"({"guest_id":5})");
  ExpectReplaced(Domain(kFirst, "two"));
  EXPECT_THAT(Ids("vdisk"), ElementsAre("theirs"));
  EXPECT_THAT(Ids("vnic"), ElementsAre("n"));
}

TEST_F(GuestImports, Replace_GuestRunning_IsRefused) {
  const std::string running =
      "The guest '" + std::string(kFirst) + "' is in the state 'guest_running': shut it down before it is replaced";
  const auto replace = [&] { return Replace(Domain(kFirst, "one")); };
  host_.PutText("guest", kFirst, R"({"name":"one","state":"guest_running"})");
  ExpectRefused(replace, host_error::kAlreadyRunning, running);
  host_.PutText("guest", kFirst, R"({"name":"one","state":"guest_shutdown","host_id":"a"})");
  Report("guest_running", 1);
  ExpectRefused(replace, host_error::kAlreadyRunning, running);
  Report("guest_shutdown", 2);
  EXPECT_TRUE(replace().ok());
}

TEST_F(GuestImports, Replace_LiveStateShutDown_OverridesRecord) {
  host_.PutText("guest", kFirst, R"({"name":"one","state":"guest_running","host_id":"a"})");
  Report("guest_shutdown", 1);
  ExpectReplaced(Domain(kFirst, "one"));
}

TEST_F(GuestImports, Replace_LiveStateDamaged_IsRefused) {
  host_.PutText("guest", kFirst, R"({"name":"one","state":"guest_shutdown"})");
  for (const char* text : {"{", "7", "null", "{}", "\"\""}) {
    Put(records::LiveStateKey(kFirst), text);
    ExpectRefused([&] { return Replace(Domain(kFirst, "two")); }, kRecordFailed,
                  "The live state of the guest '" + std::string(kFirst) + "' cannot be read");
  }
}

TEST_F(GuestImports, Replace_SameHost_KeepsStateSequence) {
  ImportRequest request = RequestOf(Domain(kFirst, "one"));
  request.host_id = kHost;
  ASSERT_TRUE(Import(request).ok());
  Report("guest_shutdown", 5, kHost);
  ASSERT_TRUE(Import(request, OnExisting::kReplace).ok());
  EXPECT_EQ(TextOf(records::LiveStateKey(kFirst)), "\"guest_shutdown\"");
  EXPECT_EQ(*records::Observe(host_.store(), kFirst, Observed("guest_running", 4, kHost)),
            records::ObserveResult::kOutdated);
  EXPECT_EQ(*records::Observe(host_.store(), kFirst, Observed("guest_running", 6, kHost)),
            records::ObserveResult::kStored);
}

TEST_F(GuestImports, Replace_OtherHost_StartsWithoutLiveState) {
  host_.PutText("guest", kFirst, R"({"name":"one","host_id":"a"})");
  Report("guest_shutdown", 5);
  ImportRequest request = RequestOf(Domain(kFirst, "one"));
  request.host_id = kHost;
  ASSERT_TRUE(Import(request, OnExisting::kReplace).ok());
  EXPECT_EQ(TextOf(records::LiveStateKey(kFirst)), "");
  EXPECT_EQ(TextOf(records::LiveRecordKey(kFirst)), "");
  EXPECT_EQ(*records::Observe(host_.store(), kFirst, Observed("guest_running", 6)), records::ObserveResult::kNotOurs);
}

TEST_F(GuestImports, Import_LiveStateOfDeletedGuest_IsRemoved) {
  Put(records::LiveStateKey(kFirst), "\"guest_running\"");
  Put(records::LiveRecordKey(kFirst), R"({"host_id":"gone"})");
  ExpectImported(Domain(kFirst, "one"));
  EXPECT_EQ(TextOf(records::LiveStateKey(kFirst)), "");
  EXPECT_EQ(TextOf(records::LiveRecordKey(kFirst)), "");
}

TEST_F(GuestImports, Import_NameOfOtherGuest_IsRefused) {
  const std::string taken = "The name 'one' belongs to the guest '" + std::string(kSecond) + "': rename one of the two";
  const auto import = [&] { return Import(RequestOf(Domain(kFirst, "one"))); };
  for (const char* record : {R"({"name":"one"})", R"({"name":"\u006fne"})"}) {
    host_.PutText("guest", kSecond, record);
    ExpectRefused(import, kRecordExists, taken);
  }
  // A name beside the record goes before the record's.
  Put(store::MakeKey({"dash", "guest", kSecond, "name"}), "\"other\"");
  host_.PutText("guest", "damaged", R"({"name":"one")");
  EXPECT_TRUE(import().ok());
}

TEST_F(GuestImports, Replace_GuestHeldByHostOrJob_IsRefused) {
  host_.PutText("guest", kFirst, R"({"name":"one"})");
  struct Row {
    std::string key;
    int code;
    const char* words;
  };
  for (const auto& [key, code, words] :
       {Row{records::RunKey(kFirst), host_error::kAlreadyRunning, "runs on a host: power it off"},
        Row{records::DeletionKey(kFirst), kImportBusy, "is being deleted: wait until it is gone"},
        Row{records::EditKey(kFirst), kImportBusy, "is being edited: wait until that is done"}}) {
    Put(key, "{}");
    ExpectRefused([&] { return Replace(Domain(kFirst, "two")); }, code,
                  "The guest '" + std::string(kFirst) + "' " + words);
    Delete(key);
  }
  ExpectReplaced(Domain(kFirst, "two"));
}

TEST_F(GuestImports, Import_StoreFails_IsReported) {
  for (const ImportMode mode : {ImportMode::kWrite, ImportMode::kCheck}) {
    host_.store().FailSnapshots();
    const auto refused = ImportInto(host_.store(), RequestOf(Domain(kFirst, "one")), {.mode = mode});
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().code, kRecordFailed);
    host_.store().Heal();
  }
  host_.store().FailCommits();
  EXPECT_EQ(Import(RequestOf(Domain(kFirst, "one"))).error().code, kRecordFailed);
  host_.store().Heal();
  host_.store().ConflictCommits(3);
  ExpectImported(Domain(kFirst, "one"));
}

class ImportChecks : public GuestImports {
 protected:
  GuestImport Checking(OnExisting on_existing = OnExisting::kRefuse, std::map<std::string, std::string> planned = {}) {
    return GuestImport(host_.store(), {on_existing, ImportMode::kCheck, std::move(planned)});
  }
  Result<void, Refusal> Check(GuestImport& importer, const std::string& xml) {
    return importer.Import(RequestOf(xml), imported_);
  }
};

TEST_F(ImportChecks, Check_Guest_ReturnsRecordsAndWritesNothing) {
  const store::Revision before = Revision();
  GuestImport checking = Checking();
  EXPECT_TRUE(Check(checking, Domain(kFirst, "one", Disk("vda"))).ok());
  EXPECT_EQ(Revision(), before);
  EXPECT_EQ(imported_.records["guest"]["name"], "one");
  EXPECT_EQ(imported_.records["disks"][0]["object"]["size"], 1024);
  EXPECT_THAT(Ids("guest"), IsEmpty());
}

TEST_F(ImportChecks, Check_EarlierAcceptedGuests_CountAsWritten) {
  GuestImport checking = Checking();
  EXPECT_TRUE(Check(checking, Domain(kFirst, "one")).ok());
  EXPECT_EQ(Check(checking, Domain(kFirst, "one")).error().code, kRecordExists);
  EXPECT_EQ(Check(checking, Domain(kSecond, "one")).error().reason,
            "The name 'one' belongs to the guest '" + std::string(kFirst) + "': rename one of the two");
  // As a later call sends them.
  GuestImport later = Checking(OnExisting::kRefuse, {{kFirst, "one"}});
  EXPECT_EQ(Check(later, Domain(kFirst, "two")).error().code, kRecordExists);
  EXPECT_EQ(Check(later, Domain(kSecond, "one")).error().code, kRecordExists);
}

TEST_F(ImportChecks, Check_NameFreedByReplacement_IsAvailable) {
  ExpectImported(Domain(kFirst, "one"));
  GuestImport checking = Checking(OnExisting::kReplace);
  EXPECT_TRUE(Check(checking, Domain(kFirst, "two")).ok());
  const auto refused = Check(checking, Domain(kSecond, "one"));
  EXPECT_TRUE(refused.ok()) << refused.error().reason;
}

class ImportsMeanwhile : public GuestImports {
 protected:
  ImportsMeanwhile() { host_.PutText("guest", kFirst, R"({"name":"one"})"); }

  // Calls `meanwhile` between the reads and the commit, as a concurrent writer.
  Result<void, Refusal> ReplaceWhile(std::function<void()> meanwhile) {
    test::RacingStore store(host_.store(), std::move(meanwhile));
    return ImportInto(store, RequestOf(Domain(kFirst, "two")), {.on_existing = OnExisting::kReplace});
  }
  void ExpectNotReplaced(std::function<void()> meanwhile, int code, const std::string& reason) {
    const auto refused = ReplaceWhile(std::move(meanwhile));
    ASSERT_FALSE(refused.ok()) << reason;
    EXPECT_EQ(refused.error().code, code);
    EXPECT_EQ(refused.error().reason, "The guest '" + std::string(kFirst) + "' " + reason);
    EXPECT_NE(Record("guest", kFirst)["name"], "two");
  }
};

TEST_F(ImportsMeanwhile, Replace_GuestEditedMeanwhile_IsRefused) {
  ExpectNotReplaced([&] { host_.PutText("guest", kFirst, R"({"name":"theirs"})"); }, kImportBusy,
                    "was changed meanwhile: import it again");
  EXPECT_EQ(Record("guest", kFirst)["name"], "theirs");
}

TEST_F(ImportsMeanwhile, Replace_GuestStartsMeanwhile_IsRefused) {
  ExpectNotReplaced([&] { Put(records::LiveStateKey(kFirst), "\"guest_running\""); }, host_error::kAlreadyRunning,
                    "is in the state 'guest_running': shut it down before it is replaced");
}

TEST_F(ImportsMeanwhile, Replace_GuestTakenMeanwhile_IsRefused) {
  ExpectNotReplaced([&] { Put(records::RunKey(kFirst), "{}"); }, host_error::kAlreadyRunning,
                    "runs on a host: power it off");
  Delete(records::RunKey(kFirst));
  ExpectNotReplaced([&] { Put(records::DeletionKey(kFirst), "{}"); }, kImportBusy,
                    "is being deleted: wait until it is gone");
  Delete(records::DeletionKey(kFirst));
  ExpectNotReplaced([&] { Put(records::EditKey(kFirst), "{}"); }, kImportBusy,
                    "is being edited: wait until that is done");
}

TEST_F(ImportsMeanwhile, Replace_DiskReassignedMeanwhile_IsKept) {
  host_.PutText("guest", kFirst, R"({"name":"one","vdisks":["d"]})");
  host_.PutText("vdisk", "d", R"({"guest_id":")" + std::string(kFirst) + R"("})");
  EXPECT_TRUE(ReplaceWhile([&] { host_.PutText("vdisk", "d", R"({"guest_id":"somebody"})"); }).ok());
  EXPECT_THAT(Ids("vdisk"), ElementsAre("d"));
}

TEST_F(ImportsMeanwhile, Import_SameGuestConcurrently_OneIsRefused) {
  test::RacingStore store(host_.store(), [&] { host_.PutText("guest", kSecond, R"({"name":"theirs"})"); });
  const auto refused = ImportInto(store, RequestOf(Domain(kSecond, "two", Disk("vda"))));
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, kRecordExists);
  EXPECT_EQ(Record("guest", kSecond)["name"], "theirs");
  EXPECT_THAT(Ids("vdisk"), IsEmpty());
}

// An edit that renames a guest commits the same key.
TEST_F(ImportsMeanwhile, Import_NameTakenMeanwhile_IsRefused) {
  test::RacingStore store(host_.store(), [&] {
    (void)Require(host_.store().Commit({{},
                                        {{records::GuestObjectKey(kFirst), R"({"name":"two"})"},
                                         {records::GuestNamesGuardKey(), "\"" + std::string(kFirst) + "\""}}}));
  });
  const auto refused = ImportInto(store, RequestOf(Domain(kSecond, "two")));
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().reason,
            "The name 'two' belongs to the guest '" + std::string(kFirst) + "': rename one of the two");
}

TEST_F(ImportsMeanwhile, Import_OtherNamesTakenMeanwhile_Succeeds) {
  test::RacingStore store(host_.store(), [&] { Put(records::GuestNamesGuardKey(), "\"x\""); });
  const auto refused = ImportInto(store, RequestOf(Domain(kSecond, "two")));
  EXPECT_TRUE(refused.ok()) << refused.error().reason;
  EXPECT_EQ(store.commits(), 2);
  EXPECT_EQ(TextOf(records::GuestNamesGuardKey()), "\"" + std::string(kSecond) + "\"");
}

TEST_F(ImportsMeanwhile, Import_EightConcurrent_OneNameOrEightNames) {
  constexpr int kThreads = 8;
  for (const bool is_one_name : {true, false}) {
    std::latch start(kThreads);
    std::vector<Result<void, Refusal>> results(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        const std::string number = std::to_string(i);
        const std::string id =
            (is_one_name ? "22222222" : "33333333") + std::string("-2222-4333-8444-55555555555") + number;
        ImportedGuest imported;
        GuestImport importer(host_.store(), {});
        start.arrive_and_wait();
        results[static_cast<std::size_t>(i)] =
            importer.Import(RequestOf(Domain(id, is_one_name ? "shared" : "own-" + number)), imported);
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(CountAccepted(results), is_one_name ? 1 : kThreads);
  }
  EXPECT_THAT(Ids("guest"), SizeIs(1 + 1 + kThreads));
}

}  // namespace
}  // namespace vexa::guests
