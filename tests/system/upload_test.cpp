// Uploads of images over real sockets: who may send them, pieces of every form, and a daemon and a client that are
// killed on the way.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "host/base/sha256.h"
#include "json/readers.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_daemon.h"
#include "tests/support/vexad_client.h"
#include "tests/support/waiting.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;
namespace json = VexaVirtualization::json;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kImageApi = "/webapi/VEXA.Virtualization.Image/";
constexpr std::size_t kMib = std::size_t{1} << 20;

std::string DigestOf(const std::string& bytes) {
  Sha256 sha256;
  sha256.Add(bytes);
  return sha256.Digest().value_or("");
}

std::string RandomBytes(std::size_t count, unsigned seed = 1) {
  std::mt19937_64 random(seed);
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

std::string ReadAll(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

std::string Range(std::uint64_t first, std::uint64_t last, std::uint64_t total) {
  return "Content-Range: bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" + std::to_string(total);
}

HttpReply Put(HttpClient& client, const std::string& id, const std::string& range, const std::string& bytes) {
  return client.Send("PUT", "/upload/" + id, {range, "Content-Type: application/octet-stream", "Expect:"}, bytes);
}

Json::Value BeginParameters(const std::string& name, const std::string& content) {
  Json::Value parameters(Json::objectValue);
  parameters["name"] = name;
  parameters["size"] = Json::UInt64{content.size()};
  parameters["sha256"] = DigestOf(content);
  return parameters;
}

std::string IdParameter(const std::string& id) { return R"({"upload_id":")" + id + "\"}"; }

Json::Value DataOf(const HttpReply& reply) { return json::Member(JsonBody(reply), "data"); }
std::string ReasonOf(const HttpReply& reply) {
  return json::StringMember(json::Member(JsonBody(reply), "error"), "reason");
}
Json::Value DetailsOf(const HttpReply& reply) {
  return json::Member(json::Member(JsonBody(reply), "error"), "details");
}

class UploadTest : public ::testing::Test {
 protected:
  UploadTest()
      : daemon_([](daemon::Config& config) {
          config.image_roots = {config.data_directory + "/images"};
          config.upload_count = 3;
          config.upload_size = 1;
        }) {}

  std::string Images() const { return daemon_.config().image_roots.front(); }

  static HttpReply Call(HttpClient& client, const std::string& method, const std::string& parameters) {
    return client.PostJson(kImageApi + method, parameters);
  }
  static std::string Begin(HttpClient& client, const std::string& name, const std::string& content) {
    const HttpReply reply = Call(client, "upload_begin", json::ToText(BeginParameters(name, content)));
    EXPECT_EQ(ErrorCode(reply), 0) << reply.body;
    return json::StringMember(DataOf(reply), "upload_id");
  }

  TestDaemon daemon_;
  const std::string content_ = RandomBytes(100'000);
};

TEST_F(UploadTest, Administrator_SendsPieces_ImageIsListed) {
  HttpClient admin = daemon_.TcpAs("admin");
  const std::string id = Begin(admin, "debian", content_);
  EXPECT_EQ(json::UInt64(json::Member(DataOf(Put(admin, id, Range(0, 59'999, 100'000), content_.substr(0, 60'000))),
                                      "received")),
            60'000u);
  const HttpReply status = Call(admin, "upload_status", IdParameter(id));
  EXPECT_EQ(json::UInt64(json::Member(DataOf(status), "received")), 60'000u);
  EXPECT_EQ(ErrorCode(Put(admin, id, Range(60'000, 99'999, 100'000), content_.substr(60'000))), 0);
  const HttpReply ended = Call(admin, "upload_end", IdParameter(id));
  ASSERT_EQ(ErrorCode(ended), 0) << ended.body;
  EXPECT_EQ(json::StringMember(DataOf(ended), "image_id"), id);
  EXPECT_EQ(ReadAll(Images() + "/debian.iso"), content_);
  const Json::Value listed = DataOf(Call(admin, "list", "{}"));
  EXPECT_EQ(json::UInt64(json::Member(json::Element(json::Member(listed, "images"), 0), "size")), 100'000u);
  const HttpReply log = admin.PostJson("/webapi/VEXA.Virtualization.Log/list", "{}");
  const Json::Value entry = json::Element(json::Member(DataOf(log), "entries"), 0);
  EXPECT_EQ(json::StringMember(entry, "text"), "The image [debian] has been uploaded.");
  EXPECT_EQ(json::StringMember(entry, "user"), "admin");
}

TEST_F(UploadTest, OrdinaryUsers_AreRefused) {
  HttpClient admin = daemon_.TcpAs("admin");
  const std::string id = Begin(admin, "debian", content_);
  const std::string range = Range(0, 99'999, 100'000);
  for (const char* user : {"adam", "grace", "mallory"}) {
    HttpClient client = daemon_.TcpAs(user);
    const HttpReply begun = Call(client, "upload_begin", json::ToText(BeginParameters("other", content_)));
    EXPECT_EQ(ErrorCode(begun), 104);
    for (const char* method : {"upload_status", "upload_end", "upload_cancel"}) {
      EXPECT_EQ(ErrorCode(Call(client, method, IdParameter(id))), 104) << method;
    }
    EXPECT_EQ(ErrorCode(Put(client, id, range, content_)), 104) << user;
  }
  HttpClient stranger = daemon_.Tcp();
  EXPECT_EQ(ErrorCode(Put(stranger, id, range, content_)), 103);
  HttpClient wrong = daemon_.Tcp();
  wrong.SetHeader("Authorization", "Bearer nothing");
  EXPECT_EQ(ErrorCode(Put(wrong, id, range, content_)), 103);
  EXPECT_EQ(json::UInt64(json::Member(DataOf(Call(admin, "upload_status", IdParameter(id))), "received")), 0u);
}

TEST_F(UploadTest, Cookie_NeedsCsrfHeader) {
  HttpClient client = daemon_.Tcp();
  const HttpReply login =
      client.PostJson("/webapi/VEXA.Core.Session/login",
                      std::string(R"({"user":"admin","password":")") + kTestPassword + R"(","cookie":true})");
  ASSERT_EQ(ErrorCode(login), 0) << login.body;
  HttpClient admin = daemon_.TcpAs("admin");
  const std::string id = Begin(admin, "debian", content_);
  const std::string cookie = login.headers.at("set-cookie");
  client.SetHeader("Cookie", cookie.substr(0, cookie.find(';')));
  const std::string range = Range(0, 99'999, 100'000);
  EXPECT_EQ(ErrorCode(Put(client, id, range, content_)), 105);
  client.SetHeader("X-Vexa-CSRF", json::StringMember(DataOf(login), "csrf_token"));
  EXPECT_EQ(ErrorCode(Put(client, id, range, content_)), 0);
}

TEST_F(UploadTest, UnixSocket_OwnUser_Uploads) {
  HttpClient client = daemon_.Unix();
  const std::string id = Begin(client, "debian", content_);
  EXPECT_EQ(ErrorCode(Put(client, id, Range(0, 99'999, 100'000), content_)), 0);
  EXPECT_EQ(ErrorCode(Call(client, "upload_end", IdParameter(id))), 0);
}

TEST_F(UploadTest, Piece_OfWrongForm_IsRefused) {
  HttpClient admin = daemon_.TcpAs("admin");
  const std::string id = Begin(admin, "debian", content_);
  for (const char* range : {"Content-Range: bytes 0-9", "Content-Range: 0-9/100000", "Content-Range: bytes 9-0/100000",
                            "Content-Range: bytes 0-9/*", "Content-Range: bytes */100000", "Content-Range: bytes 0-9/9",
                            "Content-Range: bytes -1-9/100000", "Content-Range: bytes 0-9/100000x",
                            "Content-Range: bytes 0-99999999999999999999/100000", "X-No-Range: 1"}) {
    const HttpReply reply = Put(admin, id, range, "0123456789");
    EXPECT_EQ(ErrorCode(reply), 401) << range;
    EXPECT_EQ(ReasonOf(reply), "The header Content-Range is not 'bytes FIRST-LAST/TOTAL'");
  }
  const HttpReply shorter = Put(admin, id, Range(0, 9, 100'000), "012345678");
  EXPECT_EQ(ErrorCode(shorter), 401);
  EXPECT_EQ(ReasonOf(shorter), "The body does not have the length that Content-Range says");
  const HttpReply chunked =
      admin.Send("PUT", "/upload/" + id, {Range(0, 9, 100'000), "Transfer-Encoding: chunked", "Expect:"}, "012345678");
  EXPECT_EQ(ErrorCode(chunked), 401) << chunked.body;
  const HttpReply large = Put(admin, id, Range(0, 8 * kMib, 9 * kMib), std::string(8 * kMib + 1, 'x'));
  // The server may close the connection before all of it is sent.
  if (large.arrived()) {
    EXPECT_EQ(ErrorCode(large), 112) << large.body;
  }
  HttpClient other = daemon_.TcpAs("admin");
  EXPECT_EQ(other.Get("/upload/" + id).status, 405);
  EXPECT_EQ(ErrorCode(Put(other, "../../etc/passwd", Range(0, 9, 10), "0123456789")), 109);
  EXPECT_EQ(ErrorCode(Put(other, kTestGuest, Range(0, 9, 10), "0123456789")), 403);
  const HttpReply ahead = Put(other, id, Range(10, 19, 100'000), "0123456789");
  EXPECT_EQ(ahead.status, 409);
  EXPECT_EQ(ErrorCode(ahead), 993);
  EXPECT_EQ(json::UInt64(json::Member(DetailsOf(ahead), "received")), 0u);
}

TEST_F(UploadTest, LargestPiece_IsTaken) {
  const std::string content = RandomBytes(8 * kMib + 7);
  HttpClient admin = daemon_.TcpAs("admin");
  const std::string id = Begin(admin, "large", content);
  EXPECT_EQ(ErrorCode(Put(admin, id, Range(0, 8 * kMib - 1, content.size()), content.substr(0, 8 * kMib))), 0);
  EXPECT_EQ(ErrorCode(Put(admin, id, Range(8 * kMib, 8 * kMib + 6, content.size()), content.substr(8 * kMib))), 0);
  EXPECT_EQ(ErrorCode(Call(admin, "upload_end", IdParameter(id))), 0);
  EXPECT_EQ(ReadAll(Images() + "/large.iso"), content);
}

TEST_F(UploadTest, Begin_InvalidOrTooMuch_IsRefused) {
  HttpClient admin = daemon_.TcpAs("admin");
  const auto code = [&](Json::Value parameters) {
    return ErrorCode(Call(admin, "upload_begin", json::ToText(parameters)));
  };
  for (const char* name : {"../evil", "a/b", "..", ".x", ""}) EXPECT_EQ(code(BeginParameters(name, content_)), 401);
  for (const char* size : {"-1", "2.0", "\"7\"", "null", "18446744073709551616", "0"}) {
    Json::Value parameters = BeginParameters("a", content_);
    parameters["size"] = JsonBody({"", 200, {}, size});
    EXPECT_EQ(code(parameters), 401) << size;
  }
  Json::Value large = BeginParameters("a", content_);
  large["size"] = Json::UInt64{(std::uint64_t{1} << 30) + 1};
  EXPECT_EQ(code(large), 996);
  Json::Value elsewhere = BeginParameters("a", content_);
  elsewhere["folder"] = "/etc";
  EXPECT_EQ(code(elsewhere), 401);
  for (const char* name : {"a", "b", "c"}) EXPECT_EQ(code(BeginParameters(name, content_)), 0);
  EXPECT_EQ(code(BeginParameters("d", content_)), 996);
}

TEST_F(UploadTest, End_WrongDigest_RemovesFile) {
  HttpClient admin = daemon_.TcpAs("admin");
  Json::Value parameters = BeginParameters("debian", content_);
  parameters["sha256"] = DigestOf("other");
  const std::string id = json::StringMember(DataOf(Call(admin, "upload_begin", json::ToText(parameters))), "upload_id");
  EXPECT_EQ(ErrorCode(Put(admin, id, Range(0, 99'999, 100'000), content_)), 0);
  const HttpReply ended = Call(admin, "upload_end", IdParameter(id));
  EXPECT_EQ(ended.status, 409);
  EXPECT_EQ(ErrorCode(ended), 994);
  EXPECT_TRUE(fs::is_empty(Images()));
  EXPECT_EQ(ErrorCode(Call(admin, "upload_end", IdParameter(id))), 403);
}

TEST_F(UploadTest, Cancel_RemovesFile) {
  HttpClient admin = daemon_.TcpAs("admin");
  const std::string id = Begin(admin, "debian", content_);
  EXPECT_EQ(ErrorCode(Put(admin, id, Range(0, 99'999, 100'000), content_)), 0);
  EXPECT_EQ(ErrorCode(Call(admin, "upload_cancel", IdParameter(id))), 0);
  EXPECT_TRUE(fs::is_empty(Images()));
  EXPECT_EQ(ErrorCode(Call(admin, "upload_cancel", IdParameter(id))), 403);
  EXPECT_EQ(ErrorCode(Call(admin, "upload_cancel", IdParameter("7"))), 401);
}

TEST_F(UploadTest, Remove_UploadedImage_FreesSpaceAndName) {
  HttpClient admin = daemon_.TcpAs("admin");
  for (int round = 0; round < 2; ++round) {
    const std::string id = Begin(admin, "debian", content_);
    EXPECT_EQ(ErrorCode(Put(admin, id, Range(0, 99'999, 100'000), content_)), 0);
    ASSERT_EQ(ErrorCode(Call(admin, "upload_end", IdParameter(id))), 0);
    EXPECT_EQ(ReadAll(Images() + "/debian.iso"), content_);
    const HttpReply removed = Call(admin, "remove", R"({"image_id":")" + id + "\"}");
    ASSERT_EQ(ErrorCode(removed), 0) << removed.body;
    EXPECT_EQ(json::StringMember(DataOf(removed), "file"), "removed");
    EXPECT_TRUE(fs::is_empty(Images()));
    EXPECT_EQ(ErrorCode(Call(admin, "remove", R"({"image_id":")" + id + "\"}")), 403);
  }
}

// A daemon as a program, and the command.
class UploadProgramTest : public ::testing::Test {
 protected:
  UploadProgramTest() { std::ofstream(Source(), std::ios::binary) << content_; }

  std::string Source() const { return folder_.File("source.iso"); }
  std::string Images() const { return folder_.File("images"); }

  std::unique_ptr<Process> Start() const {
    auto process = std::make_unique<Process>(ProcessOptions{
        .argv = {VEXAD_PROGRAM, "--data", folder_.File("data"), "--socket", folder_.File("s"), "--listen", "none",
                 "--hypervisor", "none", "--image-roots", Images(), "--upload-reserve", "1", "--log", "stderr"}});
    EXPECT_TRUE(process->WaitForText("Ready.", 60s)) << process->errors();
    return process;
  }
  HttpClient Client() const { return HttpClient(UnixSocket(folder_.File("s"))); }
  ProcessOptions Upload(const std::string& name) const {
    ProcessOptions options;
    options.argv = {VEXA_PROGRAM, "--socket", folder_.File("s"), "image", "add", name, Source(), "--upload"};
    options.environment["HOME"] = folder_.path();
    return options;
  }
  Json::Value List() const {
    HttpClient client = Client();
    return json::Member(DataOf(client.PostJson(std::string(kImageApi) + "list", "{}")), "images");
  }
  std::uint64_t BytesThere() const {
    std::uint64_t bytes = 0;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(Images(), ignored)) bytes += entry.file_size(ignored);
    return bytes;
  }

  TempDir folder_;
  const std::string content_ = RandomBytes(20 * kMib + 12'345);
};

TEST_F(UploadProgramTest, Command_UploadsFileAndPrintsId) {
  const auto daemon = Start();
  const ProcessResult result = RunProcess(Upload("debian-12"), 300s);
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  ASSERT_EQ(List().size(), 1u);
  EXPECT_EQ(result.output, json::StringMember(json::Element(List(), 0), "image_id") + "\n");
  EXPECT_EQ(ReadAll(Images() + "/debian-12.iso"), content_);
  const ProcessResult again = RunProcess(Upload("debian-12"), 300s);
  EXPECT_EQ(again.exit_code, 1);
  EXPECT_THAT(again.errors, HasSubstr("The name 'debian-12' is taken by the image"));
  EXPECT_THAT(again.output, IsEmpty());
}

TEST_F(UploadProgramTest, Remove_UploadedImage_ReportsWhetherTheFileWasRemoved) {
  const auto daemon = Start();
  const auto remove = [&] {
    ProcessOptions options = Upload("debian");
    options.argv.resize(3);
    options.argv.insert(options.argv.end(), {"image", "remove", "debian"});
    const ProcessResult result = RunProcess(options, 60s);
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    return result.output;
  };
  for (int round = 0; round < 2; ++round) {
    const ProcessResult added = RunProcess(Upload("debian"), 300s);
    ASSERT_EQ(added.exit_code, 0) << added.errors;
    EXPECT_EQ(remove(), "Removed the image 'debian' and its file.\n");
    EXPECT_EQ(BytesThere(), 0u);
  }
  ASSERT_EQ(RunProcess(Upload("debian"), 300s).exit_code, 0);
  fs::rename(Images() + "/debian.iso", Images() + "/moved.iso");
  std::ofstream(Images() + "/debian.iso") << "other";
  EXPECT_EQ(remove(), "Removed the image 'debian'. Its file stays: it is not the file that was uploaded.\n");
  EXPECT_EQ(ReadAll(Images() + "/debian.iso"), "other");
}

TEST_F(UploadProgramTest, Command_WrongArguments_AreRefused) {
  ProcessOptions options = Upload("a");
  options.argv[6] = folder_.path();
  EXPECT_THAT(RunProcess(options).errors, HasSubstr("is not a regular file"));
  options.argv[6] = folder_.File("absent");
  EXPECT_THAT(RunProcess(options).errors, HasSubstr("No such file or directory"));
  std::ofstream(folder_.File("empty")) << "";
  options.argv[6] = folder_.File("empty");
  EXPECT_THAT(RunProcess(options).errors, HasSubstr("is empty"));
  options = Upload("a");
  options.argv.insert(options.argv.end(), {"--id", kTestGuest});
  EXPECT_THAT(RunProcess(options).errors, HasSubstr("omit --id"));
  options = Upload("a\nb");
  EXPECT_THAT(RunProcess(options).errors, HasSubstr("An image's name is 1 to 128 bytes"));
  options = Upload("a");
  options.argv.back() = "--folder=/x";
  EXPECT_THAT(RunProcess(options).errors, HasSubstr("--folder needs --upload"));
}

TEST_F(UploadProgramTest, ClientKilled_SameCommandContinues) {
  const auto daemon = Start();
  for (std::uint64_t least : {std::uint64_t{1}, std::uint64_t{3} << 20}) {
    Process client(Upload("debian"));
    EXPECT_TRUE(Eventually([&] { return BytesThere() >= least; }));
    client.Signal(SIGKILL);
    (void)client.Wait(30s);
  }
  const ProcessResult result = RunProcess(Upload("debian"), 300s);
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(DigestOf(ReadAll(Images() + "/debian.iso")), DigestOf(content_));
  EXPECT_EQ(List().size(), 1u);
}

TEST_F(UploadProgramTest, DaemonKilled_ManyTimes_NeitherLosesNorHalvesImages) {
  constexpr int kKills = VEXA_UPLOAD_KILLS;
  std::mt19937 random(7);
  auto daemon = Start();
  int images = 0;
  int kills = 0;
  std::unique_ptr<Process> client;
  std::string name;
  while (kills < kKills) {
    if (!client) {
      name = "image-" + std::to_string(images);
      client = std::make_unique<Process>(Upload(name));
    }
    // Once something has arrived: somewhere in the rest of the upload, and also at its end.
    const std::uint64_t before = BytesThere();
    EXPECT_TRUE(Eventually([&] { return BytesThere() != before || !client->IsRunning(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 150));
    daemon->Signal(SIGKILL);
    (void)daemon->Wait(30s);
    ++kills;
    daemon = Start();
    if (const auto ended = client->Wait(0s)) {
      ASSERT_EQ(ended->code, 0) << client->errors();
      EXPECT_EQ(DigestOf(ReadAll(Images() + "/" + name + ".iso")), DigestOf(content_)) << name;
      ++images;
      client.reset();
    }
  }
  if (client) {
    const auto ended = client->Wait(300s);
    ASSERT_TRUE(ended && ended->code == 0) << client->errors();
    ++images;
  }
  EXPECT_GE(images, 1);
  RecordProperty("images", images);
  const Json::Value list = List();
  EXPECT_EQ(list.size(), static_cast<Json::ArrayIndex>(images));
  for (const Json::Value& image : json::Elements(list)) {
    EXPECT_EQ(DigestOf(ReadAll(json::StringMember(image, "path"))), DigestOf(content_));
  }
  int files = 0;
  for (const auto& entry : fs::directory_iterator(Images())) {
    EXPECT_FALSE(entry.path().filename().string().starts_with(".vexa-upload")) << entry.path();
    ++files;
  }
  EXPECT_EQ(files, images);
}

TEST_F(UploadProgramTest, TwoCommandsWithOneName_OneUploads) {
  const auto daemon = Start();
  ProcessOptions other = Upload("debian");
  std::ofstream(folder_.File("other.iso"), std::ios::binary) << RandomBytes(6 * kMib, 2);
  other.argv[6] = folder_.File("other.iso");
  Process first(Upload("debian"));
  Process second(other);
  const auto first_ended = first.Wait(300s);
  const auto second_ended = second.Wait(300s);
  ASSERT_TRUE(first_ended && second_ended);
  EXPECT_EQ(*first_ended->code + *second_ended->code, 1) << first.errors() << second.errors();
  EXPECT_THAT(first.errors() + second.errors(), HasSubstr("The name 'debian' is taken by the "));
  ASSERT_EQ(List().size(), 1u);
  const std::string& winner = *first_ended->code == 0 ? content_ : ReadAll(folder_.File("other.iso"));
  EXPECT_EQ(DigestOf(ReadAll(Images() + "/debian.iso")), DigestOf(winner));
}

// Repositories of a daemon whose guests are those of libvirt's test driver.
class RepositoryProgramTest : public ::testing::Test {
 protected:
  RepositoryProgramTest() {
    daemon_ = std::make_unique<Process>(
        ProcessOptions{.argv = {VEXAD_PROGRAM, "--data", folder_.File("data"), "--socket", folder_.File("s"),
                                "--listen", "none", "--image-roots", Images(), "--log", "stderr"}});
    EXPECT_TRUE(daemon_->WaitForText("Ready.", 60s)) << daemon_->errors();
  }
  std::string Images() const { return folder_.File("images"); }
  ProcessResult Vexa(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {VEXA_PROGRAM, "--socket", folder_.File("s"), "--json"});
    return RunProcess({.argv = arguments});
  }
  Json::Value Get() const { return JsonBody({"", 200, {}, Vexa({"repository", "get", "pool"}).output}); }

  TempDir folder_;
  std::unique_ptr<Process> daemon_;
};

TEST_F(RepositoryProgramTest, HardLimit_RefusesNewAndLargerDisks) {
  ASSERT_EQ(Vexa({"repository", "add", "pool"}).exit_code, 0);
  const std::vector<std::string> create{"guest", "create", "web", "--disk", "1GiB", "--net", "none"};
  // Every file system is fuller than that.
  ASSERT_EQ(Vexa({"repository", "limits", "pool", "--soft", "0", "--hard", "1"}).exit_code, 0);
  const ProcessResult refused = Vexa(create);
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_THAT(refused.errors, HasSubstr(" are used in the file system of the folder '"));
  EXPECT_THAT(refused.errors, HasSubstr("', and its limit is 1 %. Make room in it"));
  ASSERT_EQ(Vexa({"repository", "limits", "pool", "--hard", "0"}).exit_code, 0);
  const ProcessResult created = Vexa(create);
  ASSERT_EQ(created.exit_code, 0) << created.errors;
  const Json::Value guests = json::Member(Get(), "guests");
  ASSERT_EQ(guests.size(), 1u);
  EXPECT_EQ(json::StringMember(json::Element(guests, 0), "name"), "web");
  const Json::Value disk = json::Element(json::Member(json::Element(guests, 0), "vdisks"), 0);
  EXPECT_EQ(json::Member(disk, "size_mib"), 1024);
  EXPECT_GT(json::UInt64(json::Member(disk, "allocated")), 0u);
  ASSERT_EQ(Vexa({"repository", "limits", "pool", "--soft", "0", "--hard", "1"}).exit_code, 0);
  const std::string id = json::StringMember(disk, "vdisk_id");
  EXPECT_NE(Vexa({"guest", "set", "web", "--grow-disk", id + "=3"}).exit_code, 0);
  EXPECT_TRUE(daemon_->WaitForText("and its limit is 1 %", 30s)) << daemon_->errors();
  ASSERT_EQ(Vexa({"repository", "limits", "pool"}).exit_code, 0);
  // The next check has the space, by the settings of the host.
  EXPECT_TRUE(Eventually([&] {
    const Json::Value repository = Get();
    const Json::Value& space = json::Member(repository, "space");
    return json::UInt64(json::Member(space, "total")) > 0 && json::Int(json::Member(space, "hard_percent")) == 98;
  }));
}

}  // namespace
}  // namespace vexa::test
