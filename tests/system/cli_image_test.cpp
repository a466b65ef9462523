// vexa image and vexa repository against servers that answer well and badly.
#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

constexpr const char* kUuid = "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8";

const std::string kImages = R"({"images":[
  {"image_id":"i1","name":"debian-12","present":true,"size":12,"path":"/images/d.iso"},
  {"image_id":"i2","name":"go\u001b[2Jne","present":false},{"image_id":"i3","name":"twin"},
  {"image_id":"i4","name":"twin"}, 7, null]})";
const std::string kRepositories = R"({"repositories":[
  {"repository_id":"r1","name":"pool-1","host_id":"h1","state":"repo_online",
   "space":{"total":1073741824,"used":536870912,"free":536870912}},
  {"repository_id":"r2","name":"p\u001b[2J","host_id":"h2","state":"repo_full","storage":{"reason":"why"}},
  {"repository_id":"r3","name":"twin"},{"repository_id":"r4","name":"twin"}],"hosts":[]})";

class ImageCommand : public CliTest {
 protected:
  // Lists as above, and `data` for the rest.
  static ApiHost::Answer With(const std::string& lists, const std::string& data = "null") {
    return [lists, data](const std::string& method, const Json::Value&) -> std::optional<ApiHost::Reply> {
      return ApiHost::Success(method == "list" ? lists : data);
    };
  }
  static ApiHost::Answer Refusing(const std::string& lists, int code, const std::string& reason) {
    return [=](const std::string& method, const Json::Value&) -> std::optional<ApiHost::Reply> {
      if (method == "list") return ApiHost::Success(lists);
      return ApiHost::Failure(code, "It is in use.", R"(,"reason":")" + reason + "\"");
    };
  }
  // A usage error, and nothing was sent.
  void ExpectUsage(std::vector<std::string> arguments, const std::string& sentence) {
    const ApiHost host(With("{}"));
    const auto result = RunOn(host, std::move(arguments));
    EXPECT_EQ(result.exit_code, 2) << sentence;
    EXPECT_THAT(result.errors, HasSubstr(sentence));
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(host.calls(), IsEmpty());
  }
};

TEST_F(ImageCommand, Add_RelativePath_SendsAbsolutePathAndPrintsId) {
  const ApiHost host(With(kImages, R"({"image_id":"i9"})"));
  auto result = RunOn(host, {"image", "add", "Debian 12", "/images/d.iso", "--id", kUuid});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "i9\n");
  ProcessOptions relative = Program({"image", "add", "d", "d.iso"});
  relative.working_directory = folder_.path();
  EXPECT_EQ(RunProcess(relative).output, "i9\n");
  EXPECT_THAT(host.calls(), ElementsAre(R"(add {"image_id":")" + std::string(kUuid) +
                                            R"(","name":"Debian 12","path":"/images/d.iso"})",
                                        R"(add {"name":"d","path":")" + folder_.path() + "/d.iso\"}"));
}

TEST_F(ImageCommand, Add_InvalidArguments_AreNotSent) {
  const std::string name_rule = "vexa: An image's name is 1 to 128 bytes of UTF-8 without control characters\n";
  ExpectUsage({"image", "add", "", "/a.iso"}, name_rule);
  ExpectUsage({"image", "add", "a\nb", "/a.iso"}, name_rule);
  ExpectUsage({"image", "add", "\xFF", "/a.iso"}, name_rule);
  ExpectUsage({"image", "add", std::string(129, 'x'), "/a.iso"}, name_rule);
  ExpectUsage({"image", "add", "a", ""}, "vexa: '' is not a valid image path: give an absolute path");
  ExpectUsage({"image", "add", "a", "/\xFF"}, "is not a valid image path");
  ExpectUsage({"image", "add", "a", "/a.iso", "--id", "5"}, "vexa: '5' is not a UUID\n");
  ExpectUsage({"image", "add", "a"}, "FILE");
  ExpectUsage({"image", "remove", ""}, "id or name is empty");
  ExpectUsage({"image", "add", "a", "/a.iso", "--data", "/d"}, "--data");
}

TEST_F(ImageCommand, List_HostileTexts_AreSafeForTerminal) {
  const ApiHost host(With(kImages));
  const auto result = RunOn(host, {"image", "list", "--ids"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output,
              AllOf(StartsWith("IMAGE  NAME "), HasSubstr("\ni1     debian-12    12     yes      /images/d.iso\n"),
                    HasSubstr("\ni2     go\\x1b[2Jne  -      no\n"), Not(HasSubstr("\x1b"))));
  const ApiHost empty(With(R"({"images":[]})"));
  EXPECT_EQ(RunOn(empty, {"image", "list"}).output, "NAME  BYTES  PRESENT  PATH\n");
  EXPECT_EQ(RunOn(empty, {"image", "list", "--json"}).output, "[]\n");
  EXPECT_EQ(Parse(RunOn(host, {"image", "list", "--json"}).output), Parse(kImages)["images"]);
}

TEST_F(ImageCommand, Remove_FileCannotBeRemovedNow_ReportsReason) {
  const std::pair<const char*, const char*> rows[] = {
      {R"({"file":"removed"})", "Removed the image 'debian-12' and its file.\n"},
      {R"({"file":"stays"})", "Removed the image 'debian-12'. Its file stays.\n"},
      {R"({"file":"later","reason":"go\u001b"})",
       "Removed the image 'debian-12'. Its file will be removed later: go\\x1b.\n"}};
  for (const auto& [data, output] : rows) {
    const ApiHost host(With(kImages, data));
    EXPECT_EQ(RunOn(host, {"image", "remove", "debian-12"}).output, output);
  }
}

TEST_F(ImageCommand, Remove_ByIdAndByName_SendsTheId) {
  const ApiHost host(With(kImages));
  EXPECT_EQ(RunOn(host, {"image", "remove", "debian-12"}).output, "Removed the image 'debian-12'. Its file stays.\n");
  EXPECT_EQ(RunOn(host, {"image", "remove", "i2", "--quiet"}).output, "");
  EXPECT_EQ(RunOn(host, {"image", "remove", kUuid}).exit_code, 0);
  EXPECT_THAT(host.calls(),
              ElementsAre("list {}", R"(remove {"image_id":"i1"})", "list {}", R"(remove {"image_id":"i2"})", "list {}",
                          R"(remove {"image_id":")" + std::string(kUuid) + "\"}"));
}

TEST_F(ImageCommand, Remove_UnknownAndAmbiguousNames_SendNothing) {
  const ApiHost host(With(kImages));
  const auto unknown = RunOn(host, {"image", "remove", "nobody"});
  EXPECT_EQ(unknown.exit_code, 1);
  EXPECT_EQ(unknown.errors, "vexa: There is no image called 'nobody'; see 'vexa image list'\n");
  const auto twin = RunOn(host, {"image", "remove", "twin"});
  EXPECT_EQ(twin.exit_code, 1);
  EXPECT_EQ(twin.errors,
            "vexa: Several images are called 'twin'. Use one of the ids i3, i4; 'vexa image list --ids' shows which is "
            "which\n");
  EXPECT_EQ(host.Count("remove"), 0);
}

TEST_F(ImageCommand, Command_Refused_ShowsReason) {
  const ApiHost images(Refusing(kImages, 991, "The image 'debian-12' is in a drive"));
  const auto image = RunOn(images, {"image", "remove", "i1"});
  EXPECT_EQ(image.exit_code, 1);
  EXPECT_THAT(image.output, IsEmpty());
  EXPECT_EQ(image.errors, "vexa: It is in use (991).\n  Reason: The image 'debian-12' is in a drive.\n");
  const ApiHost repositories(Refusing(kRepositories, 990, "The repository 'r1' has the name"));
  const auto repository = RunOn(repositories, {"repository", "add", "pool-1"});
  EXPECT_EQ(repository.exit_code, 1);
  EXPECT_THAT(repository.output, IsEmpty());
  EXPECT_THAT(repository.errors, HasSubstr("(990).\n  Reason: The repository 'r1' has"));
}

TEST_F(ImageCommand, Reply_UnexpectedTypes_IsAnErrorNotACrash) {
  for (const char* data : {"null", "7", "[]", R"({"images":7,"repositories":{}})"}) {
    const ApiHost host(With(data, data));
    for (const auto& [words, sentence] :
         {std::pair(std::vector<std::string>{"image", "list"}, "contains no images"),
          std::pair(std::vector<std::string>{"image", "remove", "x"}, "contains no images"),
          std::pair(std::vector<std::string>{"image", "add", "x", "/x"}, "contains no id of the image"),
          std::pair(std::vector<std::string>{"repository", "list"}, "contains no repositories"),
          std::pair(std::vector<std::string>{"repository", "accept", "x"}, "contains no repositories"),
          std::pair(std::vector<std::string>{"repository", "add", "x"}, "contains no id of the repository")}) {
      const auto result = RunOn(host, words);
      EXPECT_EQ(result.exit_code, 1) << words[1] << data;
      EXPECT_THAT(result.errors, HasSubstr(sentence)) << data;
      EXPECT_THAT(result.output, IsEmpty());
    }
  }
}

TEST_F(ImageCommand, Command_NoServer_CreatesNothing) {
  for (const char* group : {"image", "repository"}) {
    const auto result = Run({group, "list"});
    EXPECT_EQ(result.exit_code, 3) << group;
    EXPECT_THAT(result.output, IsEmpty());
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder_.path()));
}

TEST_F(ImageCommand, RepositoryAdd_SendsArgumentsAndPrintsId) {
  const ApiHost host(With(kRepositories, R"({"repository_id":"r9"})"));
  const auto result = RunOn(host, {"repository", "add", "pool 9", "--id", kUuid, "--host-id", kUuid});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "r9\n");
  EXPECT_EQ(RunOn(host, {"repository", "add", "pool"}).output, "r9\n");
  const std::string id = kUuid;
  EXPECT_THAT(host.calls(),
              ElementsAre("list {}", R"(add {"host_id":")" + id + R"(","name":"pool 9","repository_id":")" + id + "\"}",
                          R"(add {"name":"pool"})"));
}

TEST_F(ImageCommand, RepositoryAdd_InvalidArguments_AreNotSent) {
  ExpectUsage({"repository", "add", ""}, "vexa: A repository's name is 1 to 128 bytes of UTF-8 without control");
  ExpectUsage({"repository", "add", "a", "--id", "../x"}, "vexa: '../x' is not a UUID\n");
  ExpectUsage({"repository", "list", "--data", "/d"}, "--data");
}

TEST_F(ImageCommand, RepositoryAdd_NameOfHost_SendsItsId) {
  const ApiHost host([](const std::string& method, const Json::Value&) -> std::optional<ApiHost::Reply> {
    if (method == "list") return ApiHost::Success(R"({"hosts":[{"host_id":"h2","name":"nas-2"}]})");
    return ApiHost::Success(R"({"repository_id":"r1"})");
  });
  EXPECT_EQ(RunOn(host, {"repository", "add", "pool", "--host", "nas-2"}).output, "r1\n");
  EXPECT_EQ(host.calls().back(), R"(add {"host_id":"h2","name":"pool"})");
  EXPECT_EQ(RunOn(host, {"repository", "add", "pool", "--host-id", "nas-3"}).errors,
            "vexa: There is no host called 'nas-3'; did you mean 'nas-2'? See 'vexa host list'\n");
}

TEST_F(ImageCommand, RepositoryList_SeveralRepositories_HasOneLineEach) {
  const ApiHost host(With(kRepositories));
  const auto result = RunOn(host, {"repository", "list"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output,
              StartsWith("NAME      HOST  STATE        SPACE\npool-1    h1    repo_online  512.0 MiB of 1.0 GiB\n"
                         "p\\x1b[2J  h2    repo_full    -\n"));
  EXPECT_THAT(RunOn(host, {"repository", "list", "--ids"}).output, HasSubstr("\nr1          pool-1    h1 "));
  EXPECT_EQ(Parse(RunOn(host, {"repository", "list", "--json"}).output), Parse(kRepositories)["repositories"]);
}

TEST_F(ImageCommand, Rename_Name_SendsIdAndNewName) {
  const ApiHost host(With(kImages));
  const auto image = RunOn(host, {"image", "rename", "debian-12", "debian 12.8"});
  EXPECT_EQ(image.output, "The image 'debian-12' is called 'debian 12.8' now.\n") << image.errors;
  const ApiHost other(With(kRepositories));
  const auto repository = RunOn(other, {"repository", "rename", "pool-1", "pool-a"});
  EXPECT_EQ(repository.output, "The repository 'pool-1' is called 'pool-a' now.\n") << repository.errors;
  EXPECT_THAT(host.calls(), ElementsAre("list {}", R"(rename {"image_id":"i1","name":"debian 12.8"})"));
  EXPECT_THAT(other.calls(), ElementsAre("list {}", R"(rename {"name":"pool-a","repository_id":"r1"})"));
  ExpectUsage({"image", "rename", "i1", ""}, "vexa: A name is 1 to 128 bytes of UTF-8 without control characters\n");
}

TEST_F(ImageCommand, RepositoryLimits_Percentages_AreSent) {
  const ApiHost host(With(kRepositories));
  EXPECT_EQ(RunOn(host, {"repository", "limits", "pool-1", "--soft", "80", "--hard", "95"}).output,
            "Set the limits of the repository 'pool-1'.\n");
  EXPECT_EQ(RunOn(host, {"repository", "limits", "r1"}).exit_code, 0);
  EXPECT_THAT(host.calls(),
              ElementsAre("list {}", R"(limits {"hard_percent":95,"repository_id":"r1","soft_percent":80})", "list {}",
                          R"(limits {"repository_id":"r1"})"));
}

TEST_F(ImageCommand, RepositoryGet_ShowsSpaceDisksAndFiles) {
  const std::string lists =
      kRepositories.substr(0, kRepositories.rfind("]}")) + R"({"host_id":"h1","name":"nas\u001b-1"}]})";
  const ApiHost host(With(lists, R"({"repository_id":"r1","name":"pool-1","host_id":"h1","state":"repo_full",
      "space":{"total":1073741824,"used":536870912,"free":536870912,"soft_percent":80,"hard_percent":0},
      "storage":{"reason":"why\u001b[2J"},
      "guests":[{"guest_id":"g1","name":"web-1","vdisks":[
        {"vdisk_id":"d1","path":"/i/d1","size_mib":1024,"allocated":2048},{"vdisk_id":"d2","path":"/i/d2"}]}, 7],
      "files":[{"path":"/i/old\u001b.img","size":1,"allocated":4096}]})"));
  const auto result = RunOn(host, {"repository", "get", "pool-1"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output,
            "repository  r1\nname        pool-1\nhost        nas\\x1b-1\nstate       repo_full\n"
            "used        512.0 MiB of 1.0 GiB\nfree        512.0 MiB\nwarning     80 %\nfull        never\n"
            "problem     why\\x1b[2J\n\n"
            "GUEST  DISK  SIZE      ALLOCATED  PATH\n"
            "web-1  d1    1024 MiB  2.0 KiB    /i/d1\n"
            "web-1  d2    -         -          /i/d2\n\n"
            "FILE OF NO GUEST  SIZE    ALLOCATED\n"
            "/i/old\\x1b.img    1 byte  4.0 KiB\n");
}

TEST_F(ImageCommand, Upload_Interrupted_ReportsThatItCanBeResumed) {
  WriteFile(folder_.File("a.iso"), "1234567");
  const ApiHost host([](const std::string& method, const Json::Value&) -> std::optional<ApiHost::Reply> {
    if (method == "upload_begin") return ApiHost::Success(R"({"upload_id":"u1","image_id":"u1","received":2})");
    return ApiHost::Failure(995, "No room.", R"(,"details":{"received":2},"reason":"4 bytes are needed")");
  });
  const auto result = RunOn(host, {"image", "add", "a", folder_.File("a.iso"), "--upload"});
  ExpectFailed(result, "4 bytes are needed");
  EXPECT_THAT(result.errors, HasSubstr("vexa: Run the same command again to continue the upload.\n"));
  EXPECT_THAT(host.calls(), ElementsAre(HasSubstr(R"("name":"a")"), "u1 34567"));
}

TEST_F(ImageCommand, Uploads_ListAndCancel_UseNames) {
  const ApiHost host([](const std::string& method, const Json::Value&) -> std::optional<ApiHost::Reply> {
    if (method != "upload_list") return ApiHost::Success();
    return ApiHost::Success(R"({"uploads":[
      {"upload_id":"u1","name":"a","host_id":"h1","user":"alice","size":9,"received":4},
      {"upload_id":"u2","name":"b\u001b","host_id":"h2","user":"bob","size":7}]})");
  });
  EXPECT_EQ(RunOn(host, {"image", "cancel-upload", "a"}).output, "Cancelled the upload 'a'.\n");
  EXPECT_THAT(host.calls(), ElementsAre("upload_list {}", R"(upload_cancel {"upload_id":"u1"})"));
  EXPECT_EQ(RunOn(host, {"image", "cancel-upload", "nobody"}).errors,
            "vexa: There is no upload called 'nobody'; see 'vexa image uploads'\n");
  EXPECT_EQ(RunOn(host, {"image", "uploads"}).output,
            "NAME   HOST  USER   RECEIVED  BYTES\n"
            "a      h1    alice  4         9\n"
            "b\\x1b  h2    bob    -         7\n");
  EXPECT_THAT(RunOn(host, {"image", "uploads", "--ids"}).output, HasSubstr("\nu2      b\\x1b  h2 "));
}

TEST_F(ImageCommand, Upload_OffsetOfServer_IsUsed) {
  WriteFile(folder_.File("a.iso"), "1234567");
  int pieces = 0;
  const ApiHost host([&](const std::string& method, const Json::Value&) -> std::optional<ApiHost::Reply> {
    if (method == "upload_begin") return ApiHost::Success(R"({"upload_id":"u1","image_id":"u1","received":0})");
    if (method == "upload_end") return ApiHost::Success(R"({"image_id":"u1"})");
    if (pieces++ == 0) return ApiHost::Failure(993, "Elsewhere.", R"(,"details":{"received":5})");
    return ApiHost::Success(R"({"received":7})");
  });
  const auto result = RunOn(host, {"image", "add", "a", folder_.File("a.iso"), "--upload"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "u1\n");
  EXPECT_THAT(host.calls(),
              ElementsAre(HasSubstr(R"("size":7)"), "u1 1234567", "u1 67", R"(upload_end {"upload_id":"u1"})"));
}

TEST_F(ImageCommand, Upload_LargeFile_LeavesRoomForOtherUploadsOfItsUser) {
  constexpr std::size_t kMib = std::size_t{1} << 20;
  WriteFile(folder_.File("a.iso"), std::string(9 * kMib, 'x'));
  std::size_t received = 0;
  const ApiHost host([&](const std::string& method, const Json::Value&) -> std::optional<ApiHost::Reply> {
    if (method == "upload_begin") return ApiHost::Success(R"({"upload_id":"u1","image_id":"u1","received":0})");
    if (method == "upload_end") return ApiHost::Success(R"({"image_id":"u1"})");
    received += received == 0 ? kMib : 2 * kMib;
    return ApiHost::Success(R"({"received":)" + std::to_string(received) + "}");
  });
  const auto result = RunOn(host, {"image", "add", "a", folder_.File("a.iso"), "--upload"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  std::vector<std::size_t> sizes;
  for (const std::string& call : host.calls()) {
    if (call.starts_with("u1 ")) sizes.push_back(call.size() - std::string("u1 ").size());
  }
  EXPECT_THAT(sizes, ElementsAre(kMib, 2 * kMib, 2 * kMib, 2 * kMib, 2 * kMib));
}

TEST_F(ImageCommand, RepositoryAcceptAndRemove_Name_SendItsId) {
  const ApiHost host(With(kRepositories));
  EXPECT_EQ(RunOn(host, {"repository", "accept", "pool-1"}).output,
            "Accepted the current storage of the repository 'r1'\n");
  EXPECT_EQ(RunOn(host, {"repository", "remove", "pool-1"}).output,
            "Removed the repository 'pool-1'. Its files stay.\n");
  EXPECT_THAT(host.calls(), ElementsAre("list {}", R"(accept {"repository_id":"r1"})", "list {}",
                                        R"(remove {"repository_id":"r1"})"));
  EXPECT_EQ(RunOn(host, {"repository", "accept", "twin"}).errors,
            "vexa: Several repositories are called 'twin'. Use one of the ids r3, r4; 'vexa repository list --ids' "
            "shows which is which\n");
  EXPECT_EQ(RunOn(host, {"repository", "accept", "poo"}).errors,
            "vexa: There is no repository called 'poo'; did you mean 'pool-1'? See 'vexa repository list'\n");
}

}  // namespace
}  // namespace vexa::test
