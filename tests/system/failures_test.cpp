// Failures that users cause, against a real host in test mode: who reads only the answer knows what is wrong, and what
// to do next.
#include <fmt/format.h>

#include <filesystem>
#include <fstream>

#include "tests/system/cli_guest_host.h"

namespace vexa::test {
namespace {

constexpr char kNoSuchGuest[] = "11111111-2222-4333-8444-555555555555";

// One failure: what the user runs, and all that the user reads. Expected texts are patterns, for sizes and names of
// folders.
struct FailureRow {
  const char* name;
  std::vector<std::string> words;
  std::string expected;
};

class Failures : public CliGuestHostTest {
 protected:
  void MakeGuest(const std::string& name, std::vector<std::string> more = {}) {
    std::vector<std::string> words{"guest", "create", name, "--memory", "16MiB"};
    words.insert(words.end(), more.begin(), more.end());
    const auto result = RunOn(words);
    ASSERT_EQ(result.exit_code, 0) << result.errors;
  }
  std::string IdOf(const std::string& name) {
    const Json::Value guests = Parsed(RunOn({"--json", "guest", "list"}).output);
    for (const Json::Value& guest : guests["guests"]) {
      if (guest["guest_name"] == name) return guest["guest_id"].asString();
    }
    ADD_FAILURE() << "no guest " << name;
    return "";
  }
  // In a call as an administrator on the network, independent of the caller on the Unix socket.
  void CallAsAdministrator(const std::string& api_and_method, const std::string& parameters) {
    const HttpReply reply = daemon_->TcpAs("admin").PostJson("/webapi/" + api_and_method, parameters);
    EXPECT_EQ(reply.status, 200) << reply.body;
  }
  void ExpectFailure(const FailureRow& row) {
    SCOPED_TRACE(row.name);
    const auto result = RunOn(row.words);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, MatchesRegex(row.expected));
  }
};

TEST_F(Failures, OfGuests_AreExplained) {
  MakeGuest("off");
  MakeGuest("running", {"--start"});
  MakeGuest("taken");
  MakeGuest("large");
  ASSERT_EQ(RunOn({"guest", "set", "large", "vram_size=2097151"}).exit_code, 0);
  MakeGuest("without-file", {"--disk", "1"});
  const std::string disk = RecordOf(*store_, "guest", IdOf("without-file"))["vdisks"][0].asString();
  std::filesystem::remove(RecordOf(*store_, "vdisk", disk)["path"].asString());
  const std::string off = IdOf("off");
  const std::vector<FailureRow> rows{
      {"guest already off",
       {"guest", "stop", "off"},
       "vexa: off: The guest could not be shut down \\(903\\)\\.\n"
       "  Reason: The guest does not run\\.\n"
       "  Hint: It is off already, so nothing has to be done; 'vexa guest start GUEST' starts it\\.\n"},
      {"guest runs already",
       {"guest", "start", "running"},
       "vexa: running: The guest is running already \\(939\\)\\.\n"
       "  Reason: The guest runs\\.\n"
       "  Hint: 'vexa guest status GUEST' shows the guest's state and host\\.\n"},
      {"running guest is deleted",
       {"guest", "delete", "running", "--yes"},
       "vexa: running: The guest could not be deleted, or its host could not do what was asked \\(901\\)\\.\n"
       "  Reason: The guest may be running on the host '[^']+'\\.\n"
       "  Hint: Shut the guest down with 'vexa guest stop GUEST' first; 'vexa guest status GUEST' shows its state and "
       "host\\.\n"},
      {"guest that is off is suspended",
       {"guest", "suspend", "off"},
       "vexa: off: The guest does not run, or has no saved memory \\(911\\)\\.\n"
       "  Reason: The guest does not run\\.\n"
       "  Hint: Start the guest with 'vexa guest start GUEST'\\.\n"},
      {"no saved memory",
       {"guest", "restore", "off"},
       "vexa: off: The guest does not run, or has no saved memory \\(911\\)\\.\n"
       "  Reason: The guest has no saved memory\\.\n"
       "  Hint: Start the guest with 'vexa guest start GUEST'\\.\n"},
      {"unknown id",
       {"guest", "get", kNoSuchGuest},
       "vexa: A record, host or repository could not be read \\(403\\)\\.\n"
       "  Reason: There is no guest '11111111-2222-4333-8444-555555555555'\\.\n"
       "  Hint: The lists show what there is: 'vexa guest list', and likewise of 'host', 'network', 'image' and "
       "'repository'\\.\n"},
      {"unknown id is started",
       {"guest", "start", kNoSuchGuest},
       std::string("vexa: ") + kNoSuchGuest +
           ": A record, host or repository could not be read \\(403\\)\\.\n"
           "  Reason: There is no guest '11111111-2222-4333-8444-555555555555'\\.\n"
           "  Hint: 'vexa guest list' shows the guests; with 'vexa cluster settings --auto-select-host on', a guest "
           "without a host gets one when it starts\\.\n"},
      {"name taken by an edit",
       {"guest", "set", "off", "name=taken"},
       "vexa: off: The name is already in use \\(406\\)\\.\n"
       "  Reason: Another guest has the name 'taken'\\.\n"
       "  Hint: Choose another name, or rename the guest that has it with 'vexa guest set'\\.\n"},
      {"name taken by a new guest",
       {"guest", "create", "taken"},
       "vexa: The name is already in use \\(406\\)\\.\n"
       "  Reason: Another guest has the name 'taken'\\.\n"
       "  Hint: Choose another name, or rename the guest that has it with 'vexa guest set'\\.\n"},
      {"too little memory",
       {"guest", "start", "large"},
       "vexa: large: The host does not have enough memory left for the guest \\(928\\)\\.\n"
       "  Reason: The guest needs 2097151 MiB of memory, and [0-9]+ MiB are free\\.\n"
       "  Hint: Shut guests of the host down, set less memory with 'vexa guest set GUEST vram_size=MIB', or use "
       "another "
       "host\\.\n"},
      {"missing image of a disk",
       {"guest", "set", "without-file", "--grow-disk", disk + "=2"},
       "vexa: without-file: The guest could not be edited because one of its virtual disks cannot be edited "
       "\\(920\\)\\.\n"
       "  Reason: The file '/[^']+\\.qcow2' does not exist\\.\n"
       "  Hint: 'vexa guest get GUEST' shows the guest's disks and their sizes; a disk whose file is lost can be "
       "removed "
       "with 'vexa guest set GUEST --del-disk DISK'\\.\n"},
      {"guest that no host can start",
       {"guest", "start", "db"},
       "vexa: db: No host could be chosen for the guest \\(932\\)\\.\n"
       "  Reason: Host '[^']+': The record's 'vram_size' is not a number from 1 to 2097151 \\(MiB\\)\\.\n"
       "  Hint: 'vexa host list' shows which hosts are alive and what they have left\\.\n"},
      {"value out of range",
       {"call", "VEXA.Virtualization.Guest", "set", R"({"guest_id":")" + off + R"(","vcpu_num":513})"},
       "vexa: The guest could not be edited: its host refused, or could not read or write what it needed\\. The system "
       "log has the reason \\(909\\)\\.\n"
       "  Reason: The parameter 'vcpu_num' is not a number from 1 to 512: it is 513\\.\n"
       "  Hint: The reason names the setting, disk or file; 'vexa guest set --help' lists what each accepts\\.\n"},
      {"wrong type",
       {"call", "VEXA.Virtualization.Guest", "get", R"({"guest_id":7})"},
       "vexa: A parameter is missing or not valid \\(401\\)\\.\n"
       "  Reason: The parameter 'guest_id' is not a string: it is a number\\.\n"
       "  Hint: 'vexa COMMAND --help' lists what it takes; for the API, GET /openapi.json does\\.\n"},
      {"unknown method",
       {"call", "VEXA.Virtualization.Guest", "gett", "{}"},
       "vexa: There is no such API, method or version \\(507\\)\\.\n"
       "  Reason: This host has no method with this API, name and version\\.\n"
       "  Hint: GET /openapi.json lists the methods of this host\\.\n"},
  };
  for (const FailureRow& row : rows) ExpectFailure(row);
  // What the hint for the lost file says works.
  EXPECT_EQ(RunOn({"guest", "set", "without-file", "--del-disk", disk}).exit_code, 0);
}

TEST_F(Failures, OfBusyGuest_IsExplained) {
  MakeGuest("busy");
  const std::string id = IdOf("busy");
  PutText(*store_, records::EditKey(id),
          R"({"host_id":"other","user":"ann","since":1700000000,"stage":"doing","hidden":[],"grown":[],"made":[]})");
  ExpectFailure(
      {"guest busy",
       {"guest", "start", "busy"},
       "vexa: busy: The guest is busy: another operation on it is in progress\\. Try again later \\(912\\)\\.\n"
       "  Reason: The guest is being edited \\(started by 'ann' at 2023-11-14T22:13:20Z\\)\\.\n"
       "  Hint: Wait for the other operation, and try again; 'vexa guest status GUEST' shows its progress\\.\n"});
}

// As other programs, or two clusters that became one, leave it.
TEST_F(Failures, OfTwoNamesAlike_AreExplained) {
  MakeGuest("twin");
  MakeGuest("other");
  const std::string twin = IdOf("twin");
  const std::string other = IdOf("other");
  Json::Value renamed = RecordOf(*store_, "guest", other);
  renamed["name"] = "twin";
  PutRecord(*store_, KeyOf("guest", other), renamed);
  PutRecord(*store_, KeyOf("network", kUnknownId), Parsed(R"({"name":"office","bridge_name":"br3"})"));
  for (const char* const id : {kNoSuchGuest, kUnknownId}) {
    PutRecord(*store_, KeyOf("host", id), Parsed(R"({"name":"nas"})"));
  }
  const std::string id = "[0-9a-f-]+";
  const std::vector<FailureRow> rows{
      {"two guests",
       {"guest", "start", "twin"},
       "vexa: Several guests are called 'twin'\\. Use one of the ids (" + twin + ", " + other + "|" + other + ", " +
           twin + "); 'vexa guest list --ids' shows which is which\n"},
      {"two networks",
       {"network", "remove", "office"},
       "vexa: Several networks are called 'office'\\. Use one of the ids " + id + ", " + id +
           "; 'vexa network list --ids' shows which is which\n"},
      {"two hosts",
       {"host", "show", "nas"},
       "vexa: Several hosts are called 'nas'\\. Use one of the ids " + id + ", " + id +
           "; 'vexa host list --ids' shows which is which\n"},
  };
  for (const FailureRow& row : rows) ExpectFailure(row);
  // What they say works.
  EXPECT_THAT(RunOn({"guest", "list", "--ids"}).output, AllOf(HasSubstr(twin), HasSubstr(other)));
}

TEST_F(Failures, OfTypos_AreExplained) {
  MakeGuest("web-1");
  const auto expect_usage = [this](const std::vector<std::string>& words, const std::string& expected) {
    const auto result = RunOn(words);
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, expected);
  };
  expect_usage(
      {"gest", "list"},
      "vexa: There is no command 'vexa gest'; did you mean 'vexa guest'?\n'vexa --help' lists the commands.\n");
  expect_usage({"guest", "strat", "web-1"},
               "vexa: There is no command 'vexa guest strat'; did you mean 'vexa guest start'?\n"
               "'vexa guest --help' lists the commands.\n");
  expect_usage({"start", "web-1"},
               "vexa: There is no command 'vexa start'; did you mean 'vexa guest start'?\n"
               "'vexa --help' lists the commands.\n");
  expect_usage({"guest", "list", "--jsn"},
               "vexa: There is no option '--jsn' of 'vexa guest list'; did you mean '--json'?\n"
               "'vexa guest list --help' lists the options.\n");
  const auto setting = RunOn({"guest", "set", "web-1", "vcpus=2"});
  EXPECT_EQ(setting.exit_code, 2);
  EXPECT_THAT(setting.errors, MatchesRegex("vexa: There is no setting 'vcpus'; did you mean 'vcpu_num'\\? The settings "
                                           "are name, desc, vcpu_num, [a-z_, ]+\n"));
  const std::vector<FailureRow> rows{
      {"typo in a name",
       {"guest", "start", "wep-1"},
       "vexa: There is no guest called 'wep-1'; did you mean 'web-1'\\? See 'vexa guest list'\n"},
      {"typo in a parameter",
       {"call", "VEXA.Virtualization.Guest", "set", R"({"guest_id":")" + IdOf("web-1") + R"(","vcpus":2})"},
       "vexa: A parameter is missing or not valid \\(401\\)\\.\n"
       "  Reason: There is no parameter 'vcpus'; did you mean 'vcpu_num'\\?\n"
       "  Hint: 'vexa COMMAND --help' lists what it takes; for the API, GET /openapi\\.json does\\.\n"},
  };
  for (const FailureRow& row : rows) ExpectFailure(row);
}

TEST_F(Failures, OfFilesAndNetworks_AreExplained) {
  MakeGuest("off");
  std::ofstream(ImageFolder() + "/a.iso") << "twelve bytes";
  ASSERT_EQ(RunOn({"image", "add", "one", ImageFolder() + "/a.iso"}).exit_code, 0);
  MakeGuest("with-drive", {"--iso", "one"});
  const std::vector<FailureRow> rows{
      {"missing image file",
       {"image", "add", "two", ImageFolder() + "/none.iso"},
       "vexa: The path of an ISO image does not lead to an image that can be used \\(934\\)\\.\n"
       "  Reason: '/[^']+/none\\.iso' does not exist on the host\\. Put it there, or send a file of yours with 'vexa "
       "image "
       "add NAME FILE --upload'\\.\n"
       "  Hint: 'vexa image list' shows the images; 'vexa image add' adds one\\.\n"},
      {"file in use",
       {"image", "add", "two", ImageFolder() + "/a.iso"},
       "vexa: The name, the id or the file is already in use \\(990\\)\\.\n"
       "  Reason: The file '/[^']+/a\\.iso' is the image 'one' already\\.\n"
       "  Hint: Choose another one, or rename or remove what the reason names\\.\n"},
      {"image in use",
       {"image", "remove", "one"},
       "vexa: Guests or disks still use it \\(991\\)\\.\n"
       "  Reason: The image 'one' is in a drive of these guests: 'with-drive'\\. Take it out of the drives first\\.\n"
       "  Hint: Take it out of the guests that the reason names with 'vexa guest set', or remove what uses it, "
       "first\\.\n"},
      {"wrong network",
       {"guest", "set", "off", "--add-nic", std::string("net=") + kUnknownId},
       "vexa: off: The guest could not be edited because of its network configuration \\(919\\)\\.\n"
       "  Reason: There is no network '99999999-9999-4999-8999-999999999999'\\. The networks are 'default', "
       "'office'\\.\n"
       "  Hint: 'vexa network list' shows the networks that interfaces can be in\\.\n"},
  };
  for (const FailureRow& row : rows) ExpectFailure(row);
  ASSERT_EQ(RunOn({"repository", "limits", kRepository, "--hard", "1", "--soft", "1"}).exit_code, 0);
  ExpectFailure({"full disk",
                 {"guest", "create", "more", "--disk", "1"},
                 "vexa: The repository, a disk or the hypervisor cannot be used now \\(949\\)\\.\n"
                 "  Reason: The repository '[^']+' is full: [0-9.]+ .iB of [0-9.]+ .iB are used in the file system of "
                 "the folder '[^']+', and its limit is 1 %\\. Make room in it, or use another repository\\.\n"
                 "  Hint: 'vexa repository list' shows the storage, and 'vexa health' the host\\.\n"
                 "  Request: [0-9a-f]+\n"});
}

TEST_F(Failures, OfEdits_NameTheImageAndTheUsers) {
  MakeGuest("off");
  const std::vector<FailureRow> rows{
      {"file that does not exist in a drive",
       {"guest", "set", "off", "--iso", ImageFolder() + "/none.iso"},
       "vexa: off: The path of an ISO image does not lead to an image that can be used \\(934\\)\\.\n"
       "  Reason: '/[^']+/none\\.iso' is not a file '….iso' below an image folder of this host \\(the setting "
       "image-roots\\)\\.\n"
       "  Hint: 'vexa image list' shows the images; 'vexa image add' adds one\\.\n"},
      {"image that does not exist in a drive",
       {"guest", "set", "off", "--iso", kUnknownId},
       "vexa: off: A parameter is missing or not valid \\(401\\)\\.\n"
       "  Reason: The parameter 'iso_images\\[0\\]' is neither the id of an image, nor a path, nor 'unmounted': it is "
       "'99999999-9999-4999-8999-999999999999'\\.\n"
       "  Hint: 'vexa image list' shows the images; 'vexa image add' adds one\\.\n"},
      {"rights of a user who does not exist",
       {"call", "VEXA.Virtualization.Guest", "set",
        R"({"guest_id":")" + IdOf("off") + R"(","guest_privilege":[{"uid":4242,"name":"ghost","allow":true}]})"},
       "vexa: The guest was edited, but the rights of some users or groups on it could not be set \\(1001\\)\\.\n"
       "  Reason: These users or groups do not exist here, or their records could not be changed: 'ghost'\\.\n"
       "  Hint: [^\n]+\n"
       "  Request: [0-9a-f]+\n"},
  };
  for (const FailureRow& row : rows) ExpectFailure(row);
}

TEST_F(Failures, OfUsersWithoutRights_AreExplainedWithoutSecrets) {
  MakeGuest("theirs", {"--start"});
  MakeGuest("granted");
  ASSERT_EQ(RunOn({"guest", "set", "granted", "vram_size=2097151"}).exit_code, 0);
  const std::string theirs = IdOf("theirs");
  const std::string granted = IdOf("granted");
  daemon_->ActAsOnUnixSocket("mallory");
  CallAsAdministrator("VEXA.Core.Account/grant", R"({"kind":"user","name":"me","guests":[")" + granted + "\"]}");
  const std::string refused =
      ": You may not act on this guest \\(409\\)\\.\n"
      "  Reason: The user 'me' was not granted this guest, or may not do this with it; a guest that does not exist is "
      "refused like this as well\\.\n"
      "  Hint: An administrator can grant a guest with 'vexa user grant USER GUEST'\\.\n";
  const std::vector<FailureRow> rows{
      {"no rights on a guest", {"guest", "stop", theirs}, "vexa: " + theirs + refused},
      {"no such guest reads the same", {"guest", "stop", kNoSuchGuest}, std::string("vexa: ") + kNoSuchGuest + refused},
      {"no rights to a method",
       {"user", "list"},
       "vexa: You may not call this method \\(104\\)\\.\n"
       "  Reason: The method is for administrators, and the user 'me' is not one\\.\n"
       "  Hint: Ask an administrator, or log in as one with 'vexa login'\\.\n"},
      {"a reason for administrators",
       {"guest", "start", "granted"},
       "vexa: granted: The host does not have enough memory left for the guest \\(928\\)\\.\n"
       "  Reason: The host does not have enough free memory for the guest\\. Administrators can read what the host "
       "found: ask one of them, and name the request's id\\.\n"
       "  Hint: Shut guests of the host down, set less memory with 'vexa guest set GUEST vram_size=MIB', or use "
       "another "
       "host\\.\n"},
      {"a reason for everybody",
       {"guest", "suspend", "granted"},
       "vexa: granted: The guest does not run, or has no saved memory \\(911\\)\\.\n"
       "  Reason: The guest does not run, or has no saved memory\\.\n"
       "  Hint: Start the guest with 'vexa guest start GUEST'\\.\n"},
      {"log",
       {"log"},
       "vexa: You may not act on this guest \\(409\\)\\.\n"
       "  Reason: The cluster log is for administrators and advanced users\\.\n"
       "  Hint: An administrator can make a user advanced with 'vexa user advanced USER'\\.\n"},
  };
  for (const FailureRow& row : rows) ExpectFailure(row);
}

// One rule for all methods that a guest's host acts for: what it says goes to administrators, and others read what the
// code means.
TEST_F(Failures, OfActionsOfTheHost_AreExplainedToAdministratorsOnly) {
  MakeGuest("web-1", {"--start"});
  const std::string id = IdOf("web-1");
  CallAsAdministrator("VEXA.Core.Account/grant", R"({"kind":"user","name":"mallory","guests":[")" + id + "\"]}");
  const auto failure_of = [&](const char* user, const std::string& method) {
    const bool is_power = method == "poweron";
    const std::string path =
        is_power ? "VEXA.Virtualization.Guest.Action/pwr_ctl" : "VEXA.Virtualization.Guest/" + method;
    const std::string more = is_power ? R"(,"action":"poweron"})" : "}";
    const std::string reply =
        daemon_->TcpAs(user).PostJson("/webapi/" + path, R"({"guest_id":")" + id + "\"" + more).body;
    const Json::Value error = Parsed(reply)["error"];
    return std::to_string(error["code"].asInt()) + ": " + error["reason"].asString();
  };
  ASSERT_EQ(RunOn({"guest", "save", "web-1"}).exit_code, 0);
  for (const char* const method : {"suspend", "save"}) {
    EXPECT_EQ(failure_of("admin", method), "911: The guest does not run");
    EXPECT_EQ(failure_of("mallory", method), "911: The guest does not run, or has no saved memory.");
  }
  Json::Value record = RecordOf(*store_, "guest", id);
  record["vram_size"] = 2097151;
  PutRecord(*store_, KeyOf("guest", id), record);
  for (const char* const method : {"restore", "poweron"}) {
    EXPECT_THAT(failure_of("admin", method),
                MatchesRegex("928: The guest needs 2097151 MiB of memory, and [0-9]+ MiB are free\\."));
    EXPECT_EQ(failure_of("mallory", method),
              "928: The host does not have enough free memory for the guest. Administrators can read what the host "
              "found: ask one of them, and name the request's id.");
  }
}

TEST_F(Failures, OfLogins_AreExplained) {
  const std::string url = fmt::format("http://127.0.0.1:{}", daemon_->daemon().port(0));
  ProcessOptions login = Program({"login", "--server", url, "--insecure-http", "--password-stdin", "mallory"});
  login.input = "wrong\n";
  const auto wrong = RunProcess(login);
  EXPECT_EQ(wrong.exit_code, 1);
  EXPECT_EQ(wrong.errors,
            "vexa: The user name or the password is wrong (106).\n"
            "  Reason: The name and the password do not belong together.\n"
            "  Hint: Check the name and the password; an administrator can set a new one with 'vexa user passwd "
            "NAME'.\n");
  SaveLogin(url);
  const auto expired = Run({"--insecure-http", "guest", "list"});
  EXPECT_EQ(expired.exit_code, 1);
  EXPECT_EQ(expired.errors,
            "vexa: You are not logged in, or the session has ended (103).\n"
            "  Reason: The token is not one of a session of this host: it may have ended, or never existed.\n"
            "  Hint: Run 'vexa login'.\n");
}

}  // namespace
}  // namespace vexa::test
