// vexa import against a real daemon: what is written, what a second import finds, and several imports at a time.
#include <map>

#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/support/test_daemon.h"
#include "tests/support/test_host.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;
using std::chrono::minutes;

constexpr int kPrograms = 8;

std::string IdOf(int number) { return "11111111-2222-4333-8444-5555" + std::to_string(10'000'000 + number); }

std::string Domain(const std::string& id, const std::string& name) {
  return "<domain><name>" + name + "</name><uuid>" + id + "</uuid><memory unit='MiB'>64</memory></domain>";
}

// A daemon whose store is not in its data folder: a command that opened one there by itself would make another.
class ImportOnDaemon : public CliTest {
 protected:
  // The guests go to the daemon's own host and its only repository.
  ImportOnDaemon() { EXPECT_EQ(Run({"--socket", daemon_.config().socket, "repository", "add", "pool"}).exit_code, 0); }
  static void Configure(daemon::Config& config) { config.store_directory = config.data_directory + "-store"; }

  ProcessOptions Importing(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"--socket", daemon_.config().socket, "import"});
    return Program(std::move(arguments));
  }
  ProcessResult Import(std::vector<std::string> arguments) const {
    return RunProcess(Importing(std::move(arguments)), minutes(5));
  }
  std::string File(const std::string& name, const std::string& content) const {
    WriteFile(folder_.File(name), content);
    return folder_.File(name);
  }
  // The guests with the numbers from `first` on, whose names begin with `name`.
  std::string Manifest(const std::string& name, int first, int count) const {
    Json::Value manifest(Json::objectValue);
    manifest["guests"] = Json::Value(Json::arrayValue);
    for (int i = first; i < first + count; ++i) {
      const std::string file = name + std::to_string(i) + ".xml";
      File(file, Domain(IdOf(i), name + std::to_string(i)));
      manifest["guests"].append(Json::Value(Json::objectValue))["file"] = file;
    }
    return File(name + ".json", json::ToText(manifest));
  }
  std::shared_ptr<store::Store> Store() const {
    store::LmdbOptions options;
    options.directory = daemon_.config().store_directory;
    return Require(store::OpenLmdbStore(options));
  }
  std::vector<std::string> Guests() const {
    std::vector<std::string> guests = Require(Require(Store()->Read())->Children("/dash/guest"));
    std::erase(guests, kTestGuest);
    return guests;
  }
  // The revision of each value, except for the host's own heartbeats.
  std::map<std::string, store::Revision> Revisions() const {
    const auto store = Store();
    const auto snapshot = Require(store->Read());
    std::map<std::string, store::Revision> revisions;
    for (const std::string& root : Require(snapshot->Children(""))) {
      Require(snapshot->Scan("/" + root, [&](std::string_view key, const store::ValueView& value) {
        if (!key.starts_with("/dash/host/")) revisions.emplace(key, value.revision);
        return true;
      }));
    }
    return revisions;
  }
  struct Ended {
    int exit_code = -1;
    std::string output;
    std::string errors;
  };
  // The programs run at the same time.
  static std::vector<Ended> RunAll(const std::vector<ProcessOptions>& programs) {
    std::vector<std::unique_ptr<Process>> running;
    for (const ProcessOptions& program : programs) running.push_back(std::make_unique<Process>(program));
    std::vector<Ended> all;
    for (const auto& process : running) {
      const auto ended = process->Wait(minutes(5));
      EXPECT_TRUE(ended);
      all.push_back({ended ? ended->code.value_or(-1) : -1, process->output(), process->errors()});
    }
    return all;
  }

  TestDaemon daemon_{Configure};
};

TEST_F(ImportOnDaemon, Import_ConfiguredStore_IsWrittenToDaemonsStore) {
  const std::string file = File("a.xml", Domain(IdOf(1), "one"));
  const auto imported = Import({file});
  EXPECT_EQ(imported.exit_code, 0) << imported.errors;
  EXPECT_THAT(imported.output,
              StartsWith(file + ": imported 'one' (" + IdOf(1) + "): 0 disks, 0 network interfaces\n"));
  EXPECT_THAT(imported.output, HasSubstr("  The guest has no video card, and gets one when 'video_card' is set.\n"));
  EXPECT_EQ(imported.errors, "");
  EXPECT_FALSE(std::filesystem::exists(daemon_.config().data_directory + "/store"));
  EXPECT_THAT(Run({"--socket", daemon_.config().socket, "guest", "list"}).output, HasSubstr("one"));
  const auto again = Import({file});
  EXPECT_EQ(again.exit_code, 1);
  EXPECT_EQ(again.errors, file + ": The guest '" + IdOf(1) + "' exists already: use --replace to replace it\n" +
                              "vexa: 1 of 1 guest could not be imported\n");
  const auto replaced = Import({File("a.xml", Domain(IdOf(1), "uno")), "--replace"});
  EXPECT_EQ(replaced.exit_code, 0) << replaced.errors;
  EXPECT_THAT(replaced.output, StartsWith(file + ": replaced 'uno'"));
  EXPECT_THAT(Run({"--socket", daemon_.config().socket, "log"}).output,
              AllOf(HasSubstr("The virtual machine [one] has been imported."),
                    HasSubstr("Failed to import the virtual machine [one]."),
                    HasSubstr("The virtual machine [uno] has been replaced by an import.")));
}

TEST_F(ImportOnDaemon, DryRun_LeavesTheStoreUntouched) {
  ASSERT_EQ(Import({File("a.xml", Domain(IdOf(1), "one"))}).exit_code, 0);
  const auto before = Revisions();
  ASSERT_FALSE(before.empty());
  const auto fresh = Import({File("b.xml", Domain(IdOf(2), "two")), "--dry-run"});
  EXPECT_EQ(fresh.exit_code, 0) << fresh.errors;
  EXPECT_EQ(json::String(json::Member(json::Member(json::Element(Parsed(fresh.output), 0), "guest"), "name")), "two");
  const auto existing = Import({folder_.File("a.xml"), "--dry-run"});
  EXPECT_EQ(existing.exit_code, 1);
  EXPECT_THAT(existing.errors, HasSubstr("exists already"));
  EXPECT_EQ(Import({folder_.File("a.xml"), "--dry-run", "--replace"}).exit_code, 0);
  // The same name in two batches.
  const std::string manifest = Manifest("many-", 100, 20);
  EXPECT_EQ(Import({"--manifest", manifest, "--dry-run"}).exit_code, 0);
  File("many-119.xml", Domain(IdOf(119), "many-100"));
  const auto twice = Import({"--manifest", manifest, "--dry-run"});
  EXPECT_EQ(twice.exit_code, 1);
  EXPECT_THAT(twice.errors, HasSubstr("many-119.xml: The name 'many-100' belongs to the guest '" + IdOf(100) +
                                      "': rename one of the two\n"));
  EXPECT_EQ(Revisions(), before);
}

TEST_F(ImportOnDaemon, Import_ManifestOfHundreds_IsImportedAndFoundAgain) {
  constexpr int kGuests = 300;
  const std::string manifest = Manifest("web-", 0, kGuests);
  File("web-7.xml", Domain("x", "web-7"));
  const auto first = Import({"--manifest", manifest, "--quiet"});
  EXPECT_EQ(first.exit_code, 1);
  EXPECT_THAT(first.errors, AllOf(StartsWith("web-7.xml: "), HasSubstr("vexa: 1 of " + std::to_string(kGuests) +
                                                                       " guests could not be imported\n")));
  EXPECT_THAT(Guests(), SizeIs(kGuests - 1));
  const auto before = Guests();
  File("web-7.xml", Domain(IdOf(7), "web-7"));
  const auto second = Import({"--manifest", manifest});
  EXPECT_EQ(second.exit_code, 1);
  EXPECT_THAT(second.output, HasSubstr("web-7.xml: imported 'web-7'"));
  EXPECT_THAT(second.output, Not(HasSubstr("web-8.xml")));
  EXPECT_THAT(second.errors, AllOf(HasSubstr("web-8.xml: The guest '" + IdOf(8) + "' exists already: use --replace"),
                                   HasSubstr("vexa: 299 of 300 guests could not be imported\n")));
  EXPECT_THAT(Guests(), SizeIs(kGuests));
}

// A call takes 9 MiB, and each definition may have 4 MiB.
TEST_F(ImportOnDaemon, Import_LongDefinitions_AreSentInSeveralCalls) {
  const std::string filling = "<!--" + std::string(3'500'000, '"') + "-->";
  std::vector<std::string> files;
  for (int i = 0; i < 3; ++i) {
    files.push_back(File("l" + std::to_string(i) + ".xml", Domain(IdOf(i), "l" + std::to_string(i)) + filling));
  }
  const auto imported = Import(files);
  EXPECT_EQ(imported.exit_code, 0) << imported.errors;
  EXPECT_THAT(Guests(), SizeIs(3));
}

TEST_F(ImportOnDaemon, EightImportsOfOneName_OneIsAccepted) {
  std::vector<ProcessOptions> programs;
  for (int i = 0; i < kPrograms; ++i) {
    programs.push_back(Importing({File(std::to_string(i) + ".xml", Domain(IdOf(i), "shared"))}));
  }
  int accepted = 0;
  for (const Ended& ended : RunAll(programs)) {
    accepted += ended.exit_code == 0 ? 1 : 0;
    if (ended.exit_code != 0) {
      EXPECT_THAT(ended.errors, HasSubstr("The name 'shared' belongs to the guest '"));
    }
  }
  EXPECT_EQ(accepted, 1);
  EXPECT_THAT(Guests(), SizeIs(1));
}

// They refused each other while imports of other guests counted as a change.
TEST_F(ImportOnDaemon, EightImportsOfOtherGuests_AllSucceed) {
  constexpr int kGuests = 20;
  std::vector<ProcessOptions> programs;
  for (int i = 0; i < kPrograms; ++i) {
    programs.push_back(Importing({"--manifest", Manifest("p" + std::to_string(i) + "-", i * kGuests, kGuests)}));
  }
  for (const Ended& ended : RunAll(programs)) {
    EXPECT_EQ(ended.exit_code, 0) << ended.errors;
    EXPECT_EQ(ended.errors, "");
  }
  EXPECT_THAT(Guests(), SizeIs(kPrograms * kGuests));
}

TEST_F(ImportOnDaemon, EightImportsOfOneManifest_Concurrent_WriteEachGuestOnce) {
  constexpr int kGuests = 20;
  const std::string manifest = Manifest("same-", 0, kGuests);
  const std::vector<ProcessOptions> programs(kPrograms, Importing({"--manifest", manifest}));
  int imported = 0;
  for (const Ended& ended : RunAll(programs)) {
    for (std::size_t at = 0; (at = ended.output.find(": imported '", at)) != std::string::npos; ++at) ++imported;
    if (!ended.errors.empty()) {
      EXPECT_THAT(ended.errors, HasSubstr("exists already: use --replace"));
    }
  }
  EXPECT_EQ(imported, kGuests);
  EXPECT_THAT(Guests(), SizeIs(kGuests));
}

TEST_F(ImportOnDaemon, Import_ManifestWithOtherId_IsRefused) {
  File("a.xml", Domain(IdOf(1), "one"));
  const auto refused =
      Import({"--manifest", File("m.json", R"({"guests": [{"file": "a.xml", "id": ")" + IdOf(2) + R"("}]})")});
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_THAT(refused.errors, HasSubstr("and the manifest has '" + IdOf(2) + "'; correct one of them"));
  EXPECT_THAT(Guests(), IsEmpty());
}

TEST_F(ImportOnDaemon, Import_OrdinaryUser_IsRefused) {
  daemon_.ActAsOnUnixSocket("mallory");
  for (const std::vector<std::string>& words : {std::vector<std::string>{}, {"--dry-run"}}) {
    std::vector<std::string> arguments = words;
    arguments.push_back(File("a.xml", Domain(IdOf(1), "one")));
    const auto refused = Import(arguments);
    EXPECT_EQ(refused.exit_code, 1);
    EXPECT_THAT(refused.errors, StartsWith("vexa: You may not call this method (104)."));
  }
  EXPECT_THAT(Guests(), IsEmpty());
}

}  // namespace
}  // namespace vexa::test
