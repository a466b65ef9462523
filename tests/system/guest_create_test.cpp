// vexa guest create, and the method behind it, against a real host in test mode.
#include <unistd.h>

#include <fstream>
#include <thread>

#include "host/guests/creation/request_record.h"
#include "host/records/guest_admin.h"
#include "tests/support/vexad_client.h"
#include "tests/support/waiting.h"
#include "tests/system/cli_guest_host.h"

namespace vexa::test {
namespace {

class CreateOnDaemon : public CliGuestHostTest {
 protected:
  ProcessResult Create(std::vector<std::string> words) {
    words.insert(words.begin(), {"guest", "create"});
    return RunOn(std::move(words));
  }
  // The reply to `vexa --json guest create`.
  Json::Value CreateJson(std::vector<std::string> words) {
    words.insert(words.begin(), {"--json", "guest", "create"});
    const auto result = RunOn(std::move(words));
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    return result.exit_code == 0 ? Parsed(result.output) : Json::Value();
  }
  // The method, which `vexa` calls with what it has checked.
  ProcessResult CallCreate(const std::string& parameters) {
    return RunOn({"call", "VEXA.Virtualization.Guest", "create", parameters});
  }
  void ExpectRefused(const std::string& parameters, int code, const std::string& words) {
    SCOPED_TRACE(parameters);
    const std::size_t guests = CountGuests();
    const auto result = CallCreate(parameters);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, HasSubstr(words));
    EXPECT_THAT(result.errors, HasSubstr(std::to_string(code)));
    EXPECT_EQ(CountGuests(), guests);
    EXPECT_EQ(environment_.Images().size(), 2u);
  }
  std::size_t CountGuests() const {
    return Require(Require(store_->Read())->Children(store::MakeKey({"dash", "guest"}))).size();
  }
  Json::Value Guest(const std::string& id) const { return RecordOf(*store_, "guest", id); }
};

TEST_F(CreateOnDaemon, Create_WithEverything_IsServedAndRuns) {
  std::ofstream(ImageFolder() + "/debian.iso") << "twelve bytes";
  ASSERT_EQ(RunOn({"image", "add", "debian-12", ImageFolder() + "/debian.iso"}).exit_code, 0);
  const Json::Value created =
      CreateJson({"web-2", "--cpus", "2", "--memory", "1GiB", "--disk", "20GiB", "--disk", "1GiB,format=raw,mode=3",
                  "--net", "br0,type=2", "--net", "none", "--iso", "debian-12", "--start", "desc=The shop"});
  const std::string id = created["guest_id"].asString();
  EXPECT_EQ(created["name"], "web-2");
  EXPECT_EQ(created["host_id"], host_id_);
  EXPECT_EQ(created["started"], true);
  const Json::Value got = Parsed(RunOn({"--json", "guest", "get", id}).output);
  EXPECT_EQ(got["guest_name"].asString() + got["name"].asString(), "web-2");
  EXPECT_EQ(got["vcpu_num"], 2);
  EXPECT_EQ(got["desc"], "The shop");
  ASSERT_EQ(got["vdisks"].size(), 2u);
  ASSERT_EQ(got["vnics"].size(), 2u);
  const Json::Value status = Parsed(RunOn({"--json", "guest", "status", id}).output);
  EXPECT_EQ(status["status"], "running");
  // Who did it is in the cluster log.
  const auto log = RunOn({"log"});
  EXPECT_THAT(log.output, HasSubstr("The virtual machine [web-2] has been created."));
  EXPECT_THAT(log.output, HasSubstr("The virtual machine [web-2] has been powered on."));
  EXPECT_EQ(RunOn({"guest", "kill", "web-2"}).exit_code, 0);
  EXPECT_EQ(RunOn({"guest", "delete", "web-2", "--yes"}).exit_code, 0);
  EXPECT_EQ(environment_.Images().size(), 2u);
}

TEST_F(CreateOnDaemon, Create_NeverStarted_IsEditedAndDeleted) {
  const auto result = Create({"short", "--disk", "1"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, testing::MatchesRegex("Created the guest 'short' \\([0-9a-f-]{36}\\)\\.\n"));
  EXPECT_EQ(RunOn({"guest", "set", "short", "vcpu_num=3", "--add-disk", "2"}).exit_code, 0);
  EXPECT_EQ(environment_.Images().size(), 4u);
  EXPECT_EQ(RunOn({"guest", "delete", "short", "--yes"}).exit_code, 0);
  EXPECT_EQ(environment_.Images().size(), 2u);
}

TEST_F(CreateOnDaemon, Create_CannotStart_ExistsAndSaysWhy) {
  const auto result = Create({"large", "--cpus", "512", "--start"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.output, StartsWith("Created the guest 'large' ("));
  EXPECT_THAT(result.errors, StartsWith("vexa: The guest was created, but it does not run: "));
  EXPECT_THAT(result.errors, HasSubstr("virtual CPUs"));
  EXPECT_THAT(RunOn({"log"}).output, HasSubstr("Failed to power on the virtual machine [large]."));
}

TEST_F(CreateOnDaemon, Create_Grant_LetsTheUserUseIt) {
  const Json::Value created = CreateJson({"hers", "--allow", "user:mallory"});
  const auto uid = Require(daemon_->Accounts()->FindUser("mallory")).uid;
  const auto text = TextOf(*store_, records::GuestAdminKey(records::GuestAdminIdentifier("users", uid)));
  ASSERT_TRUE(text);
  EXPECT_TRUE(Parsed(*text)["guests"].isMember(created["guest_id"].asString()));
  ExpectRefused(R"({"name":"x","grants":[{"user":"nobody-here"}]})", 980, "");
  ExpectRefused(R"({"name":"x","grants":[{}]})", 401, "has an element without one 'user' or 'group'");
  ExpectRefused(R"({"name":"x","grants":7})", 401, "The parameter 'grants' is not a list of at most 256");
}

TEST_F(CreateOnDaemon, Create_WhatIsWrong_IsRefusedWithParameterAndRange) {
  ExpectRefused("{}", 401, "The parameter 'name' is missing");
  ExpectRefused(R"({"name":7})", 401, "The parameter 'name' is not a string");
  ExpectRefused(R"({"name":"web"})", 406, "Another guest has the name 'web'");
  ExpectRefused(R"({"name":"x","vcpu_num":999})", 401, "The parameter 'vcpu_num' is not a number from 1 to 512");
  ExpectRefused(R"({"name":"x","os":"beos"})", 401, "The parameter 'os' is not one of linux, windows, other");
  ExpectRefused(R"({"name":"x","repository":"nowhere"})", 403,
                "There is no repository 'nowhere'; see 'vexa repository list'");
  ExpectRefused(R"({"name":"x","repository":5})", 401, "The parameter 'repository' is not a string");
  ExpectRefused(R"({"name":"x","host":"nobody"})", 403, "There is no host 'nobody'; see 'vexa host list'");
  ExpectRefused(R"({"name":"x","host":5})", 401, "The parameter 'host' is not a string");
  ExpectRefused(R"({"name":"x","iso":"none.iso"})", 403, "There is no image 'none.iso'; see 'vexa image list'");
  ExpectRefused(R"({"name":"x","vdisks":5})", 401, "The parameter 'vdisks' is not a list");
  ExpectRefused(R"({"name":"x","vdisks":[5]})", 401, "The parameter 'vdisks[0]' is not an object");
  ExpectRefused(R"({"name":"x","vdisks":[{}]})", 401, "The parameter 'vdisks[0].size_gib' is not a number from 1 to");
  ExpectRefused(R"({"name":"x","vdisks":[{"size_gib":1.5}]})", 401, "The parameter 'vdisks[0].size_gib' is not");
  ExpectRefused(R"({"name":"x","vdisks":[{"size_gib":1,"vdisk_mode":9}]})", 401,
                "The parameter 'vdisks[0].vdisk_mode' is not a number from 1 to 4");
  ExpectRefused(R"({"name":"x","vnics":[{"network":5}]})", 401, "The parameter 'vnics[0].network' is not a string");
  ExpectRefused(R"({"name":"x","vnics":[{"network":"dmz"}]})", 919,
                "There is no network 'dmz'; see 'vexa network list'");
  ExpectRefused(R"({"name":"x","vnics":[{"network":"","vnic_type":9}]})", 401, "The parameter 'vnics[0].vnic_type'");
  ExpectRefused(R"({"name":"x","host":"","start":true})", 401, "The parameter 'start' needs a host");
  ExpectRefused(R"({"name":"x","request_id":"a/b"})", 401, "The parameter 'request_id' is not 1 to 64 letters");
  EXPECT_THAT(RunOn({"log"}).output, HasSubstr("Failed to create the virtual machine [web]."));
}

// An administrator of the API could read any file of the host.
TEST_F(CreateOnDaemon, Create_FileThatIsNoImage_IsNotPutIntoTheDrive) {
  const std::string image = ImageFolder() + "/debian.iso";
  std::ofstream(image) << "twelve bytes";
  std::ofstream(ImageFolder() + "/secret.txt") << "secret";
  std::ofstream(environment_.File("outside.iso")) << "secret";
  ASSERT_EQ(::symlink("/etc/passwd", (ImageFolder() + "/link.iso").c_str()), 0);
  for (const std::string& path :
       {std::string("/etc/passwd"), ImageFolder() + "/secret.txt", environment_.File("outside.iso"),
        ImageFolder() + "/link.iso", ImageFolder() + "/../outside.iso", ImageFolder() + "/missing.iso"}) {
    ExpectRefused(R"({"name":"x","iso":")" + path + "\"}", 934,
                  "'" + path + "' is not a file '….iso' below an image folder of this host");
  }
  EXPECT_EQ(Guest(CreateJson({"x", "--iso", image})["guest_id"].asString())["iso_images"][0], image);
}

TEST_F(CreateOnDaemon, Create_SeveralRepositories_MustBeChosen) {
  Json::Value other(Json::objectValue);
  other["host_id"] = host_id_;
  other["name"] = "pool-2";
  PutRecord(*store_, KeyOf("repository", kUnknownId), other);
  ExpectRefused(R"({"name":"x"})", 401, "The parameter 'repository' is missing, and there are 2 repositories");
  EXPECT_EQ(Guest(CreateJson({"x", "--repository", "pool-2"})["guest_id"].asString())["repository_id"], kUnknownId);
  RemoveKey(*store_, KeyOf("repository", kUnknownId));
  RemoveKey(*store_, KeyOf("repository", kRepository));
  ExpectRefused(R"({"name":"y"})", 401,
                "There is no repository for the guest's disks. Add one with 'vexa repository add NAME'");
}

TEST_F(CreateOnDaemon, Create_WithoutHost_HasNone) {
  const Json::Value created = CreateJson({"free", "--host", "none"});
  EXPECT_EQ(created["host_id"], "");
  EXPECT_EQ(RunOn({"guest", "delete", "free", "--yes"}).exit_code, 0);
}

TEST_F(CreateOnDaemon, Create_NetworkByName_IsFound) {
  for (const auto& [name, id] : {std::pair("office", kNetworkByRecord), std::pair("br2", kNetworkByRecord),
                                 std::pair("br0", kNetwork0), std::pair(kNetwork1, kNetwork1)}) {
    const Json::Value guest = Guest(CreateJson({std::string("on-") + name, "--net", name})["guest_id"].asString());
    ASSERT_EQ(guest["vnics"].size(), 1u);
    EXPECT_EQ(RecordOf(*store_, "vnic", guest["vnics"][0].asString())["network_group_id"], id);
  }
}

TEST_F(CreateOnDaemon, Create_CopyOfImage_HasItsSize) {
  if (::access("/usr/bin/qemu-img", X_OK) != 0) GTEST_SKIP() << "qemu-img is not installed";
  const std::string path = ImageFolder() + "/appliance.raw";
  std::ofstream(path) << std::string(5 << 20, 'x');
  ASSERT_EQ(RunOn({"image", "add", "appliance", path}).exit_code, 0);
  for (const std::string& from : {path, std::string("appliance")}) {
    const std::string name = from == path ? "by-path" : "by-name";
    const Json::Value created =
        CreateJson({name, "--disk", "from=" + from + ",format=raw", "--disk", "1GiB,from=" + from});
    const Json::Value disks = Guest(created["guest_id"].asString())["vdisks"];
    ASSERT_EQ(disks.size(), 2u);
    const Json::Value disk = RecordOf(*store_, "vdisk", disks[0].asString());
    EXPECT_EQ(disk["size"], 5);
    EXPECT_EQ(RecordOf(*store_, "vdisk", disks[1].asString())["size"], 1024);
    std::ifstream copy(disk["path"].asString());
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(copy), {}), std::string(5 << 20, 'x'));
    EXPECT_EQ(RunOn({"guest", "delete", name, "--yes"}).exit_code, 0);
  }
  ExpectRefused(R"({"name":"x","vdisks":[{"from":"nothing"}]})", 403, "There is no image 'nothing'");
  ExpectRefused(R"({"name":"x","vdisks":[{"from":7}]})", 401, "The parameter 'vdisks[0].from' is not a string");
  ExpectRefused(R"({"name":"x","vdisks":[{"from":"/etc/passwd"}]})", 934, "it is outside the image folders");
}

TEST_F(CreateOnDaemon, Status_WhileCopying_HasProgress) {
  const std::string id = CreateJson({"half"})["guest_id"].asString();
  PutText(*store_, KeyOf("guest", id, "progress"), "42");
  EXPECT_EQ(Parsed(RunOn({"--json", "guest", "status", id}).output)["progress"], 42);
  EXPECT_THAT(RunOn({"guest", "status", id}).output, HasSubstr("\nProgress  42 %\n"));
  PutText(*store_, KeyOf("guest", id, "progress"), "{}");
  EXPECT_FALSE(Parsed(RunOn({"--json", "guest", "status", id}).output).isMember("progress"));
}

TEST_F(CreateOnDaemon, Repeat_SameNumber_GetsTheFirstAnswer) {
  const std::vector<std::string> words{"once", "--disk", "1", "--request-id", "job-7", "--start"};
  const Json::Value first = CreateJson(words);
  EXPECT_EQ(CreateJson(words), first);
  // Also when what was named is gone.
  RemoveKey(*store_, KeyOf("repository", kRepository));
  EXPECT_EQ(CreateJson(words), first);
  EXPECT_EQ(environment_.Images().size(), 3u);
  const auto other = Create({"twice", "--request-id", "job-7"});
  EXPECT_EQ(other.exit_code, 1);
  EXPECT_THAT(other.errors, HasSubstr("was used for a request with other parameters"));
}

// The host ended between the creation and the start.
TEST_F(CreateOnDaemon, Repeat_WasNotStarted_StartsIt) {
  const std::vector<std::string> words{"once", "--request-id", "job-8", "--start"};
  const Json::Value first = CreateJson(words);
  const std::string id = first["guest_id"].asString();
  ASSERT_EQ(RunOn({"guest", "kill", "once"}).exit_code, 0);
  for (const std::string& key : Require(Require(store_->Read())->Children("/request"))) {
    Json::Value record = Parsed(*TextOf(*store_, guests::RequestKey(key, "job-8")));
    record["answer"].removeMember("started");
    PutRecord(*store_, guests::RequestKey(key, "job-8"), record);
  }
  EXPECT_EQ(CreateJson(words), first);
  EXPECT_EQ(Parsed(RunOn({"--json", "guest", "status", id}).output)["status"], "running");
}

// Otherwise the wait would use up the time of the stop.
TEST_F(CreateOnDaemon, Repeat_HostStops_EndsTheWait) {
  const std::vector<std::string> words{"guest", "create", "once", "--request-id", "job-9"};
  ASSERT_EQ(RunOn(words).exit_code, 0);
  std::string key;
  for (const std::string& owner : Require(Require(store_->Read())->Children("/request"))) {
    key = guests::RequestKey(owner, "job-9");
  }
  Json::Value record = Parsed(*TextOf(*store_, key));
  record["state"] = "doing";
  PutRecord(*store_, key, record);
  std::vector<std::string> repeated = words;
  repeated.insert(repeated.begin(), {"--socket", daemon_->config().socket});
  Process waiting(Program(repeated));
  // Until it waits in the host: the calls before it are over quickly.
  HttpClient root(UnixSocket(daemon_->config().socket));
  int looks_in_a_row = 0;
  ASSERT_TRUE(Eventually([&] {
    const bool is_busy = root.Get("/metrics").body.find("vexa_lane_busy{lane=\"long\"} 1") != std::string::npos;
    looks_in_a_row = is_busy ? looks_in_a_row + 1 : 0;
    return looks_in_a_row == 50;
  }));
  daemon_->daemon().Stop(std::chrono::seconds(30));
  ASSERT_TRUE(waiting.Wait(std::chrono::seconds(60)));
  EXPECT_THAT(waiting.errors(), testing::AnyOf(HasSubstr("This host is stopping"), HasSubstr("No reply from")));
}

TEST_F(CreateOnDaemon, Create_BadArguments_AreNotSent) {
  const std::size_t guests = CountGuests();
  for (const auto& [words, sentence] : {
           std::pair<std::vector<std::string>, std::string>{{"x", "--memory", "lots"},
                                                            "'lots' is not a size of memory"},
           {{"x", "--memory", "0"}, "'0' is not a size of memory"},
           {{"x", "--memory", "2GB"}, "'2GB' is not a size of memory"},
           {{"x", "--memory", "2"}, "'2' is not a size of memory. Use MiB or GiB, such as 2GiB"},
           {{"x", "--disk", "20MiB"}, "'20MiB' is not a disk size"},
           {{"x", "--disk", "-1"}, "not"},
           {{"x", "--disk", "1GiB,format=vhd"}, "'format=vhd' is not a property of a disk"},
           {{"x", "--disk", "1GiB,mode=7"}, "'mode=7' is not a property of a disk"},
           {{"x", "--net", "lan,speed=1"}, "'speed=1' is not a property of an interface"},
           {{"x", "--net", "lan,net=none"}, "'net' is not a property of --net"},
           {{"x", "--allow", "alice"}, "Unknown user or group 'alice'"},
           {{"x", "--cpus", "0"}, "'vcpu_num'"},
           {{"", "--cpus", "1"}, "name"},
           {{"x", "cpus=1"}, "There is no setting 'cpus'"},
       }) {
    const auto result = Create(words);
    EXPECT_EQ(result.exit_code, 2) << sentence;
    EXPECT_THAT(result.errors, HasSubstr(sentence));
  }
  EXPECT_EQ(CountGuests(), guests);
}

}  // namespace
}  // namespace vexa::test
