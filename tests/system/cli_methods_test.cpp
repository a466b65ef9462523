// Every method for users has a command: a real daemon counts which methods the commands call.
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/support/vexad_client.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::chrono::seconds kTimeout{60};

// In this order, on an empty host that simulates its guests. Some are refused, which their method has to say.
const std::vector<std::vector<std::string>> kCommands = {
    {"host", "list"},
    {"host", "show"},
    {"host", "edit", "HOST", "--name", "nas-1"},
    {"cluster", "settings"},
    {"cluster", "settings", "--auto-select-host", "on"},
    {"repository", "add", "pool"},
    {"repository", "list"},
    {"repository", "get", "pool"},
    {"repository", "limits", "pool", "--soft", "80", "--hard", "95"},
    {"repository", "rename", "pool", "main"},
    {"repository", "accept", "main"},
    {"network", "add", "lan", "--bridge", "br7"},
    {"network", "list"},
    {"network", "show", "lan"},
    {"network", "edit", "lan", "--description", "The lab"},
    {"image", "add", "live", "FILE", "--upload"},
    {"image", "uploads"},
    {"call", "VEXA.Virtualization.Image", "upload_begin", "UPLOAD"},
    {"image", "cancel-upload", "unfinished"},
    {"image", "list"},
    {"image", "rename", "live", "installer"},
    {"image", "remove", "installer"},
    {"image", "add", "by-path", "FILE"},
    {"guest", "create", "web-1", "--repository", "main", "--memory", "64MiB"},
    {"guest", "list"},
    {"guest", "status", "web-1"},
    {"guest", "get", "web-1"},
    {"guest", "set", "web-1", "desc=The shop"},
    {"guest", "start", "web-1"},
    {"guest", "info", "web-1"},
    {"guest", "apply", "web-1"},
    {"guest", "console", "web-1"},
    {"guest", "screenshot", "web-1", "PICTURE"},
    {"guest", "type", "web-1", "x"},
    {"guest", "suspend", "web-1"},
    {"guest", "resume", "web-1"},
    {"guest", "save", "web-1"},
    {"guest", "restore", "web-1"},
    {"guest", "discard-saved", "web-1"},
    {"guest", "kill", "web-1"},
    {"guest", "recover", "web-1", "--machine-is-off"},
    {"user", "add", "bob", "--group", "staff", "--password-stdin"},
    {"user", "passwd", "bob", "--password-stdin"},
    {"user", "list"},
    {"user", "grant", "bob", "web-1"},
    {"user", "grants", "bob"},
    {"guest", "grants", "web-1"},
    {"user", "revoke", "bob", "web-1"},
    {"user", "advanced", "bob"},
    {"user", "advanced", "--show", "bob"},
    {"user", "drop-grants", "bob"},
    {"user", "group", "bob", "crew"},
    {"group", "list"},
    {"group", "del", "staff"},
    {"log"},
    {"whoami"},
    {"session", "list"},
    {"session", "end", "--user", "bob"},
    {"user", "del", "bob"},
    {"guest", "delete", "web-1", "--yes"},
    {"guest", "create", "web-2", "--repository", "main", "--memory", "64MiB"},
    {"guest", "release", "web-2"},
    {"import", "GUEST"},
    {"network", "remove", "lan"},
    {"repository", "remove", "main"},
    {"host", "forget", "nas-1", "--machine-is-off"},
    {"host", "revoke", "nas-1"},
};

// Methods that a command calls only on occasion.
const std::set<std::string> kRarelyCalled = {
    "VEXA.Core.Session/info",                  // of `vexa whoami`, on a host of a version without `rights`
    "VEXA.Virtualization.Image/upload_status"  // of `vexa image add --upload`, after an interruption: upload_test
};

class CliMethods : public CliTest {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(folder_.File("images"));
    host_ = std::make_unique<Process>(ProcessOptions{
        .argv = {VEXAD_PROGRAM, "--data", folder_.File("data"), "--socket", folder_.File("vexad.sock"), "--listen",
                 "127.0.0.1:0", "--log", "stderr", "--hypervisor", "test", "--image-roots", folder_.File("images"),
                 "--upload-reserve", "0"}});  // the disk of the test's machine may be almost full
    ASSERT_TRUE(host_->WaitForText("Ready.", kTimeout)) << host_->errors();
    WriteFile(folder_.File("images/disk.iso"), "not much");
    WriteFile(folder_.File("guest.xml"),
              "<domain><name>old</name><uuid>11111111-2222-4333-8444-555555555555</uuid><memory unit='MiB'>64</memory>"
              "</domain>");
    std::ifstream(folder_.File("data/host-id")) >> host_id_;
  }

  ProcessResult Vexa(std::vector<std::string> words, const std::string& input = "a good password\n") const {
    for (std::string& word : words) {
      if (word == "HOST") word = host_id_;
      if (word == "FILE") word = folder_.File("images/disk.iso");
      if (word == "UPLOAD") word = R"({"name":"unfinished","size":9,"sha256":")" + std::string(64, 'a') + "\"}";
      if (word == "PICTURE") word = folder_.File("screen.png");
      if (word == "GUEST") word = folder_.File("guest.xml");
    }
    return Run(std::move(words), input);
  }

  std::string Page(const std::string& path) const {
    HttpClient client(UnixSocket(folder_.File("vexad.sock")));
    return client.Get(path).body;
  }

  // "API/method" of the methods that have been called.
  std::set<std::string> Called() const {
    const std::string begin = "vexa_request_duration_seconds_count{api=\"";
    const std::string middle = "\",method=\"";
    std::istringstream metrics(Page("/metrics"));
    std::set<std::string> called;
    for (std::string line; std::getline(metrics, line);) {
      const std::size_t split = line.find(middle);
      if (!line.starts_with(begin) || split == std::string::npos || line.ends_with("} 0")) continue;
      const std::size_t method = split + middle.size();
      called.insert(line.substr(begin.size(), split - begin.size()) + "/" +
                    line.substr(method, line.find('"', method) - method));
    }
    return called;
  }

  // "API/method" of the methods for users in the API description.
  std::set<std::string> Described() const {
    const std::string prefix = "/webapi/";
    const Json::Value document = Require(ParseJson(Page("/openapi.json")));
    std::set<std::string> described;
    const Json::Value& paths = json::Member(document, "paths");
    for (const std::string& path : json::MemberNames(paths)) {
      const Json::Value& operation = json::Member(json::Member(paths, path), "post");
      if (!path.starts_with(prefix) || json::StringMember(operation, "x-vexa-access") == "host") continue;
      described.insert(path.substr(prefix.size()));
    }
    return described;
  }

  std::string host_id_;
  std::unique_ptr<Process> host_;
};

TEST_F(CliMethods, EachMethodForUsers_IsCalledByACommand) {
  for (const std::vector<std::string>& words : kCommands) {
    const ProcessResult result = Vexa(words);
    const bool is_answered = result.exit_code == 0 || result.exit_code == 1;
    EXPECT_TRUE(is_answered) << words[0] << " " << words.back() << ": " << result.errors;
  }
  ASSERT_EQ(Vexa({"user", "add", "alice", "--group", "administrators", "--password-stdin"}).exit_code, 0);
  const std::string server = NetworkOf(*host_).url;
  const ProcessResult login = Vexa({"login", "--server", server, "--password-stdin", "alice"});
  EXPECT_EQ(login.exit_code, 0) << login.errors;
  EXPECT_EQ(Vexa({"logout"}).exit_code, 0);

  const std::set<std::string> called = Called();
  std::set<std::string> described = Described();
  EXPECT_GT(described.size(), 60U);
  for (const std::string& method : kRarelyCalled) EXPECT_EQ(described.erase(method), 1U) << method;
  for (const std::string& method : described) EXPECT_TRUE(called.contains(method)) << method << " has no command";
}

}  // namespace
}  // namespace vexa::test
