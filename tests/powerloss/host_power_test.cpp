// The power of a host fails while an administrator works with it. After the next start everything is there that had
// been answered, and the change in progress has happened completely or not at all.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

#include "host/accounts/account_password.h"
#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/powerloss/observed_host.h"
#include "tests/powerloss/power_cuts.h"
#include "tests/powerloss/recorded_program.h"
#include "tests/support/require.h"
#include "tests/support/temp_dir.h"

namespace vexa::powerloss {
namespace {

namespace fs = std::filesystem;
namespace json = VexaVirtualization::json;
using namespace std::chrono_literals;

constexpr char kRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
constexpr char kWeb[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr char kMail[] = "c4a9e7d2-5b31-4f86-a07c-1e2d3f4a5b6c";
constexpr char kImage[] = "5a1e2b3c-4d5e-4f60-8a7b-9c0d1e2f3a4b";
constexpr char kPassword[] = "correct horse";
constexpr char kNewPassword[] = "battery staple";

class HostPower : public testing::Test {
 protected:
  HostPower() {
    fs::create_directories(host_.Images());
    WriteFile(Root() + "/accounts.json",
              fmt::format(R"({{"version":1,"groups":[{{"name":"administrators","gid":1900000000}}],
                  "users":[{{"name":"alice","uid":1900000001,"gid":1900000000,"password":"{}","groups":[]}}]}})",
                          Require(accounts::HashPassword(kPassword))));
    fs::permissions(Root() + "/accounts.json", fs::perms::owner_read | fs::perms::owner_write);
    for (const char* const name : {"web.img", "mail-1.img", "mail-2.img"}) MakeImage(name, 1 << 20);
    MakeImage("web_VARS.fd", 5000);
    MakeImage("setup.iso", 3000);
    // In the way of a deletion, which is undone then.
    MakeImage(fmt::format(".vexa-deleted-{}-1", kMail), 10);
    WriteFile(File("web.xml"), Domain(kWeb, "web", {"web.img"}, "web_VARS.fd"));
    WriteFile(File("mail.xml"), Domain(kMail, "mail", {"mail-1.img", "mail-2.img"}, ""));
  }

  std::string Root() const { return folder_.File("root"); }
  std::string File(const std::string& name) const { return folder_.File(name); }

  std::string HostId() const {
    std::string id;
    std::ifstream(Root() + "/data/host-id") >> id;
    return id;
  }
  static void WriteFile(const std::string& path, const std::string& content) { std::ofstream(path) << content; }
  void MakeImage(const std::string& name, std::uintmax_t bytes) const {
    WriteFile(host_.Images() + "/" + name, "content of " + name);
    fs::resize_file(host_.Images() + "/" + name, bytes);
  }
  std::string Domain(const std::string& id, const std::string& name, const std::vector<std::string>& disks,
                     const std::string& variables) const {
    std::string firmware;
    if (!variables.empty()) {
      firmware =
          fmt::format("<loader readonly='yes' type='pflash'>/usr/share/OVMF/OVMF_CODE.fd</loader><nvram>{}/{}</nvram>",
                      host_.Images(), variables);
    }
    std::string devices;
    for (std::size_t i = 0; i < disks.size(); ++i) {
      devices += fmt::format(
          "<disk type='file' device='disk'><driver name='qemu' type='raw'/><source file='{}/{}'/>"
          "<target dev='vd{}' bus='virtio'/></disk>",
          host_.Images(), disks[i], static_cast<char>('a' + i));
    }
    return fmt::format(
        "<domain type='test'><name>{}</name><uuid>{}</uuid><memory unit='MiB'>64</memory><vcpu>1</vcpu>"
        "<os><type arch='x86_64'>hvm</type>{}</os><devices>{}</devices></domain>",
        name, id, firmware, devices);
  }

  // Runs vexa, which ends when it has the reply.
  void Vexa(std::vector<std::string> arguments, const std::string& input = "", int exit_code = 0) {
    arguments.insert(arguments.begin(), {VEXA_PROGRAM, "--socket", host_.socket()});
    const auto done = test::RunProcess({.argv = arguments, .environment = {{"HOME", folder_.path()}}, .input = input});
    EXPECT_EQ(done.exit_code, exit_code) << fmt::format("{}", fmt::join(arguments, " ")) << done.output << done.errors;
    Answered();
  }
  std::string FirstDiskOf(const std::string& guest) const { return DisksOf(guest).front(); }
  std::string LastDiskOf(const std::string& guest) const { return DisksOf(guest).back(); }
  std::vector<std::string> DisksOf(const std::string& guest) const {
    const auto reply = host_.Call("VEXA.Virtualization.Guest/get", fmt::format(R"({{"guest_id":"{}"}})", guest));
    const Json::Value body = Require(ParseJson(reply.body));
    std::vector<std::string> disks;
    for (const Json::Value& disk : json::Elements(json::Member(json::Member(body, "data"), "vdisks"))) {
      disks.push_back(json::StringMember(disk, "vdisk_id"));
    }
    if (disks.empty()) test::FailSetUp(Error(ErrorCode::kInternal, reply.body));
    return disks;
  }
  void Login(const std::string& password) {
    const auto reply =
        host_.Call("VEXA.Core.Session/login", fmt::format(R"({{"user":"alice","password":"{}"}})", password));
    const Json::Value body = Require(ParseJson(reply.body));
    tokens_.push_back(json::StringMember(json::Member(body, "data"), "token"));
    EXPECT_NE(tokens_.back(), "") << reply.body;
    Answered();
  }
  void Answered() {
    Step step;
    step.position = program_->position();
    step.tokens = tokens_;
    step.seen = host_.Observe(tokens_);
    steps_.push_back(std::move(step));
  }

  void Record(const test::ProcessOptions& program, const std::function<void()>& work) {
    program_ = std::make_unique<RecordedProgram>(Root(), File("recording"), program);
    ASSERT_TRUE(ObservedHost::WaitUntilReady(program_->process())) << program_->process().errors();
    Answered();
    work();
    program_->process().Signal(SIGTERM);
    const auto ended = program_->process().Wait(60s);
    ASSERT_TRUE(ended && ended->code == 0) << program_->process().errors();
    for (Step& step : steps_) step.reply = program_->ReplyBefore(step.position);
    model_ = std::make_unique<DiskModel>(program_->Calls());
    ASSERT_EQ(disk_.FindDifference(*model_), "");
  }

  void CheckAll(const std::vector<PowerCut>& cuts) {
    for (const PowerCut& cut : cuts) {
      SCOPED_TRACE(Describe(cut, *model_));
      Check(cut);
      if (HasFailure()) return;
    }
  }

  struct Step {
    std::uint64_t position = 0;
    std::size_t reply = 0;  // the call that answered it
    std::vector<std::string> tokens;
    HostFacts seen;
  };

  static bool IsIn(const std::vector<std::string>& part, const std::vector<std::string>& whole) {
    std::size_t at = 0;
    for (const std::string& line : whole) at += at < part.size() && line == part[at] ? 1 : 0;
    return at == part.size();
  }

  static std::string Difference(const std::vector<std::string>& expected, const std::vector<std::string>& found) {
    std::string text;
    const auto add = [&](const char* sign, const auto& from, const auto& without) {
      std::vector<std::string> lines;
      std::ranges::set_difference(from, without, std::back_inserter(lines));
      for (const std::string& line : lines) text += fmt::format("\n{} {}", sign, line);
    };
    add("-", expected, found);
    add("+", found, expected);
    return text;
  }

  void Check(const PowerCut& cut) {
    std::mt19937 random(cut.seed);
    disk_.Put(model_->After(cut.at, cut.loss, random), random);
    // What had been answered, and the step after it, which may have been in progress.
    std::vector<const Step*> possible;
    for (const Step& step : steps_) {
      if (step.reply < cut.at) possible.clear();
      possible.push_back(&step);
      if (step.reply >= cut.at) break;
    }
    const Step& answered = *possible.front();
    test::Process daemon(host_.Program());
    ASSERT_TRUE(ObservedHost::WaitUntilReady(daemon)) << daemon.errors();
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    HostFacts seen;
    // Nobody has the token of a login that was not answered.
    const auto facts_of = [&](const Step* step) {
      std::vector<std::string> facts = step->seen.facts;
      for (std::size_t i = answered.tokens.size(); i < step->tokens.size(); ++i) {
        std::erase_if(facts, [&](const std::string& fact) { return fact.starts_with(fmt::format("token {}:", i)); });
      }
      return facts;
    };
    // What was interrupted is finished or undone in the background.
    while (true) {
      seen = host_.Observe(answered.tokens);
      if (std::ranges::any_of(possible, [&](const Step* step) { return seen.facts == facts_of(step); })) break;
      if (std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(20ms);
        continue;
      }
      std::string text;
      for (const Step* const step : possible) text += Difference(facts_of(step), seen.facts) + "\nand:";
      FAIL() << "What is seen, compared with each possible state:" << text << "\n" << daemon.errors();
    }
    EXPECT_TRUE(IsIn(answered.seen.log, seen.log)) << testing::PrintToString(seen.log);
  }

  test::TempDir folder_;
  ObservedHost host_{Root(), folder_.File("s")};
  DiskFolder disk_{Root(), folder_.File("spare")};
  std::unique_ptr<RecordedProgram> program_;
  std::unique_ptr<DiskModel> model_;
  std::vector<std::string> tokens_;
  std::vector<Step> steps_;
};

TEST_F(HostPower, PowerFails_AnsweredChangesAreThereAndOthersWholeOrAbsent) {
  ASSERT_NO_FATAL_FAILURE(Record(host_.Program(), [&] {
    const std::vector<std::string> set_web{"guest", "set", kWeb};
    const auto set = [&](std::vector<std::string> words) {
      words.insert(words.begin(), set_web.begin(), set_web.end());
      Vexa(std::move(words));
    };
    Vexa({"repository", "add", "pool", "--id", kRepository});
    for (const char* const guest : {"web.xml", "mail.xml"}) {
      Vexa({"import", File(guest), "--repository-id", kRepository, "--host-id", HostId()});
    }
    set({"--add-disk", "1"});
    const std::string added = LastDiskOf(kWeb);
    set({"--add-disk", "1", "--grow-disk", added + "=2"});
    const std::string second = LastDiskOf(kWeb);
    set({"name=shop", "vram_size=128", "desc=The shop"});
    Vexa({"user", "add", "bob", "--group", "operators", "--password-stdin"}, std::string(kPassword) + "\n");
    Vexa({"user", "grant", "bob", kWeb});
    Login(kPassword);
    Login(kPassword);
    host_.Call("VEXA.Core.Session/logout", "{}", tokens_.front());
    Answered();
    Vexa({"image", "add", "setup", host_.Images() + "/setup.iso", "--id", kImage});
    set({"--iso", kImage});
    Vexa({"guest", "start", kWeb});
    Vexa({"guest", "kill", kWeb});
    // A file is in the way when others have been hidden or made already.
    const std::string blocked = LastDiskOf(kMail);
    Vexa({"guest", "set", kMail, "--add-disk", "1", "--del-disk", FirstDiskOf(kMail), "--del-disk", blocked}, "", 1);
    Vexa({"guest", "delete", "--yes", kMail}, "", 1);
    set({"--add-disk", "1", "--grow-disk", added + "=3", "--del-disk", second});
    Vexa({"user", "passwd", "alice", "--password-stdin"}, std::string(kNewPassword) + "\n");
    Login(kNewPassword);
    Vexa({"guest", "delete", "--yes", kWeb});
    Vexa({"user", "del", "bob"});
    Vexa({"image", "remove", "setup"});
  }));
  CheckAll(ChooseCuts(*model_, model_->start(), 60));
}

// The data folder may have been made by a daemon that was killed before its sync, or by an administrator.
TEST_F(HostPower, PowerFails_FolderThatOthersMadeIsThere) {
  test::ProcessOptions program = host_.Program();
  program.argv.insert(program.argv.begin(), {"sh", "-c", "mkdir -m 700 " + Root() + "/data && exec \"$@\"", "sh"});
  ASSERT_NO_FATAL_FAILURE(Record(program, [&] { Vexa({"repository", "add", "pool", "--id", kRepository}); }));
  CheckAll(ChooseCuts(*model_, steps_.back().reply + 1, 8));
}

// What a daemon left to the kernel when it was killed, and the next one found, is as durable as what that one did
// itself.
class HostPowerAfterKill : public HostPower, public testing::WithParamInterface<int> {
 protected:
  // Starts the daemon again when it was killed.
  test::ProcessOptions ProgramThatRestarts() const {
    test::ProcessOptions program = host_.Program();
    program.argv.insert(program.argv.begin(), {"sh", "-c", "\"$@\"; exec \"$@\"", "sh"});
    return program;
  }

  // Kills the daemon when it has written some more.
  void KillDuring(std::vector<std::string> arguments, std::uint64_t more_bytes) {
    const std::uint64_t end = program_->position() + more_bytes;
    arguments.insert(arguments.begin(), {VEXA_PROGRAM, "--socket", host_.socket()});
    test::Process vexa({.argv = arguments, .environment = {{"HOME", folder_.path()}}});
    while (program_->position() < end && vexa.IsRunning()) std::this_thread::sleep_for(100us);
    program_->process().Signal(SIGUSR1);
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    const auto is_ready_again = [&] {
      const std::string log = program_->process().errors();
      return log.find("Ready.") != log.rfind("Ready.");
    };
    while (!is_ready_again() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(is_ready_again()) << program_->process().errors();
    Answered();
  }
};

TEST_P(HostPowerAfterKill, PowerFails_WhatTheNextDaemonShowedIsThere) {
  std::mt19937 random(std::random_device{}());
  const std::uint64_t more_bytes = 1 + random() % 150'000;
  SCOPED_TRACE(fmt::format("killed after {} more bytes", more_bytes));
  ASSERT_NO_FATAL_FAILURE(Record(ProgramThatRestarts(), [&] {
    Vexa({"repository", "add", "pool", "--id", kRepository});
    Vexa({"import", File("web.xml"), "--repository-id", kRepository, "--host-id", HostId()});
    const std::string disk = LastDiskOf(kWeb);
    if (GetParam() == 0) KillDuring({"guest", "set", kWeb, "--add-disk", "1", "--del-disk", disk}, more_bytes);
    if (GetParam() == 1) KillDuring({"guest", "delete", "--yes", kWeb}, more_bytes);
    Vexa({"repository", "list"});
  }));
  CheckAll(ChooseCuts(*model_, steps_[steps_.size() - 2].reply + 1, 8));
}

INSTANTIATE_TEST_SUITE_P(DuringEditAndDeletion, HostPowerAfterKill, testing::Range(0, 2));

}  // namespace
}  // namespace vexa::powerloss
