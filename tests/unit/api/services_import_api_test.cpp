// VEXA.Virtualization.Guest import on a real store: hostile parameters, results for each guest, dry runs, the log.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "host/api/import_parameters.h"
#include "host/api/user/import_api.h"
#include "host/base/json_parse.h"
#include "host/domain_xml/domain_parse.h"
#include "host/records/environment.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/qcow2_image.h"
#include "tests/support/require.h"
#include "tests/unit/api/services_fixture.h"

namespace vexa::api {
namespace {

using test::Answer;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr char kFirst[] = "11111111-2222-4333-8444-555555555551";
constexpr char kSecond[] = "11111111-2222-4333-8444-555555555552";

constexpr char kOwnPool[] = "11111111-2222-4333-8444-555555555561";
constexpr char kOtherPool[] = "11111111-2222-4333-8444-555555555562";
constexpr char kThirdPool[] = "11111111-2222-4333-8444-555555555563";

std::string Domain(const std::string& id, const std::string& name, const std::string& devices = "") {
  return "<domain><name>" + name + "</name><uuid>" + id + "</uuid><memory unit='MiB'>64</memory><devices>" + devices +
         "</devices></domain>";
}

Json::Value GuestOf(const std::string& xml) {
  Json::Value guest(Json::objectValue);
  guest["xml"] = xml;
  return guest;
}

Json::Value CallOf(const std::vector<Json::Value>& guests) {
  Json::Value parameters(Json::objectValue);
  parameters["guests"] = Json::Value(Json::arrayValue);
  for (const Json::Value& guest : guests) parameters["guests"].append(guest);
  return parameters;
}

class ImportApi : public ::testing::Test {
 protected:
  ImportApi() : table_(ImportRows(records::CurrentEnvironment()->store)) {
    AddRepository(kOwnPool, "pool-1", records::CurrentEnvironment()->host_id);
    AddRepository(kOtherPool, "pool-2", kFirst);
  }
  void AddRepository(const std::string& id, const std::string& name, const std::string& host_id) {
    host_.PutText("repository", id, R"({"name":")" + name + R"(","host_id":")" + host_id + "\"}");
  }

  Answer Import(const Json::Value& parameters) {
    return CallRow(table_.rows()[0], parameters, UserCaller(Administrator()));
  }
  // Refused as a whole, and nothing has changed.
  void ExpectRefused(const Json::Value& parameters, const std::string& reason) {
    const store::Revision before = Revision();
    const Answer answer = Import(parameters);
    EXPECT_EQ(answer.code, 401) << reason;
    EXPECT_THAT(ReasonOf(answer), HasSubstr(reason));
    EXPECT_EQ(Revision(), before);
  }
  void ExpectGuestRefused(const Json::Value& guest, const std::string& reason) {
    ExpectRefused(CallOf({GuestOf(Domain(kSecond, "good")), guest}), "Guest 2 of the call " + reason);
  }
  store::Revision Revision() { return Require(host_.store().Read())->revision(); }
  std::vector<std::string> Guests() { return Require(Require(host_.store().Read())->Children("/dash/guest")); }

  test::TestHost host_;
  ApiTable table_;
};

TEST_F(ImportApi, Row_IsForAdministratorsAndTakesLongBodies) {
  ASSERT_EQ(table_.rows().size(), 1u);
  const ApiRow& row = table_.rows()[0];
  EXPECT_EQ(row.access.value, Access::kAdministrator);
  EXPECT_EQ(row.lane.value, LaneKind::kLong);
  EXPECT_GT(row.body_bytes, 2 * domain_xml::kMaxDomainXmlBytes) << "every byte of a definition may be escaped";
  for (const int code : row.errors) EXPECT_NE(FindError(code), nullptr) << code;
}

TEST_F(ImportApi, Import_Guests_AreWrittenLoggedAndDescribed) {
  Json::Value second =
      GuestOf(Domain(kSecond, "two", "<disk><source file='/i/a'/><target dev='vda' bus='virtio'/></disk>"));
  second["guest_id"] = kSecond;
  second["autostart"] = true;
  second["image_sizes"]["/i/a"] = Json::UInt64{1} << 30;
  second["networks"]["lan"] = kFirst;
  second["host_id"] = kFirst;
  const Answer answer = Import(CallOf({GuestOf(Domain(kFirst, "one")), second}));
  ASSERT_EQ(answer.code, 0) << ReasonOf(answer);
  const Json::Value& results = answer.data["results"];
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0]["guest_id"], kFirst);
  EXPECT_EQ(results[0]["name"], "one");
  EXPECT_EQ(results[0]["replaced"], false);
  EXPECT_FALSE(results[0].isMember("error"));
  EXPECT_FALSE(results[0].isMember("records"));
  EXPECT_EQ(results[1]["disks"], 1);
  EXPECT_EQ(results[1]["nics"], 0);
  EXPECT_THAT(Guests(), ElementsAre(kFirst, kSecond));
  Json::Value again = CallOf({GuestOf(Domain(kFirst, "uno"))});
  again["replace"] = true;
  EXPECT_EQ(Import(again).data["results"][0]["replaced"], true);
  EXPECT_THAT(ClusterLogLines(), ElementsAre("root 3 The virtual machine [one] has been imported.",
                                             "root 3 The virtual machine [two] has been imported.",
                                             "root 3 The virtual machine [uno] has been replaced by an import."));
}

TEST_F(ImportApi, Import_ImageOfThisHostNamesOtherFile_IsRefused) {
  test::Qcow2Image image;
  image.backing_file = "/etc/shadow";
  const std::string path = host_.folder().File("image");
  std::ofstream(path, std::ios::binary) << image.Text();
  Json::Value guest = GuestOf(
      Domain(kFirst, "one",
             "<disk><driver type='qcow2'/><source file='" + path + "'/><target dev='vda' bus='virtio'/></disk>"));
  guest["image_sizes"][path] = 1 << 20;
  guest["host_id"] = records::CurrentEnvironment()->host_id;
  const Json::Value refused = Import(CallOf({guest})).data["results"][0]["error"];
  EXPECT_EQ(refused["code"], 401);
  EXPECT_THAT(refused["reason"].asString(), HasSubstr("has the backing file '/etc/shadow'"));
  EXPECT_THAT(Guests(), IsEmpty());
  guest["host_id"] = kFirst;
  EXPECT_FALSE(Import(CallOf({guest})).data["results"][0].isMember("error")) << "it is another host's file";
}

TEST_F(ImportApi, Import_SomeGuestsFail_OthersAreImported) {
  host_.PutText("guest", "g", R"({"name":"taken"})");
  const Answer answer =
      Import(CallOf({GuestOf("<domain>"), GuestOf(Domain(kSecond, "taken")), GuestOf(Domain(kFirst, "one"))}));
  ASSERT_EQ(answer.code, 0);
  const Json::Value& results = answer.data["results"];
  ASSERT_EQ(results.size(), 3u);
  EXPECT_EQ(results[0]["error"]["code"], 401);
  EXPECT_NE(results[0]["error"]["reason"], "");
  EXPECT_FALSE(results[0].isMember("name"));
  EXPECT_EQ(results[1]["name"], "taken");
  EXPECT_EQ(results[1]["error"]["code"], 990);
  EXPECT_EQ(results[1]["error"]["message"], "The name, the id or the file is already in use.");
  EXPECT_EQ(results[1]["error"]["reason"], "The name 'taken' belongs to the guest 'g': rename one of the two");
  EXPECT_EQ(results[2]["guest_id"], kFirst);
  EXPECT_THAT(ClusterLogLines(), ElementsAre("root 1 Failed to import the virtual machine [taken].",
                                             "root 3 The virtual machine [one] has been imported."));
}

TEST_F(ImportApi, Import_DryRun_ReturnsRecordsAndChangesNothing) {
  const store::Revision before = Revision();
  Json::Value parameters = CallOf({GuestOf(Domain(kFirst, "one")), GuestOf(Domain(kSecond, "one"))});
  parameters["dry_run"] = true;
  const Answer answer = Import(parameters);
  ASSERT_EQ(answer.code, 0);
  EXPECT_EQ(answer.data["results"][0]["records"]["guest"]["name"], "one");
  EXPECT_EQ(answer.data["results"][1]["error"]["code"], 990);
  parameters = CallOf({GuestOf(Domain(kSecond, "one"))});
  parameters["dry_run"] = true;
  parameters["planned"][kFirst] = "one";
  EXPECT_EQ(Import(parameters).data["results"][0]["error"]["code"], 990);
  EXPECT_EQ(Revision(), before);
  EXPECT_THAT(ClusterLogLines(), IsEmpty());
}

TEST_F(ImportApi, Import_MalformedCall_IsRefusedCompletely) {
  const std::string guests = "'guests' must be an array of 1 to 100 guests";
  ExpectRefused(Parsed("{}"), guests);
  for (const char* text : {"null", "7", "{}", "\"x\"", "[]"}) {
    ExpectRefused(Parsed(std::string(R"({"guests":)") + text + "}"), guests);
  }
  ExpectRefused(CallOf(std::vector<Json::Value>(kMaxImportedGuests + 1, GuestOf(Domain(kFirst, "one")))), guests);
  for (const char* flag : {"replace", "dry_run"}) {
    Json::Value parameters = CallOf({GuestOf(Domain(kFirst, "one"))});
    parameters[flag] = 1;
    ExpectRefused(parameters, "");
  }
  const std::string planned = "'planned' must be an object that maps at most 10000 guest ids";
  for (const char* text : {"null", "[]", "7", R"({"x":"one"})", R"({"11111111-2222-4333-8444-555555555551":7})",
                           R"({"11111111-2222-4333-8444-555555555551":"a\nb"})"}) {
    Json::Value parameters = CallOf({GuestOf(Domain(kFirst, "one"))});
    parameters["dry_run"] = true;
    parameters["planned"] = Parsed(text);
    ExpectRefused(parameters, planned);
  }
  Json::Value written = CallOf({GuestOf(Domain(kFirst, "one"))});
  written["planned"] = Json::Value(Json::objectValue);
  ExpectRefused(written, planned);
  EXPECT_THAT(Guests(), IsEmpty());
}

TEST_F(ImportApi, Import_MalformedGuests_AreRefusedBeforeAnyWrite) {
  for (const char* text : {"7", "null", "[]", "\"<domain/>\""}) ExpectGuestRefused(Parsed(text), "is not an object");
  ExpectGuestRefused(Parsed("{}"), "has no 'xml'");
  ExpectGuestRefused(Parsed(R"({"xml":7})"), "has no 'xml'");
  ExpectGuestRefused(Parsed(R"({"xml":""})"), "has an empty 'xml'");
  ExpectGuestRefused(Parsed(R"({"xml":"x","file\n":"/etc/passwd"})"), "has the unknown member 'file ': remove it");
  struct Row {
    const char* members;
    const char* reason;
  };
  constexpr Row kRows[] = {
      {R"("guest_id":"x")", "has a 'guest_id' that is not a UUID"},
      {R"("host_id":7)", "has a 'host_id' that is not a UUID"},
      {R"("repository_id":null)", "has a 'repository_id' that is not a UUID"},
      {R"("repository_id":"00000000-0000-0000-0000-000000000000")", "has a 'repository_id' that is not a UUID"},
      {R"("autostart":1)", "has a value of 'autostart' that is neither true nor false"},
      {R"("has_variables":"yes")", "has a value of 'has_variables' that is neither true nor false"},
      {R"("disk_sizes_mib":[])", "has a value of 'disk_sizes_mib' that is not an object"},
      {R"("disk_sizes_mib":{"":1})", "has a name in 'disk_sizes_mib' that is empty"},
      {R"("disk_sizes_mib":{"vda":0})", "has a size for the disk 'vda' that is not a whole number of 1 to"},
      {R"("disk_sizes_mib":{"vda":-1})", "has a size for the disk 'vda'"},
      {R"("disk_sizes_mib":{"vda":1.5})", "has a size for the disk 'vda'"},
      {R"("disk_sizes_mib":{"vda":2147483648})", "has a size for the disk 'vda'"},
      {R"("disk_sizes_mib":{"vda":"20"})", "has a size for the disk 'vda'"},
      {R"("image_sizes":7)", "has a value of 'image_sizes' that is not an object"},
      {R"("image_sizes":{"/a":-1})", "has a size for the image '/a' that is neither"},
      {R"("image_sizes":{"/a":"1"})", "has a size for the image '/a' that is neither"},
      {R"("image_sizes":{"/a":1e30})", "has a size for the image '/a' that is neither"},
      {R"("networks":{"lan":"x"})", "has an id for the network 'lan' that is not a UUID"},
      {R"("networks":{"lan":[]})", "has an id for the network 'lan' that is not a UUID"},
  };
  for (const auto& [members, reason] : kRows) {
    ExpectGuestRefused(Parsed(std::string(R"({"xml":"<domain/>",)") + members + "}"), reason);
  }
}

TEST_F(ImportApi, Import_TooManyOrTooLongEntries_AreRefused) {
  Json::Value guest = GuestOf(Domain(kFirst, "one"));
  for (std::size_t i = 0; i <= kMaxImportEntries; ++i) guest["networks"][std::to_string(i)] = kFirst;
  ExpectGuestRefused(guest, "has more than 1000 entries in 'networks'");
  guest = GuestOf(Domain(kFirst, "one"));
  guest["image_sizes"][std::string(4097, 'x')] = 1;
  ExpectGuestRefused(guest, "has a name in 'image_sizes' that is empty or longer than 4096 bytes");
  Json::Value parameters = CallOf({GuestOf(Domain(kFirst, "one"))});
  parameters["dry_run"] = true;
  for (std::size_t i = 0; i <= kMaxPlannedGuests; ++i) {
    const std::string number = std::to_string(1'000'000 + i);
    parameters["planned"]["11111111-2222-4333-8444-55555" + number] = "n" + number;
  }
  ExpectRefused(parameters, "'planned' must be an object that maps at most 10000 guest ids");
}

// What a definition can contain is tested with the conversion; here, that it reaches it as it is.
TEST_F(ImportApi, Import_HostileDefinition_OnlyItIsRefused) {
  const std::string deep = [] {
    std::string text = "<domain>";
    for (int i = 0; i < 70; ++i) text += "<a>";
    return text;
  }();
  std::vector<Json::Value> guests;
  for (const std::string& xml :
       {std::string("x"), std::string("<domain/>\0<domain/>", 18), deep, std::string("<!DOCTYPE a><domain/>"),
        std::string(domain_xml::kMaxDomainXmlBytes + 1, ' '), Domain("../x", "one"), Domain(kFirst, "a&#10;b"),
        Domain(kFirst, std::string(129, 'x'))}) {
    guests.push_back(GuestOf(xml));
  }
  const Answer answer = Import(CallOf(guests));
  ASSERT_EQ(answer.code, 0);
  ASSERT_EQ(answer.data["results"].size(), guests.size());
  for (const Json::Value& result : answer.data["results"]) {
    EXPECT_EQ(result["error"]["code"], 401) << json::ToText(result);
    EXPECT_NE(result["error"]["reason"], "");
  }
  EXPECT_THAT(Guests(), IsEmpty());
  EXPECT_THAT(ClusterLogLines(), IsEmpty());
}

TEST_F(ImportApi, Import_WithoutIds_GoesToTheHostThatIsAskedAndItsRepository) {
  const std::string own = records::CurrentEnvironment()->host_id;
  Json::Value other = GuestOf(Domain(kSecond, "two"));
  other["host_id"] = kFirst;
  const Answer answer = Import(CallOf({GuestOf(Domain(kFirst, "one")), other}));
  ASSERT_EQ(answer.code, 0);
  for (const auto& [guest, host, pool] :
       {std::tuple(kFirst, own, kOwnPool), std::tuple(kSecond, std::string(kFirst), kOtherPool)}) {
    const Json::Value record = Require(
        ParseJson(Require(Require(host_.store().Read())->Get(std::string("/dash/guest/") + guest + "/object"))->text));
    EXPECT_EQ(record["host_id"], host);
    EXPECT_EQ(record["repository_id"], pool);
  }
}

TEST_F(ImportApi, Import_NotOneRepository_IsRefusedWithTheirNames) {
  AddRepository(kThirdPool, "pool-3", records::CurrentEnvironment()->host_id);
  const Json::Value several = Import(CallOf({GuestOf(Domain(kFirst, "one"))})).data["results"][0]["error"];
  EXPECT_EQ(several["code"], 401);
  EXPECT_EQ(several["reason"], std::string("The guest's host has several repositories: set 'repository_id' to one of "
                                           "'pool-1' (") +
                                   kOwnPool + "), 'pool-3' (" + kThirdPool + ")");
  Json::Value guest = GuestOf(Domain(kFirst, "one"));
  guest["host_id"] = kSecond;
  const Json::Value none = Import(CallOf({guest})).data["results"][0]["error"];
  EXPECT_EQ(none["code"], 401);
  EXPECT_EQ(none["reason"],
            std::string("The host '") + kSecond + "' has no repository for the guest: add one, or set 'repository_id'");
  EXPECT_THAT(Guests(), IsEmpty());
}

TEST_F(ImportApi, Import_CopiesAndReplaces_IsRefused) {
  Json::Value parameters = CallOf({GuestOf(Domain(kFirst, "one"))});
  parameters["copy_disks"] = true;
  parameters["replace"] = true;
  ExpectRefused(parameters, "Disks are copied for new guests only: leave out 'copy_disks' or 'replace'");
  parameters = CallOf({GuestOf(Domain(kFirst, "one") + std::string(1 << 18, ' '))});
  parameters["copy_disks"] = true;
  EXPECT_THAT(Import(parameters).data["results"][0]["error"]["reason"].asString(),
              HasSubstr("bytes: with 'copy_disks', it has at most 262144"));
}

TEST_F(ImportApi, Import_CopyingHostDoesNotAnswer_ReportsThatItMayContinue) {
  Json::Value guest = GuestOf(Domain(kSecond, "two"));
  guest["host_id"] = kFirst;  // no transport leads there
  Json::Value parameters = CallOf({guest});
  parameters["copy_disks"] = true;
  const Json::Value error = Import(parameters).data["results"][0]["error"];
  EXPECT_EQ(error["code"], 949);
  EXPECT_THAT(error["reason"].asString(),
              HasSubstr(". If it has begun, it goes on: look whether the guest exists before you import it again"));
}

TEST_F(ImportApi, Import_StoreUnreadable_FailsEachGuest) {
  host_.store().FailSnapshots();
  const Answer answer = Import(CallOf({GuestOf(Domain(kFirst, "one")), GuestOf(Domain(kSecond, "two"))}));
  host_.store().Heal();
  ASSERT_EQ(answer.code, 0);
  ASSERT_EQ(answer.data["results"].size(), 2u);
  for (const Json::Value& result : answer.data["results"]) EXPECT_EQ(result["error"]["code"], 992);
}

}  // namespace
}  // namespace vexa::api
