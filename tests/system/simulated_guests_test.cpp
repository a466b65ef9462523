// A host in test mode says so wherever somebody could believe that its guests run.
#include <gtest/gtest.h>
#include <signal.h>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/support/vexad_client.h"

namespace {

namespace json = VexaVirtualization::json;
using vexa::test::Process;
using vexa::test::ProcessResult;
using vexa::test::RunProcess;

constexpr std::chrono::seconds kTimeout{60};
constexpr const char* kNote = "vexa: Guests are only simulated here: nothing runs.\n";

class SimulatedGuests : public testing::Test {
 protected:
  void SetUp() override {
    Start("test");
    const ProcessResult added = Vexa({"repository", "add", "sample"});
    ASSERT_EQ(added.exit_code, 0) << added.errors;
    const ProcessResult created = Vexa({"guest", "create", "web-2", "--repository", "sample", "--memory", "64MiB"});
    ASSERT_EQ(created.exit_code, 0) << created.errors;
    EXPECT_EQ(created.errors, "");
  }
  void Start(const std::string& hypervisor) {
    host_ = std::make_unique<Process>(vexa::test::ProcessOptions{
        .argv = {VEXAD_PROGRAM, "--data", folder_.File("data"), "--socket", folder_.File("s"), "--listen",
                 "127.0.0.1:0", "--log", "stderr", "--hypervisor", hypervisor}});
    ASSERT_TRUE(host_->WaitForText("Ready.", kTimeout)) << host_->errors();
  }
  ProcessResult Vexa(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {VEXA_PROGRAM, "--socket", folder_.File("s")});
    return RunProcess({.argv = std::move(arguments)});
  }
  Json::Value Post(const std::string& method, const std::string& parameters) const {
    vexa::test::HttpClient client(vexa::test::UnixSocket(folder_.File("s")));
    const std::string body = client.PostJson("/webapi/" + method, parameters).body;
    const auto parsed = vexa::ParseJson(body);
    EXPECT_TRUE(parsed && json::Member(*parsed, "success") == Json::Value(true)) << body;
    return parsed ? *parsed : Json::Value();
  }
  std::string Id() const {
    const auto shown = vexa::ParseJson(Vexa({"--json", "guest", "list"}).output);
    return shown ? json::String(json::Member(json::Elements(json::Member(*shown, "guests"))[0], "guest_id")) : "";
  }
  static bool IsMarked(const Json::Value& reply) {
    EXPECT_FALSE(json::FindMember(json::Member(reply, "data"), "simulated")) << "beside the data, not in it";
    return json::Member(reply, "simulated") == Json::Value(true);
  }

  vexa::test::TempDir folder_;
  std::unique_ptr<Process> host_;
};

TEST_F(SimulatedGuests, Host_InTestMode_ReportsItInLogHealthAndRecord) {
  EXPECT_NE(host_->errors().find("Guests are only simulated here: nothing runs.\n"), std::string::npos);
  EXPECT_NE(Vexa({"health"}).output.find("only simulated here: nothing runs\n"), std::string::npos);
  vexa::test::HttpClient client(vexa::test::UnixSocket(folder_.File("s")));
  EXPECT_NE(client.Get("/healthz").body.find("\"simulated\":true"), std::string::npos);
  EXPECT_TRUE(IsMarked(Post("VEXA.Virtualization.Host/get", "{}")));
  EXPECT_EQ(Vexa({"host", "show"}).errors, kNote);
  EXPECT_EQ(Vexa({"-q", "host", "show"}).errors, "");
}

TEST_F(SimulatedGuests, Answers_ThatStartAGuest_AreMarked) {
  const std::string guest = R"({"guest_id":")" + Id() + "\"";
  const auto power = [&](const std::string& action) {
    return IsMarked(Post("VEXA.Virtualization.Guest.Action/pwr_ctl", guest + R"(,"action":")" + action + "\"}"));
  };
  EXPECT_TRUE(power("poweron"));
  EXPECT_TRUE(power("reboot"));
  EXPECT_FALSE(IsMarked(Post("VEXA.Virtualization.Guest/save", guest + "}")));
  EXPECT_TRUE(IsMarked(Post("VEXA.Virtualization.Guest/restore", guest + "}")));
  EXPECT_FALSE(power("poweroff"));
}

TEST_F(SimulatedGuests, Commands_ThatStartAGuest_PrintIt) {
  EXPECT_EQ(Vexa({"guest", "start", "web-2"}).errors, kNote);
  EXPECT_EQ(Vexa({"guest", "kill", "web-2"}).errors, "");
  EXPECT_EQ(Vexa({"-q", "guest", "start", "web-2"}).errors, "");
  EXPECT_EQ(Vexa({"guest", "create", "web-3", "--repository", "sample", "--memory", "64MiB", "--start"}).errors, kNote);
  const ProcessResult as_json = Vexa({"--json", "guest", "restart", "web-2"});
  EXPECT_NE(as_json.output.find("\"simulated\" : true"), std::string::npos) << as_json.output;
}

// The record of a host that no longer simulates guests does not keep the mark.
TEST_F(SimulatedGuests, Host_WithoutHypervisor_IsNotMarked) {
  host_->Signal(SIGTERM);
  ASSERT_TRUE(host_->Wait(kTimeout));
  Start("none");
  EXPECT_EQ(host_->errors().find("simulated"), std::string::npos) << host_->errors();
  EXPECT_FALSE(IsMarked(Post("VEXA.Virtualization.Host/get", "{}")));
  EXPECT_EQ(Vexa({"health"}).output.find("simulated"), std::string::npos);
}

}  // namespace
