// VEXA.Virtualization.Image and VEXA.Virtualization.Repository on a real store: who sees what, codes, sentences, the
// log.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "host/api/user/image_api.h"
#include "host/api/user/repository_api.h"
#include "host/api/user/upload_api.h"
#include "host/records/environment.h"
#include "host/storage/repository_space.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/api/services_fixture.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

using test::Answer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kImageApi[] = "VEXA.Virtualization.Image";
constexpr char kRepositoryApi[] = "VEXA.Virtualization.Repository";
constexpr char kId[] = "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8";
const accounts::User kOrdinary{"root", 0, 0, {}, false};
constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";

class ImageApi : public ::testing::Test {
 protected:
  ImageApi() : table_(Rows()) {
    std::filesystem::create_directory(Root());
    std::ofstream(File()) << "twelve bytes";
    for (const std::string& host : {std::string(kHost), records::CurrentEnvironment()->host_id}) {
      host_.PutText("host", host, R"({"name":"nas-1"})");
    }
  }

  std::string Root() const { return host_.folder().File("images"); }
  std::string File() const { return Root() + "/a.iso"; }
  Answer Call(const std::string& api, const std::string& method, const std::string& parameters,
              const accounts::User& user = Administrator()) {
    return CallTable(table_, api, method, parameters, UserCaller(user));
  }
  Answer Image(const std::string& method, const std::string& parameters = "{}") {
    return Call(kImageApi, method, parameters);
  }
  Answer Repository(const std::string& method, const std::string& parameters = "{}") {
    return Call(kRepositoryApi, method, parameters);
  }
  std::string Addition(const std::string& name) const {
    return R"({"name":")" + name + R"(","path":")" + File() + R"(","image_id":")" + kId + "\"}";
  }

  test::TestHost host_;
  ApiTable table_;

 private:
  std::vector<ApiRow> Rows() {
    const auto& store = records::CurrentEnvironment()->store;
    RepositoryPlaces places;
    places.host_id = VexaCCC::DB::DBLocalhostID();
    places.image_roots = {Root()};
    storage::UploadOptions options;
    options.store = store;
    options.host_id = places.host_id;
    options.roots = places.image_roots;
    options.limits.reserve = 0;
    const auto uploads = std::make_shared<storage::Uploads>(std::move(options));
    std::vector<ApiRow> rows = ImageRows(store, {Root()}, uploads);
    for (ApiRow& row : RepositoryRows(store, places)) rows.push_back(std::move(row));
    for (ApiRow& row : UploadRows(uploads)) rows.push_back(std::move(row));
    return rows;
  }
};

TEST_F(ImageApi, Rows_AreForAdministratorsExceptLists) {
  ASSERT_EQ(table_.rows().size(), 16u);
  for (const ApiRow& row : table_.rows()) {
    EXPECT_EQ(row.access.value, row.method == "list" ? Access::kUser : Access::kAdministrator) << row.method;
    for (const int code : row.errors) EXPECT_NE(FindError(code), nullptr) << row.method << " " << code;
  }
}

TEST_F(ImageApi, Image_AddListRemove_Works) {
  const Answer added = Image("add", Addition("Debian"));
  EXPECT_EQ(added.code, 0) << ReasonOf(added);
  EXPECT_EQ(added.data, Parsed(R"({"image_id":")" + std::string(kId) + "\"}"));
  EXPECT_EQ(Image("list").data, Parsed(R"({"images":[{"image_id":")" + std::string(kId) +
                                       R"(","name":"Debian","present":true,"size":12,"path":")" + File() + "\"}]}"));
  std::filesystem::remove(File());
  const Answer seen_by_user = Call(kImageApi, "list", "{}", kOrdinary);
  EXPECT_EQ(seen_by_user.data,
            Parsed(R"({"images":[{"image_id":")" + std::string(kId) + R"(","name":"Debian","present":false}]})"));
  const Answer removed = Image("remove", R"({"image_id":")" + std::string(kId) + "\"}");
  EXPECT_EQ(removed.code, 0);
  EXPECT_EQ(removed.data, Parsed(R"({"file":"stays"})"));
  EXPECT_EQ(Image("list").data, Parsed(R"({"images":[]})"));
  EXPECT_THAT(ClusterLogLines(),
              ElementsAre("root 3 The image [Debian] has been added.", "root 3 The image [Debian] has been removed."));
}

TEST_F(ImageApi, ImageAdd_Refused_HasCodeSentenceAndLogLine) {
  ASSERT_EQ(Image("add", Addition("a")).code, 0);
  const Answer same = Image("add", Addition("b"));
  EXPECT_EQ(same.code, 990);
  EXPECT_TRUE(same.data.isNull());
  EXPECT_EQ(ReasonOf(same), "There is an image '" + std::string(kId) + "' already");
  EXPECT_EQ(Image("add", R"({"name":"b","path":")" + Root() + "/none.iso\"}").code, 934);
  host_.PutText("guest", "g", R"({"name":"web","iso_images":[")" + std::string(kId) + "\"]}");
  const Answer used = Image("remove", R"({"image_id":")" + std::string(kId) + "\"}");
  EXPECT_EQ(used.code, 991);
  EXPECT_EQ(ReasonOf(used), "The image 'a' is in a drive of these guests: 'web'. Take it out of the drives first");
  EXPECT_EQ(Image("remove", R"({"image_id":"x"})").code, 403);
  EXPECT_THAT(ClusterLogLines(),
              ElementsAre("root 3 The image [a] has been added.", "root 1 Failed to add the image [b]. (2)",
                          "root 1 Failed to remove the image [a].", "root 1 Failed to remove the image [x]."));
}

TEST_F(ImageApi, Parameters_Invalid_AreRefusedAndNotLogged) {
  const std::string path = R"("path":")" + File() + "\"";
  for (const std::string& parameters :
       {std::string("{}"), "{" + path + "}", "{\"name\":7," + path + "}", "{\"name\":\"\"," + path + "}",
        "{\"name\":\"a\\u0000b\"," + path + "}", "{\"name\":\"" + std::string(129, 'x') + "\"," + path + "}",
        std::string(R"({"name":"a"})"), std::string(R"({"name":"a","path":[]})"),
        std::string(R"({"name":"a","path":""})"), std::string(R"({"name":"a","path":"a.iso"})"),
        "{\"name\":\"a\"," + path + ",\"image_id\":\"5\"}", "{\"name\":\"a\"," + path + ",\"image_id\":null}",
        "{\"name\":\"a\"," + path + ",\"image_id\":\"\"}"}) {
    EXPECT_EQ(Image("add", parameters).code, 401) << parameters;
  }
  for (const char* parameters :
       {"{}", R"({"name":7})", R"({"name":""})", R"({"name":"a","host_id":"nas-1"})", R"({"name":"a","host_id":""})",
        R"({"name":"a","repository_id":"../x"})", R"({"name":"a","repository_id":""})"}) {
    EXPECT_EQ(Repository("add", parameters).code, 401) << parameters;
  }
  for (const std::string& id : {std::string("7"), std::string("\"\""), std::string("null"),
                                '"' + std::string(129, 'x') + '"', std::string("\"a\\nb\"")}) {
    EXPECT_EQ(Image("remove", "{\"image_id\":" + id + "}").code, 401) << id;
    EXPECT_EQ(Repository("remove", "{\"repository_id\":" + id + "}").code, 401) << id;
    EXPECT_EQ(Repository("accept", "{\"repository_id\":" + id + "}").code, 401) << id;
  }
  EXPECT_EQ(ReasonOf(Image("add", R"({"name":"a","path":"a.iso"})")),
            "'a.iso' is not a valid image path: give an absolute path of up to 4096 bytes of UTF-8 without control "
            "characters");
  EXPECT_THAT(ClusterLogLines(), IsEmpty());
}

TEST_F(ImageApi, Repository_AddListAcceptRemove_Works) {
  const std::string named = R"({"repository_id":")" + std::string(kId) + "\"}";
  const Answer added =
      Repository("add", R"({"name":"pool","repository_id":")" + std::string(kId) + R"(","host_id":")" + kHost + "\"}");
  EXPECT_EQ(added.code, 0) << ReasonOf(added);
  EXPECT_EQ(added.data, Parsed(named));
  (void)Require(host_.store().Commit(
      {{}, {{"/dash/repository/" + std::string(kId) + "/storage", R"({"host_id":"h","folders":{"/srv/":"ino=2"}})"}}}));
  const std::string shown = R"({"repository_id":")" + std::string(kId) + R"(","name":"pool","host_id":")" + kHost +
                            R"(","state":"repo_online")";
  EXPECT_EQ(Repository("list").data,
            Parsed(R"({"repositories":[)" + shown + R"(,"storage":{"folders":{"/srv/":"ino=2"}}}]})"));
  EXPECT_EQ(Call(kRepositoryApi, "list", "{}", kOrdinary).data, Parsed(R"({"repositories":[)" + shown + "}]}"));
  EXPECT_EQ(Repository("accept", named).code, 0);
  EXPECT_EQ(Repository("list").data, Parsed(R"({"repositories":[)" + shown + "}]}"));
  EXPECT_EQ(Repository("remove", named).code, 0);
  EXPECT_EQ(Repository("list").data, Parsed(R"({"repositories":[]})"));
  EXPECT_THAT(ClusterLogLines(),
              ElementsAre("root 3 The repository [pool] has been added.",
                          "root 3 The storage of the repository [pool] has been accepted as it is now.",
                          "root 3 The repository [pool] has been removed."));
}

TEST_F(ImageApi, RepositoryAdd_OwnHost_MakesFolder) {
  ASSERT_EQ(Repository("add", R"({"name":"pool","repository_id":")" + std::string(kId) + "\"}").code, 0);
  EXPECT_TRUE(std::filesystem::is_directory(Root() + "/" + kId));
  // The folder of another host's repository is not this host's business.
  const Answer other = Repository("add", R"({"name":"other","host_id":")" + std::string(kHost) + "\"}");
  ASSERT_EQ(other.code, 0);
  EXPECT_FALSE(std::filesystem::exists(Root() + "/" + json::StringMember(other.data, "repository_id")));
}

TEST_F(ImageApi, RepositoryAdd_FolderCannotBeMade_AddsNothing) {
  std::filesystem::remove_all(Root());
  std::ofstream(Root()) << "a file";
  const Answer refused = Repository("add", R"({"name":"pool"})");
  EXPECT_EQ(refused.code, 949);
  EXPECT_EQ(ReasonOf(refused), "The folder '" + Root() + "' cannot be made: Not a directory");
  EXPECT_EQ(Repository("list").data, Parsed(R"({"repositories":[]})"));
  EXPECT_THAT(ClusterLogLines(), ElementsAre("root 1 Failed to add the repository [pool]."));
}

TEST_F(ImageApi, RepositoryGet_ShowsSpaceGuestsAndOtherFiles) {
  const std::string id = kId;
  ASSERT_EQ(Repository("add", R"({"name":"pool","repository_id":")" + id + "\"}").code, 0);
  const std::string folder = Root() + "/" + id;
  std::ofstream(folder + "/disk") << std::string(10'000, 'x');
  std::ofstream(folder + "/old") << "twelve bytes";
  host_.PutText("guest", "g1", R"({"name":"web-1","repository_id":")" + id + "\"}");
  host_.PutText("vdisk", "d1",
                R"({"guest_id":"g1","repository_id":")" + id + R"(","size":1,"path":")" + folder + "/disk\"}");
  host_.PutText("vdisk", "d2",
                R"({"guest_id":"g2","repository_id":")" + id + R"(","size":2,"path":")" + folder + "/gone\"}");
  (void)Require(host_.store().Commit(
      {{},
       {{storage::SpaceKey(id), R"({"host_id":")" + records::CurrentEnvironment()->host_id +
                                    R"(","total":100,"used":60,"free":40,"soft_percent":90,"hard_percent":98,)"
                                    R"("headroom_gib":100})"}}}));
  const Answer got = Repository("get", R"({"repository_id":")" + id + "\"}");
  ASSERT_EQ(got.code, 0) << ReasonOf(got);
  EXPECT_EQ(got.data["name"], "pool");
  EXPECT_EQ(got.data["space"], Parsed(R"({"total":100,"used":60,"free":40,"soft_percent":90,"hard_percent":98,
                                          "headroom_gib":100})"));
  ASSERT_EQ(got.data["guests"].size(), 2u);
  const Json::Value disk = got.data["guests"][0]["vdisks"][0];
  EXPECT_EQ(got.data["guests"][0]["name"], "web-1");
  EXPECT_EQ(disk["vdisk_id"], "d1");
  EXPECT_EQ(disk["size_mib"], 1);
  EXPECT_GE(disk["allocated"].asUInt64(), 8192u);
  EXPECT_EQ(got.data["guests"][1]["vdisks"][0],
            Parsed(R"({"vdisk_id":"d2","path":")" + folder + R"(/gone","size_mib":2})"));
  ASSERT_EQ(got.data["files"].size(), 1u);
  EXPECT_EQ(got.data["files"][0]["path"], folder + "/old");
  EXPECT_EQ(got.data["files"][0]["size"], 12);
  EXPECT_EQ(Repository("list").data["repositories"][0]["space"], got.data["space"]);
  EXPECT_EQ(Repository("get", R"({"repository_id":"x"})").code, 403);
  EXPECT_EQ(Repository("get").code, 401);
}

TEST_F(ImageApi, RepositoryGet_FileNameThatIsNotUtf8_IsShownAsText) {
  const std::string id = kId;
  ASSERT_EQ(Repository("add", R"({"name":"pool","repository_id":")" + id + "\"}").code, 0);
  std::ofstream(Root() + "/" + id + "/a\xffz") << "x";
  const Answer got = Repository("get", R"({"repository_id":")" + id + "\"}");
  ASSERT_EQ(got.data["files"].size(), 1u);
  EXPECT_EQ(got.data["files"][0]["path"], Root() + "/" + id + "/a\xef\xbf\xbdz");
}

TEST_F(ImageApi, Rename_ChangesNameAndLogs) {
  ASSERT_EQ(Image("add", Addition("a")).code, 0);
  const std::string image = R"({"image_id":")" + std::string(kId) + R"(","name":)";
  EXPECT_EQ(Image("rename", image + "\"b\"}").code, 0);
  EXPECT_EQ(Image("list").data["images"][0]["name"], "b");
  EXPECT_EQ(Image("rename", image + "\"b\"}").code, 0);
  for (const char* name : {"7", "\"\"", "\"a\\nb\"", "null"}) {
    EXPECT_EQ(Image("rename", image + name + "}").code, 401) << name;
  }
  EXPECT_EQ(Image("rename", R"({"image_id":"x","name":"c"})").code, 403);
  ASSERT_EQ(Repository("add", R"({"name":"pool","repository_id":")" + std::string(kId) + "\"}").code, 0);
  ASSERT_EQ(Repository("add", R"({"name":"other"})").code, 0);
  const std::string repository = R"({"repository_id":")" + std::string(kId) + R"(","name":)";
  const Answer taken = Repository("rename", repository + "\"other\"}");
  EXPECT_EQ(taken.code, 990);
  EXPECT_THAT(ReasonOf(taken), ::testing::EndsWith("' has the name 'other'"));
  EXPECT_EQ(Repository("rename", repository + "\"pool-a\"}").code, 0);
  const auto lines = ClusterLogLines();
  EXPECT_THAT(lines, ::testing::Contains("root 3 The image [a] has been renamed [b]."));
  EXPECT_THAT(lines, ::testing::Contains("root 1 Failed to rename the image [x]."));
  EXPECT_THAT(lines, ::testing::Contains("root 1 Failed to rename the repository [pool]."));
  EXPECT_THAT(lines, ::testing::Contains("root 3 The repository [pool] has been renamed [pool-a]."));
}

TEST_F(ImageApi, RepositoryLimits_AreStoredAndLogged) {
  const std::string id = kId;
  ASSERT_EQ(Repository("add", R"({"name":"pool","repository_id":")" + id + "\"}").code, 0);
  const std::string named = R"({"repository_id":")" + id + "\"";
  EXPECT_EQ(Repository("limits", named + R"(,"soft_percent":70,"hard_percent":80})").code, 0);
  const auto stored = [&] {
    const auto snapshot = Require(host_.store().Read());
    const auto limits = Require(storage::LimitsOf(*snapshot, id, {90, 98, 100}));
    return std::vector<std::uint64_t>{limits.warning_percent, limits.full_percent, limits.headroom_gib};
  };
  EXPECT_THAT(stored(), ElementsAre(70, 80, 0));
  const Answer refused = Repository("limits", named + R"(,"soft_percent":81,"hard_percent":80})");
  EXPECT_EQ(refused.code, 401);
  EXPECT_EQ(ReasonOf(refused), "Limits are percentages from 0 to 100, and the soft one is not above the hard one");
  for (const char* bad : {R"(,"soft_percent":-1})", R"(,"hard_percent":101})", R"(,"hard_percent":"5"})"}) {
    EXPECT_EQ(Repository("limits", named + bad).code, 401) << bad;
  }
  EXPECT_EQ(Repository("limits", R"({"repository_id":"x"})").code, 403);
  EXPECT_THAT(stored(), ElementsAre(70, 80, 0));
  // The one that is left out is the host's again, with its headroom.
  EXPECT_EQ(Repository("limits", named + R"(,"soft_percent":70})").code, 0);
  EXPECT_THAT(stored(), ElementsAre(70, 98, 100));
  EXPECT_EQ(Repository("limits", named + "}").code, 0);
  EXPECT_THAT(stored(), ElementsAre(90, 98, 100));
  EXPECT_THAT(ClusterLogLines(), ::testing::Contains("root 3 The limits of the repository [pool] have been set."));
}

TEST_F(ImageApi, RepositoryLimits_OfRemovedRepository_DoNotComeBackWithItsId) {
  const std::string id = kId;
  const std::string addition = R"({"name":"pool","repository_id":")" + id + "\"}";
  ASSERT_EQ(Repository("add", addition).code, 0);
  const std::string named = R"({"repository_id":")" + id + "\"";
  ASSERT_EQ(Repository("limits", named + R"(,"soft_percent":1,"hard_percent":2})").code, 0);
  ASSERT_EQ(Repository("remove", named + "}").code, 0);
  ASSERT_EQ(Repository("add", addition).code, 0);
  const auto snapshot = Require(host_.store().Read());
  EXPECT_EQ(Require(storage::LimitsOf(*snapshot, id, {90, 98, 100})).full_percent, 98u);
}

TEST_F(ImageApi, Upload_OutcomesAreLogged) {
  const std::string digest(64, 'a');
  const Answer begun = Image("upload_begin", R"({"name":"u","size":3,"sha256":")" + digest + "\"}");
  ASSERT_EQ(begun.code, 0) << ReasonOf(begun);
  EXPECT_EQ(begun.data["upload_id"], begun.data["image_id"]);
  EXPECT_EQ(Image("upload_begin", R"({"name":"u","size":4,"sha256":")" + digest + "\"}").code, 990);
  const std::string named = R"({"upload_id":")" + begun.data["upload_id"].asString() + "\"}";
  EXPECT_EQ(Image("upload_status", named).data["received"], 0);
  EXPECT_EQ(Image("upload_list").data, Parsed(R"({"uploads":[{"upload_id":")" + begun.data["upload_id"].asString() +
                                              R"(","name":"u","host_id":")" + records::CurrentEnvironment()->host_id +
                                              R"(","user":"root","size":3,"received":0}]})"));
  EXPECT_EQ(Image("upload_end", named).code, 993);
  EXPECT_EQ(Image("upload_cancel", named).code, 0);
  EXPECT_EQ(Image("upload_list").data, Parsed(R"({"uploads":[]})"));
  EXPECT_THAT(ClusterLogLines(), ElementsAre("root 1 Failed to begin the upload of the image [u].",
                                             "root 1 Failed to upload the image [u].",
                                             "root 3 The upload of the image [u] has been cancelled."));
}

TEST_F(ImageApi, RepositoryAdd_NoHost_UsesCalledHost) {
  EXPECT_EQ(Repository("add", R"({"name":"pool"})").code, 0);
  EXPECT_EQ(json::Element(Repository("list").data["repositories"], 0)["host_id"],
            Json::Value(records::CurrentEnvironment()->host_id));
}

TEST_F(ImageApi, RepositoryAdd_Refused_HasCodeSentenceAndLogLine) {
  ASSERT_EQ(Repository("add", R"({"name":"pool","repository_id":")" + std::string(kId) + "\"}").code, 0);
  const Answer same = Repository("add", R"({"name":"pool"})");
  EXPECT_EQ(same.code, 990);
  EXPECT_EQ(ReasonOf(same), "The repository '" + std::string(kId) + "' has the name 'pool'");
  host_.PutText("guest", "g", R"({"name":"web","repository_id":")" + std::string(kId) + "\"}");
  const Answer used = Repository("remove", R"({"repository_id":")" + std::string(kId) + "\"}");
  EXPECT_EQ(used.code, 991);
  EXPECT_EQ(ReasonOf(used), "The repository 'pool' is used by the guest 'web'. Delete the guests first");
  EXPECT_EQ(Repository("accept", R"({"repository_id":"x"})").code, 403);
  const Answer homeless = Repository("add", R"({"name":"other","host_id":")" + std::string(kId) + "\"}");
  EXPECT_EQ(homeless.code, 403);
  EXPECT_EQ(ReasonOf(homeless).find("There is no host '" + std::string(kId) + "' in this cluster"), 0u);
  EXPECT_THAT(ClusterLogLines(),
              ElementsAre("root 3 The repository [pool] has been added.", "root 1 Failed to add the repository [pool].",
                          "root 1 Failed to remove the repository [pool].",
                          "root 1 Failed to accept the storage of the repository [x].",
                          "root 1 Failed to add the repository [other]."));
}

TEST_F(ImageApi, ImageApi_StoreUnreadable_IsAnError) {
  host_.store().FailSnapshots();
  const Answer images = Image("list");
  EXPECT_EQ(images.code, 992);
  EXPECT_EQ(ReasonOf(images), "The images cannot be listed: The snapshot was made to fail.");
  EXPECT_TRUE(test::SyslogContains("The images cannot be listed: The snapshot was made to fail. Asked by user[root]."));
  const Answer repositories = Repository("list");
  EXPECT_EQ(repositories.code, 992);
  EXPECT_EQ(ReasonOf(repositories), "The repositories cannot be listed: The snapshot was made to fail.");
  EXPECT_TRUE(test::SyslogContains("The repositories cannot be listed: The snapshot was made to fail."));
  for (const char* api : {kImageApi, kRepositoryApi}) {
    const Answer answer = Call(api, "list", "{}", kOrdinary);
    EXPECT_EQ(answer.code, 992) << api;
    EXPECT_EQ(ReasonOf(answer), kAskAdministrator) << api;
  }
  EXPECT_EQ(Image("add", Addition("a")).code, 992);
  EXPECT_EQ(Repository("add", R"({"name":"pool"})").code, 992);
}

}  // namespace
}  // namespace vexa::api
