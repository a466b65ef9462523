// docs/tutorial.md and docs/console.md as their readers follow them: each command in a shell on a terminal, with a host
// as `./dev run --guests` starts it, a libvirtd as Debian configures it, and real guests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "tests/support/network_namespace.h"
#include "tests/support/process.h"
#include "tests/support/system_libvirtd.h"
#include "tests/support/temp_dir.h"
#include "tests/system/page_shell.h"
#include "tests/system/tutorial_page.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

constexpr char kPage[] = VEXA_SOURCE_DIR "/docs/tutorial.md";
constexpr char kPageOfConsoles[] = VEXA_SOURCE_DIR "/docs/console.md";
constexpr char kInstaller[] = VEXA_SOURCE_DIR "/build/test-guest/install.iso";
constexpr auto kPatience = 300s;  // for a guest that boots under emulation on a busy machine

// --- The page ---

TutorialStep StepWith(std::vector<std::string> output) { return {1, "command\n", std::move(output)}; }

TEST(TutorialPage, Blocks_AreStepsWithTheirOutput) {
  const auto steps = ReadTutorial(
      "# Title\n```console\n$ not run\n```\n```text\nnot output\n```\n\n```sh\none\ntwo\n```\n\n```text\nout\n  "
      "more\n```\n"
      "Prose.\n```sh\nquiet\n```\nProse.\n```text\nnot output\n```\n");
  ASSERT_THAT(steps, SizeIs(2));
  EXPECT_EQ(steps[0].commands, "one\ntwo\n");
  EXPECT_EQ(steps[0].line, 10);
  EXPECT_THAT(steps[0].output, ElementsAre("out", "  more"));
  EXPECT_EQ(steps[1].commands, "quiet\n");
  EXPECT_THAT(steps[1].output, ElementsAre());
}

TEST(TutorialPage, Output_IsComparedCompletely) {
  const TutorialStep step = StepWith({"ID … NAME", "… web"});
  EXPECT_EQ(DifferenceFrom(step, {"ID   7  NAME", "77 web"}), "");
  EXPECT_THAT(DifferenceFrom(step, {"ID   7  NAME", "77 mail"}), HasSubstr("The first line that does not fit: … web"));
  EXPECT_NE(DifferenceFrom(step, {"ID   7  NAME"}), "") << "a line is missing";
  EXPECT_NE(DifferenceFrom(step, {"ID   7  NAME", "77 web", "more"}), "");
  EXPECT_NE(DifferenceFrom(step, {"xID   7  NAME", "77 web"}), "");
  EXPECT_NE(DifferenceFrom(StepWith({}), {"something"}), "");
  EXPECT_EQ(DifferenceFrom(StepWith({}), {}), "");
  EXPECT_NE(DifferenceFrom(StepWith({"a.c"}), {"abc"}), "") << "a dot is a dot";
}

TEST(TutorialPage, LineOfItsOwn_StandsForAnyLines) {
  const TutorialStep step = StepWith({"first", "…", "last"});
  EXPECT_EQ(DifferenceFrom(step, {"first", "last"}), "");
  EXPECT_EQ(DifferenceFrom(step, {"first", "a", "last", "b", "last"}), "");
  EXPECT_NE(DifferenceFrom(step, {"first", "a"}), "");
  EXPECT_NE(DifferenceFrom(step, {"first", "last", "b"}), "");
}

TEST(TutorialPage, TypedText_IsSentAfterThePrecedingOutput) {
  const TutorialStep step = StepWith({"Connected.", "⌨", "guest:~# ⌨ls /", "bin", "Delete … now? ⌨yes"});
  const auto typed = TypedTexts(step);
  ASSERT_THAT(typed, SizeIs(3));
  EXPECT_EQ(typed[0].after, "Connected.");
  EXPECT_EQ(typed[0].text, "");
  EXPECT_EQ(typed[1].after, "guest:~#");
  EXPECT_EQ(typed[1].text, "ls /");
  EXPECT_EQ(typed[2].after, " now?");
  EXPECT_EQ(DifferenceFrom(step, {"Connected.", "", "guest:~# ls /", "bin", "Delete it now? yes"}), "");
  EXPECT_EQ(DifferenceFrom(step, {"Connected.", "", "guest:~#", "bin", "Delete it now?"}), "");
}

TEST(TutorialPage, TerminalOutput_IsConvertedToDisplayedLines) {
  EXPECT_THAT(ShownLines("wait 1\rwait 2\rdone\x1b[K\r\n\x1b[1mbold\x1b[0m  \r\n\r\n"), ElementsAre("done", "bold"));
}

// --- The host ---

// A libvirtd as Debian configures it: QEMU runs as "libvirt-qemu", who gets each disk while its guest runs. Only what
// takes control groups and AppArmor is switched off.
class DebianLibvirtd {
 public:
  DebianLibvirtd() {
    std::ofstream("/etc/libvirt/qemu.conf")
        << "stdio_handler = \"file\"\nsecurity_driver = \"none\"\nnamespaces = []\ncgroup_controllers = []\n";
    std::ofstream("/etc/libvirt/libvirtd.conf") << "auth_unix_rw = \"none\"\nauth_unix_ro = \"none\"\n";
    std::filesystem::remove("/run/libvirt/libvirt-sock");  // of the test before
    program_ = std::make_unique<Process>(ProcessOptions{.argv = {"/usr/sbin/libvirtd"}});
    EXPECT_TRUE(Await([] { return FileExists("/run/libvirt/libvirt-sock"); }, kPatience)) << Log();
  }
  std::string Log() const { return program_->errors(); }

 private:
  std::unique_ptr<Process> program_;
};

class Tutorial : public testing::Test {
 protected:
  void SetUp() override {
    std::string why_not = NamespaceUnavailableReason();
    if (why_not.empty()) why_not = QemuUnavailableReason();
    for (const char* program : {"/usr/sbin/libvirtd", "ip", "iptables", "dnsmasq"}) {
      if (why_not.empty() && !IsInstalled(program)) why_not = std::string("there is no ") + program;
    }
    if (why_not.empty() && !FileExists(kInstaller)) {
      why_not = std::string("there is no ") + kInstaller + ", which tools/make-test-guest makes";
    }
    if (!why_not.empty()) GTEST_SKIP() << SkipNotice(why_not);
    RunTool({"ip", "link", "set", "lo", "up"});
    libvirtd_ = std::make_unique<DebianLibvirtd>();
    std::filesystem::create_directory(folder_.File("build"));
    std::filesystem::create_symlink(VEXA_SOURCE_DIR "/build/test-guest", folder_.File("build/test-guest"));
    // As `./dev run --guests` runs it.
    host_ = std::make_unique<Process>(ProcessOptions{.argv = {VEXA_SOURCE_DIR "/tools/run-sample-host", "guests"},
                                                     .environment = {{"VEXA_RUN_DIR", folder_.File("run/guests")},
                                                                     {"VEXA_BUILD_DIR", VEXA_BUILD_DIR},
                                                                     {"VEXA_IMAGES", "/var/lib/libvirt/images"},
                                                                     {"VEXA_PORT", "0"}}});
    ASSERT_TRUE(host_->WaitForText("Ctrl-C stops the host", kPatience)) << host_->output() << host_->errors();
  }
  void TearDown() override {
    if (HasFailure() && libvirtd_) std::fprintf(stderr, "%s\n", libvirtd_->Log().c_str());
    if (HasFailure()) std::fprintf(stderr, "%s\n", Content(folder_.File("run/guests/vexad.log")).c_str());
    if (!host_) return;
    host_->Signal(SIGTERM);
    EXPECT_TRUE(host_->Wait(kPatience).has_value());
  }

  TempDir folder_;
  std::unique_ptr<DebianLibvirtd> libvirtd_;
  std::unique_ptr<Process> host_;
};

TEST_F(Tutorial, Commands_OfTheTutorial_PrintTheDocumentedOutput) {
  const std::vector<TutorialStep> steps = ReadTutorial(Content(kPage));
  ASSERT_GT(steps.size(), 20U) << "The steps of docs/tutorial.md cannot be read";
  // Each one builds on the ones before.
  const PageShell shell({}, folder_.path(), kPatience);
  for (const TutorialStep& step : steps) ASSERT_EQ(shell.Run(step), "");
}

// In place of a window: a viewer that reads the first line of the screen's protocol, and ends.
void MakeViewer(const TempDir& folder) {
  std::filesystem::create_directory(folder.File("bin"));
  const std::string viewer = folder.File("bin/remote-viewer");
  std::ofstream(viewer) << "#!/bin/bash\naddress=${1#vnc://}\nexec 3<>\"/dev/tcp/${address%:*}/${address#*:}\"\n"
                        << "read -r -u 3 line\necho \"$line\" >'" << folder.File("greeting") << "'\n";
  std::filesystem::permissions(viewer, std::filesystem::perms(0755));
  ::setenv("PATH", (folder.File("bin") + ":" + std::getenv("PATH")).c_str(), 1);
}

TEST_F(Tutorial, CommandsOfConsolePage_PrintTheDocumentedOutput) {
  const std::vector<TutorialStep> steps = ReadTutorial(Content(kPageOfConsoles));
  ASSERT_GT(steps.size(), 3U) << "The steps of docs/console.md cannot be read";
  MakeViewer(folder_);
  const PageShell shell({}, folder_.path(), kPatience);
  // The guest and the user that the page takes for granted.
  const std::vector<std::string> before{"…"};
  ASSERT_EQ(shell.Run({0, ". run/guests/env; vexa repository add pool\n", before}), "");
  ASSERT_EQ(shell.Run({0, "echo 'correct horse' | vexa user add alice --password-stdin\n", before}), "");
  ASSERT_EQ(shell.Run({0, "vexa image add system build/test-guest/guest.iso --upload\n", before}), "");
  ASSERT_EQ(shell.Run({0, "vexa guest create web-1 --memory 256MiB --net none --iso system --start\n", before}), "");
  ASSERT_EQ(shell.Run({0, "until vexa guest info web-1 | grep 'Agent *yes'; do sleep 1; done\n", before}), "");
  for (const TutorialStep& step : steps) ASSERT_EQ(shell.Run(step), "");
  EXPECT_THAT(Content(folder_.File("greeting")), testing::StartsWith("RFB "));
  // /dev/kvm is hidden from these tests.
  EXPECT_THAT(Content(folder_.File("run/guests/vexad.log")),
              HasSubstr("KVM does not work on this machine, so its guests are emulated, many times slower. 'sudo vexa "
                        "setup' shows what is missing."));
}

}  // namespace
}  // namespace vexa::test

int main(int argc, char** argv) {
  vexa::test::EnterNetworkNamespace(argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
