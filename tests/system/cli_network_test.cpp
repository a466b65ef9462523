// vexa network against servers that answer well and badly.
#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

const std::string kHost = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
// Networks, and the hosts of the cluster.
const std::string kLists = R"({"networks":[
  {"network_id":"n1","name":"lan","kind":"nat","state":"ready","managed":true,"subnet":"192.168.100.0/24"},
  {"network_id":"n2","name":"b\u001b[2J","kind":"bridge","state":"failed","managed":false,"network_name":"br0"},
  {"network_id":"n3","name":"phones","kind":"vlan","state":"missing","managed":true,"vlan_id":42,"uplink":"eth0"},
  {"network_id":"n4","name":"twin"},{"network_id":"n5","name":"twin"}, 7, null],
  "hosts":[{"host_id":")" + kHost +
                           R"(","name":"nas-1"}]})";

class NetworkCommand : public CliTest {
 protected:
  // Lists as above, and `data` for the rest.
  static ApiHost::Answer With(const std::string& data = "null") {
    return [data](const std::string& method, const Json::Value&) -> std::optional<ApiHost::Reply> {
      return ApiHost::Success(method == "list" ? kLists : data);
    };
  }
  // What "add" or "edit" is sent.
  std::string Sent(std::vector<std::string> words) {
    const ApiHost host(With(R"({"network_id":"n9"})"));
    words.insert(words.begin(), "network");
    const auto result = RunOn(host, std::move(words));
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    return host.calls().empty() ? "" : host.calls().back();
  }
};

TEST_F(NetworkCommand, Add_EachKind_IsSent) {
  EXPECT_EQ(Sent({"add", "lan"}), R"(add {"kind":"nat","name":"lan"})");
  EXPECT_EQ(Sent({"add", "lan", "--kind", "isolated", "--subnet", "10.0.0.0/24", "--description", "Lab"}),
            R"(add {"description":"Lab","kind":"isolated","name":"lan","subnet":"10.0.0.0/24"})");
  EXPECT_EQ(Sent({"add", "--bridge", "br0"}), R"(add {"bridge":"br0","kind":"bridge","name":"br0"})");
  EXPECT_EQ(Sent({"add", "office", "--bridge", "br1", "--uplink", "eth1", "--move-addresses", "on"}),
            R"(add {"bridge":"br1","kind":"bridge","move_addresses":true,"name":"office","uplink":"eth1"})");
  EXPECT_EQ(
      Sent({"add", "phones", "--vlan", "42", "--uplink", "eth0", "--uplink-of", "nas-1=eth1"}),
      R"(add {"kind":"vlan","name":"phones","uplink":"eth0","uplinks":{")" + kHost + R"(":"eth1"},"vlan_id":42})");
  EXPECT_EQ(Sent({"add", "direct", "--kind", "macvtap", "--uplink", "eth0"}),
            R"(add {"kind":"macvtap","name":"direct","uplink":"eth0"})");
}

TEST_F(NetworkCommand, Add_PrintsTheId) {
  const ApiHost host(With(R"({"network_id":"n9"})"));
  EXPECT_EQ(RunOn(host, {"network", "add", "lan"}).output, "n9\n");
  EXPECT_EQ(Parse(RunOn(host, {"network", "add", "lan", "--json"}).output), Parse(R"({"network_id":"n9"})"));
}

TEST_F(NetworkCommand, Edit_Changes_AreSentWithTheId) {
  EXPECT_EQ(Sent({"edit", "lan", "--name", "lab", "--subnet", "10.0.0.0/24"}),
            R"(edit {"name":"lab","network_id":"n1","subnet":"10.0.0.0/24"})");
  EXPECT_EQ(Sent({"edit", "phones", "--uplink", "", "--vlan", "7"}),
            R"(edit {"network_id":"n3","uplink":"","vlan_id":7})");
  EXPECT_EQ(Sent({"edit", "lan", "--move-addresses", "off"}), R"(edit {"move_addresses":false,"network_id":"n1"})");
}

TEST_F(NetworkCommand, Edit_NameLikeAnId_IsFoundAsName) {
  const std::string id = "11111111-2222-4333-8444-555555555501";
  const std::string name = "11111111-2222-4333-8444-555555555502";
  const std::string unknown = "11111111-2222-4333-8444-555555555503";
  const ApiHost host([&](const std::string&, const Json::Value&) -> std::optional<ApiHost::Reply> {
    return ApiHost::Success(R"({"networks":[{"network_id":")" + id + R"(","name":"lan"},{"network_id":"n7","name":")" +
                            name + "\"}]}");
  });
  // The server says what is wrong with the unknown one.
  for (const auto& [word, sent] :
       {std::pair(id, id), std::pair(name, std::string("n7")), std::pair(unknown, unknown)}) {
    EXPECT_EQ(RunOn(host, {"network", "edit", word, "--name", "lab"}).exit_code, 0);
    EXPECT_EQ(host.Last("edit"), R"(edit {"name":"lab","network_id":")" + sent + "\"}");
  }
}

TEST_F(NetworkCommand, List_InactiveNetwork_IsShownAsNotActive) {
  const ApiHost host([](const std::string&, const Json::Value&) -> std::optional<ApiHost::Reply> {
    return ApiHost::Success(R"({"networks":[
        {"network_id":"n6","name":"default","kind":"nat","state":"ready","active":false,"managed":false}]})");
  });
  EXPECT_THAT(RunOn(host, {"network", "list"}).output,
              ::testing::ContainsRegex("\ndefault +nat +ready \\(not active\\) +no\n"));
}

TEST_F(NetworkCommand, Arguments_Invalid_AreNotSent) {
  const ApiHost host(With());
  for (const auto& [words, sentence] :
       {std::pair(std::vector<std::string>{"add"}, "vexa: Give the network a name, or an existing --bridge\n"),
        std::pair(std::vector<std::string>{"edit", "lan"},
                  "vexa: Nothing to change is named; see 'vexa network edit --help'\n"),
        std::pair(std::vector<std::string>{"add", "lan", "--uplink-of", "eth0"},
                  "vexa: 'eth0' is not an uplink. Use HOST=INTERFACE\n"),
        std::pair(std::vector<std::string>{"edit", "lan", "--move-addresses", "no"},
                  "vexa: 'no' is not a value of --move-addresses. Use on or off\nTry 'vexa network edit --help'.\n"),
        std::pair(std::vector<std::string>{"add", "lan", "--description", "\xFF"},
                  "vexa: The value of 'description' is not valid UTF-8\n"),
        std::pair(std::vector<std::string>{"add", "lan", "--vlan", "x"}, "vexa: ")}) {
    std::vector<std::string> all = words;
    all.insert(all.begin(), "network");
    const auto result = RunOn(host, all);
    EXPECT_EQ(result.exit_code, 2) << words[0];
    EXPECT_THAT(result.errors, StartsWith(sentence));
    EXPECT_THAT(result.output, IsEmpty());
  }
  EXPECT_THAT(host.calls(), IsEmpty());
  EXPECT_EQ(RunOn(host, {"network", "add", "lan", "--uplink-of", "nobody=eth0"}).errors,
            "vexa: There is no host called 'nobody'; see 'vexa host list'\n");
  EXPECT_EQ(host.Count("add"), 0);
}

TEST_F(NetworkCommand, List_HostileTexts_AreSafeForTerminal) {
  const ApiHost host(With());
  EXPECT_THAT(RunOn(host, {"network", "list"}).output, StartsWith("NAME "));
  const auto result = RunOn(host, {"network", "list", "--ids"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, AllOf(StartsWith("NETWORK  NAME "),
                                   HasSubstr("\nn1       lan       nat     ready    yes      192.168.100.0/24\n"),
                                   HasSubstr("\nn2       b\\x1b[2J  bridge  failed   no       br0\n"),
                                   HasSubstr("  yes      VLAN 42 on eth0\n"), Not(HasSubstr("\x1b"))));
  EXPECT_EQ(Parse(RunOn(host, {"network", "list", "--json"}).output), Parse(kLists)["networks"]);
}

TEST_F(NetworkCommand, Show_Network_HasALineForEachHost) {
  const ApiHost host(
      With(R"({"network_id":"n3","name":"phones","kind":"vlan","state":"failed","managed":false,"vlan_id":42,
      "uplink":"eth0","uplinks":{"h2":"eth1"},"hosts":[{"host_id":"h1","state":"ready"},
      {"host_id":"h2","state":"failed","reason":"no\u001b[2J"}, 7]})"));
  EXPECT_EQ(RunOn(host, {"network", "show", "phones"}).output,
            "Network:     n3\nName:        phones\nKind:        vlan\nState:       failed\nVLAN tag:    42\n"
            "Uplink:      eth0\nIt was found on the hosts; 'vexa network add' adopts it.\n  uplink of h2: eth1\n"
            "  host h1: ready\n  host h2: failed (no\\x1b[2J)\n  host : \n");
  EXPECT_THAT(host.calls(), Contains(R"(get {"network_id":"n3"})"));
}

TEST_F(NetworkCommand, Remove_ByName_SendsTheId) {
  const ApiHost host(With());
  EXPECT_EQ(RunOn(host, {"network", "remove", "lan"}).output, "Removed the network 'lan'\n");
  EXPECT_EQ(host.calls().back(), R"(remove {"network_id":"n1"})");
  EXPECT_EQ(RunOn(host, {"network", "remove", "twin"}).errors,
            "vexa: Several networks are called 'twin'. Use one of the ids n4, n5; 'vexa network list --ids' shows "
            "which is which\n");
  EXPECT_EQ(RunOn(host, {"network", "remove", ""}).exit_code, 2);
}

TEST_F(NetworkCommand, Reply_UnexpectedTypes_IsAnErrorNotACrash) {
  for (const char* data : {"null", "7", "[]", R"({"networks":7})"}) {
    const ApiHost host([data](const std::string&, const Json::Value&) -> std::optional<ApiHost::Reply> {
      return ApiHost::Success(data);
    });
    for (const auto& [words, sentence] :
         {std::pair(std::vector<std::string>{"network", "list"}, "contains no networks"),
          std::pair(std::vector<std::string>{"network", "remove", "x"}, "contains no networks"),
          std::pair(std::vector<std::string>{"network", "show", "x"}, "contains no networks"),
          std::pair(std::vector<std::string>{"network", "add", "x"}, "contains no id of the network")}) {
      const auto result = RunOn(host, words);
      EXPECT_EQ(result.exit_code, 1) << words[1] << data;
      EXPECT_THAT(result.errors, HasSubstr(sentence)) << data;
      EXPECT_THAT(result.output, IsEmpty());
    }
  }
}

}  // namespace
}  // namespace vexa::test
