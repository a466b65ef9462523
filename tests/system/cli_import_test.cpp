// vexa import against servers that answer well and badly.
#include <sys/wait.h>

#include <atomic>

#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"
#include "tests/system/cli_terminal.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;

// The id of the guest with this number.
std::string IdOf(int number) { return "11111111-2222-4333-8444-5555" + std::to_string(10'000'000 + number); }

Json::Value Results(const Json::Value& parameters) {
  Json::Value data(Json::objectValue);
  data["results"] = Json::Value(Json::arrayValue);
  for (const Json::Value& guest : json::Elements(json::Member(parameters, "guests"))) {
    const std::string xml = json::String(json::Member(guest, "xml"));
    Json::Value& result = data["results"].append(Json::Value(Json::objectValue));
    const std::size_t begin = xml.find("<name>") + 6;
    result["name"] = xml.substr(begin, xml.find("</name>") - begin);
    result["guest_id"] = xml.substr(xml.find("<uuid>") + 6, 36);
    result["replaced"] = json::Bool(json::Member(parameters, "replace"));
    result["disks"] = 1;
    result["nics"] = 0;
    result["notes"].append("A note.");
    result["elements"].append(Parse(R"({"path":"devices/tpm","outcome":"kept\u001b"})"));
    if (json::Bool(json::Member(parameters, "dry_run"))) result["records"]["id"] = result["guest_id"];
  }
  return data;
}

class ImportCommand : public CliTest {
 protected:
  // Imports everything.
  static std::optional<ApiHost::Reply> Accept(const std::string&, const Json::Value& parameters) {
    return ApiHost::Success(json::ToText(Results(parameters)));
  }
  // One XML file for each guest.
  std::vector<std::string> MakeFiles(int count) const {
    std::vector<std::string> files;
    for (int i = 0; i < count; ++i) {
      files.push_back(folder_.File("g" + std::to_string(i) + ".xml"));
      WriteFile(files.back(), "<domain><name>g" + std::to_string(i) + "</name><uuid>" + IdOf(i) +
                                  "</uuid><memory unit='MiB'>64</memory></domain>");
    }
    return files;
  }
  ProcessOptions ProgramOn(const ApiHost& host, std::vector<std::string> arguments, int count) const {
    SaveLogin(host.url());
    arguments.insert(arguments.begin(), "import");
    for (std::string& file : MakeFiles(count)) arguments.push_back(std::move(file));
    return Program(std::move(arguments));
  }
  ProcessResult RunOn(const ApiHost& host, std::vector<std::string> arguments, int count) const {
    return RunProcess(ProgramOn(host, std::move(arguments), count));
  }
  // What the calls have sent.
  static std::vector<Json::Value> Sent(const ApiHost& host) {
    std::vector<Json::Value> sent;
    for (const std::string& call : host.calls()) {
      EXPECT_THAT(call, StartsWith("import "));
      sent.push_back(Parse(call.substr(call.find(' ') + 1)));
    }
    return sent;
  }
};

// Ids come before names that look like ids.
TEST_F(ImportCommand, Import_NamesOfObjects_AreSentAsIds) {
  const std::string id = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
  const std::string first = "11111111-2222-4333-8444-000000000001";
  const std::string second = "11111111-2222-4333-8444-000000000002";
  const std::string odd = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e9";
  const ApiHost host([&](const std::string& method, const Json::Value& parameters) -> std::optional<ApiHost::Reply> {
    if (method == "import") return Accept(method, parameters);
    return ApiHost::Success(R"({"repositories":[{"repository_id":")" + first +
                            R"(","name":"pool"},{"repository_id":")" + second + R"(","name":")" + odd +
                            R"("}],"hosts":[{"host_id":")" + second +
                            R"(","name":"nas-1"}],"networks":[{"network_id":")" + id +
                            R"(","name":"lan"},{"network_id":"n2","name":"l=n"}]})");
  });
  const auto sent = [&](std::vector<std::string> words) {
    const auto result = RunOn(host, std::move(words), 2);
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    return Parse(host.Last("import").substr(std::string("import ").size()))["guests"][1];
  };
  const Json::Value named =
      sent({"--repository", "pool", "--host", "nas-1", "--network", "br0=lan", "--network", "br1=" + id});
  EXPECT_EQ(named["repository_id"], first);
  EXPECT_EQ(named["host_id"], second);
  EXPECT_EQ(named["networks"], Parse(R"({"br0":")" + id + R"(","br1":")" + id + "\"}"));
  EXPECT_EQ(host.Count("list"), 3) << "each kind once";
  const Json::Value by_id = sent({"--repository-id", odd, "--host-id", id});
  EXPECT_EQ(by_id["repository_id"], second);
  EXPECT_EQ(by_id["host_id"], id) << "the server says whether there is one";
  EXPECT_EQ(host.Count("list"), 5);
  const int imports = host.Count("import");
  const auto unknown = RunOn(host, {"--repository", "pol"}, 2);
  EXPECT_EQ(unknown.exit_code, 1);
  EXPECT_EQ(unknown.errors,
            "vexa: There is no repository called 'pol'; did you mean 'pool'? See 'vexa repository list'\n");
  const std::string manifest = folder_.File("m.json");
  WriteFile(manifest, R"({"host":"nobody","guests":[{"file":"g0.xml"}]})");
  EXPECT_EQ(RunOn(host, {"--manifest", manifest}, 0).errors,
            "vexa: There is no host called 'nobody'; see 'vexa host list'\n");
  EXPECT_EQ(host.Count("import"), imports) << "nothing was sent";
}

TEST_F(ImportCommand, Import_ManyGuests_AreSentInBatchesAndReported) {
  const ApiHost host(Accept);
  const auto result = RunOn(host, {}, 40);
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  std::string expected;
  for (int i = 0; i < 40; ++i) {
    const std::string name = "g" + std::to_string(i);
    expected += folder_.File(name + ".xml") + ": imported '" + name + "' (" + IdOf(i) +
                "): 1 disk, 0 network interfaces\n  A note.\n  devices/tpm: kept\\x1b\n";
  }
  EXPECT_EQ(result.output, expected);
  const std::vector<Json::Value> sent = Sent(host);
  ASSERT_THAT(sent, SizeIs(3));
  EXPECT_EQ(sent[0]["guests"].size(), 16u);
  EXPECT_EQ(sent[2]["guests"].size(), 8u);
  for (const char* member : {"replace", "dry_run", "planned"}) EXPECT_FALSE(sent[0].isMember(member)) << member;
}

TEST_F(ImportCommand, DryRun_SeveralBatches_SendsEarlierPlansWithEachBatch) {
  const ApiHost host(Accept);
  const auto result = RunOn(host, {"--dry-run", "--replace"}, 20);
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  const Json::Value printed = Parse(result.output);
  ASSERT_EQ(printed.size(), 20u);
  EXPECT_EQ(printed[19]["id"], IdOf(19));
  EXPECT_EQ(printed[19]["source"], folder_.File("g19.xml"));
  const std::vector<Json::Value> sent = Sent(host);
  ASSERT_THAT(sent, SizeIs(2));
  EXPECT_TRUE(sent[0]["dry_run"].asBool());
  EXPECT_TRUE(sent[0]["replace"].asBool());
  EXPECT_FALSE(sent[0].isMember("planned"));
  EXPECT_EQ(sent[1]["planned"].size(), 16u);
  EXPECT_EQ(sent[1]["planned"][IdOf(3)], "g3");
}

TEST_F(ImportCommand, Import_SomeGuestsFail_AreReportedAndOthersSent) {
  const ApiHost host([](const std::string&, const Json::Value& parameters) -> std::optional<ApiHost::Reply> {
    Json::Value data = Results(parameters);
    data["results"][0].removeMember("notes");
    data["results"][0]["error"] = Parse(R"({"code":990,"message":"m.","reason":"The name \u001b[2J is taken"})");
    data["results"][1]["error"] = Parse(R"({"code":992,"message":"Without a reason."})");
    return ApiHost::Success(json::ToText(data));
  });
  WriteFile(folder_.File("bad.xml"), "<domain>");
  const auto result = RunOn(host, {folder_.File("none.xml"), folder_.File("bad.xml")}, 3);
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors,
              AllOf(HasSubstr("none.xml: Cannot open"), HasSubstr("bad.xml: "),
                    HasSubstr("g0.xml: The name \\x1b[2J is taken\n"), HasSubstr("g1.xml: Without a reason.\n"),
                    HasSubstr("vexa: 4 of 5 guests could not be imported\n")));
  EXPECT_THAT(result.output, AllOf(HasSubstr("g2.xml: imported 'g2'"), Not(HasSubstr("g1.xml"))));
  ASSERT_THAT(Sent(host), SizeIs(1));
  EXPECT_EQ(Sent(host)[0]["guests"].size(), 3u);
}

TEST_F(ImportCommand, Import_ServerBusy_IsRetried) {
  std::atomic<int> asked = 0;
  const ApiHost host([&](const std::string& method, const Json::Value& parameters) {
    return ++asked < 3 ? ApiHost::Failure(108, "The host is busy. Try again later.") : Accept(method, parameters);
  });
  const auto result = RunOn(host, {}, 1);
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(asked, 3);
}

TEST_F(ImportCommand, Import_CallRefused_EndsImport) {
  std::atomic<int> asked = 0;
  const ApiHost host([&](const std::string& method, const Json::Value& parameters) {
    return ++asked == 1 ? Accept(method, parameters) : ApiHost::Failure(104, "You may not call this method.");
  });
  const auto result = RunOn(host, {}, 40);
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, StartsWith("vexa: You may not call this method (104)."));
  EXPECT_THAT(result.errors, HasSubstr("\nvexa: Stopped after 16 of 40 guests\n"));
  EXPECT_EQ(asked, 2);
  const auto denied = RunOn(host, {}, 1);
  EXPECT_EQ(denied.exit_code, 1);
  EXPECT_THAT(denied.errors, Not(HasSubstr("Stopped")));
}

TEST_F(ImportCommand, Reply_UnexpectedForm_IsAnError) {
  for (const char* data : {"null", "[]", "{}", R"({"results":7})", R"({"results":[]})", R"({"results":[{},{}]})"}) {
    const ApiHost host([&](const auto&, const auto&) { return ApiHost::Success(data); });
    const auto result = RunOn(host, {}, 1);
    EXPECT_EQ(result.exit_code, 1) << data;
    EXPECT_THAT(result.errors, HasSubstr("contains no results of the import")) << data;
    EXPECT_THAT(result.errors, HasSubstr("the next 1 may have been imported or not. See 'vexa guest list'")) << data;
    EXPECT_THAT(result.output, IsEmpty());
  }
  const ApiHost odd(
      [](const auto&, const auto&) { return ApiHost::Success(R"({"results":[7,{"name":{},"notes":3}]})"); });
  const auto result = RunOn(odd, {}, 2);
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, HasSubstr("g0.xml: The server's reply contains no result of a guest"));
  EXPECT_THAT(result.output, HasSubstr("g1.xml: imported '' (): 0 disks, 0 network interfaces\n"));
}

TEST_F(ImportCommand, Output_WithJsonOrQuiet_ChangesForm) {
  const ApiHost host(Accept);
  EXPECT_EQ(RunOn(host, {"--quiet"}, 2).output, "");
  EXPECT_EQ(Parse(RunOn(host, {"--quiet", "--dry-run"}, 2).output).size(), 2u);
  const Json::Value results = Parse(RunOn(host, {"--json", folder_.File("none.xml")}, 1).output);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_THAT(results[0]["error"]["reason"].asString(), HasSubstr("Cannot open"));
  EXPECT_EQ(results[1]["source"], folder_.File("g0.xml"));
  EXPECT_EQ(results[1]["name"], "g0");
}

TEST_F(ImportCommand, Import_OnTerminal_ShowsProgress) {
  const ApiHost host(Accept);
  OnTerminal terminal(ProgramOn(host, {}, 20));
  EXPECT_TRUE(terminal.WaitFor("0 of 20 guests")) << terminal.shown();
  EXPECT_TRUE(terminal.WaitFor("16 of 20 guests")) << terminal.shown();
  EXPECT_TRUE(terminal.WaitFor("imported 'g19'")) << terminal.shown();
  const int status = terminal.Finish();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << terminal.shown();
}

TEST_F(ImportCommand, Import_EmptyManifest_IsReportedAndNotSent) {
  const ApiHost host(Accept);
  SaveLogin(host.url());
  WriteFile(folder_.File("m.json"), R"({"guests":[]})");
  EXPECT_EQ(Run({"import", "--manifest", folder_.File("m.json")}).output, "There was nothing to import.\n");
  EXPECT_EQ(Run({"import", "--manifest", folder_.File("m.json"), "--dry-run"}).output, "[]\n");
  EXPECT_THAT(host.calls(), IsEmpty());
}

TEST_F(ImportCommand, Import_InvalidArguments_AreNotSent) {
  const ApiHost host(Accept);
  EXPECT_EQ(RunOn(host, {"--data", "/d"}, 1).exit_code, 2);
  EXPECT_EQ(RunOn(host, {}, 0).exit_code, 2);
  EXPECT_EQ(RunOn(host, {"--all", "test:///default"}, 1).exit_code, 2);
  EXPECT_THAT(host.calls(), IsEmpty());
}

TEST_F(ImportCommand, Import_NoServer_CreatesNothing) {
  const std::vector<std::string> files = MakeFiles(1);
  const auto result = Run({"import", files[0]});
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_THAT(result.output, IsEmpty());
  int entries = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) entries += entry.exists() ? 1 : 0;
  EXPECT_EQ(entries, 1) << "only the definition";
}

}  // namespace
}  // namespace vexa::test
