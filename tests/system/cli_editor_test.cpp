// vexa guest edit with editors that are scripts.
#include <signal.h>

#include <fstream>
#include <iterator>

#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"
#include "tests/system/cli_terminal.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

const std::string kGuests = R"({"guests":[{"guest_id":"g1","guest_name":"web-1"},
    {"guest_id":"g2","guest_name":"b\u001b[31md\n\"x"}]})";
const std::string kGuest = R"({"name":"web-1","desc":"Caf\u00e9\nline \u202e2","vcpu_num":2,"cpu_pin_num":0,
    "cpu_weight":256,"cpu_passthru":true,"vram_size":4194304,"video_card":"vga","kb_layout":"Default",
    "boot_from":"disk","use_ovmf":false,"autorun":0,"usb_version":"2","vdisks":[],"vnics":[]})";

constexpr const char* kShown = R"(# The settings of the guest 'web-1' (g1)
#
# Lines that begin with '#' are comments. Change values, save and exit the editor. Settings that are
# unchanged or removed here are not touched. If nothing is changed, nothing is sent.

# its name: 1 to 128 bytes that no other guest is called
name = "web-1"

# its description
desc = "Caf\u00e9\nline \u202e2"

# virtual CPUs, 1 to 512
vcpu_num = 2

# dedicated processors, 0 to its virtual CPUs
cpu_pin_num = 0

# its share under CPU contention, 2 to 262144 (normally 256)
cpu_weight = 256

# whether it sees the host's own processor
cpu_passthru = true

# whether it gets Hyper-V's features; not with cpu_passthru=false; not set
#hyperv_enlighten = false

# memory in MiB, 1 to 2097151
vram_size = 4096

# cirrus, vga, vmvga, qxl or virtio
video_card = "vga"

# its keyboard's layout, such as en-us, or Default
kb_layout = "Default"

# disk or iso
boot_from = "disk"

# whether its firmware is UEFI
use_ovmf = false

# its start with the host, 0 to 2: 0 never, 1 always, 2 as it was before
autorun = 0

# its USB controller, 0 (none) to 3; not set
#usb_version = 0
)";

std::string ContentOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

class GuestEdit : public CliTest {
 protected:
  GuestEdit() { fs::create_directory(folder_.File("run")); }

  static ApiHost::Answer With(ApiHost::Answer set) {
    return [set = std::move(set)](const std::string& method,
                                  const Json::Value& parameters) -> std::optional<ApiHost::Reply> {
      if (method == "list") return ApiHost::Success(kGuests);
      if (method == "get") return ApiHost::Success(kGuest);
      return set(method, parameters);
    };
  }
  static ApiHost::Answer SucceedAlways() {
    return With([](const auto&, const auto&) { return ApiHost::Success(); });
  }
  // A program that runs `script` with the file as "$1".
  std::string Script(const std::string& script, const std::string& name = "editor") {
    WriteFile(folder_.File(name), "#!/bin/sh\n" + script + "\n", 0700);
    return folder_.File(name);
  }
  ProcessOptions ProgramOn(const ApiHost& host, const std::string& editor, const std::string& guest = "web-1") {
    SaveLogin(host.url());
    ProcessOptions options = Program({"guest", "edit", guest});
    options.environment["VISUAL"] = std::nullopt;
    options.environment["EDITOR"] = editor;
    options.environment["XDG_RUNTIME_DIR"] = folder_.File("run");
    return options;
  }
  ProcessResult Edit(const ApiHost& host, const std::string& script) {
    return RunProcess(ProgramOn(host, Script(script)));
  }
  // What is left of the files of edits.
  std::vector<std::string> Left() const {
    std::vector<std::string> left;
    for (const auto& entry : fs::directory_iterator(folder_.File("run"))) left.push_back(entry.path());
    return left;
  }
  // The one text that is kept, for the user alone.
  std::string KeptText() const {
    const auto left = Left();
    EXPECT_EQ(left.size(), 1u);
    if (left.empty()) return "";
    EXPECT_TRUE(left[0].ends_with(".txt")) << left[0];
    EXPECT_EQ(fs::status(left[0]).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    return ContentOf(left[0]);
  }
};

TEST_F(GuestEdit, EditorFile_Opened_ShowsSettingsAndIsPrivate) {
  const ApiHost host(SucceedAlways());
  const auto result = Edit(host, "cat \"$1\" > " + folder_.File("seen") +
                                     "; stat -c '%a' \"$1\" \"$(dirname \"$1\")\" > " + folder_.File("modes"));
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(ContentOf(folder_.File("seen")), kShown);
  EXPECT_EQ(ContentOf(folder_.File("modes")), "600\n700\n");
  EXPECT_THAT(Left(), IsEmpty());
}

TEST_F(GuestEdit, Editor_NothingChanged_SendsNothing) {
  for (const char* script : {"true", "touch \"$1\"", "> \"$1\"", "sed -i '/vcpu_num/d; s/ = /=/' \"$1\"",
                             "printf 'vcpu_num = 2' > \"$1\"", "cp \"$1\" \"$1~\"; mv \"$1~\" \"$1\""}) {
    const ApiHost host(SucceedAlways());
    const auto result = Edit(host, script);
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_EQ(result.output, "web-1: Nothing was changed\n");
    EXPECT_EQ(host.Count("set"), 0);
    EXPECT_THAT(Left(), IsEmpty());
  }
}

TEST_F(GuestEdit, Edit_Json_ContainsOutcome) {
  const ApiHost host(SucceedAlways());
  for (const auto& [script, expected] :
       {std::pair("true", "Nothing was changed"), std::pair("echo 'autorun = 1' > \"$1\"", "edited")}) {
    ProcessOptions program = ProgramOn(host, Script(script));
    program.argv.push_back("--json");
    EXPECT_EQ(
        Parse(RunProcess(program).output),
        Parse(std::string(R"({"guest_id":"g1","guest_name":"web-1","success":true,"message":")") + expected + "\"}"));
    program.argv.back() = "-q";
    EXPECT_EQ(RunProcess(program).output, "");
  }
}

TEST_F(GuestEdit, Editor_SendsOnlyChangedSettings) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"sed -i 's/^vcpu_num.*/vcpu_num = 4/' \"$1\"", R"({"guest_id":"g1","vcpu_num":4})", "web-1: edited\n"},
      {"sed -i 's/^vram_size.*/vram_size=8192/' \"$1\"", R"({"guest_id":"g1","vram_size":8192})", "web-1: edited\n"},
      {"sed -i 's/^#hyperv_enlighten.*/hyperv_enlighten = true/' \"$1\"",
       R"({"guest_id":"g1","hyperv_enlighten":true})", "web-1: edited\n"},
      {"printf 'desc = \"a \\\\u00e9 = # \\\\\"b\"\\r\\n  use_ovmf=true' > \"$1\"",
       R"({"desc":"a \u00e9 = # \"b","guest_id":"g1","use_ovmf":true})", "web-1: edited\n"},
      {"sed -i 's/^name.*/name = \"web-2\"/' \"$1\"", R"({"guest_id":"g1","name":"web-2"})",
       "web-1: edited and renamed to web-2\n"},
      {"echo 'autorun = 2' > \"$1.new\"; mv \"$1.new\" \"$1\"; touch \"$1.swp\"", R"({"autorun":2,"guest_id":"g1"})",
       "web-1: edited\n"},
  };
  for (const auto& [script, sent, expected] : rows) {
    const ApiHost host(SucceedAlways());
    const auto result = Edit(host, script);
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_EQ(result.output, expected);
    EXPECT_EQ(host.Last("set"), std::string("set ") + sent);
    EXPECT_EQ(host.Count("set"), 1);
    EXPECT_THAT(Left(), IsEmpty());
  }
}

TEST_F(GuestEdit, Editor_InvalidText_IsReportedAndKept) {
  const std::pair<const char*, const char*> rows[] = {
      {"vcpu_num", "Line 1: There is no '='. Use NAME = VALUE, or start comments with '#'"},
      {"\\n# x\\nvcpus = 2", "Line 3: There is no setting 'vcpus'; did you mean 'vcpu_num'? The settings are "},
      {"vcpu_num = 3\\nvcpu_num = 3", "Line 2: The setting 'vcpu_num' occurs twice"},
      {"vcpu_num = \"3\"", "Line 1: The value of 'vcpu_num' is not a whole number"},
      {"vcpu_num = 3.0", "Line 1: The value of 'vcpu_num' is not a whole number"},
      {"vcpu_num =", "Line 1: The value of 'vcpu_num' is not a whole number"},
      {"vcpu_num = 3 # three", "Line 1: The value of 'vcpu_num' is not a whole number"},
      {"name = web-2", "Line 1: The value of 'name' is not a string in double quotes"},
      {"name = \"\\377\"", "Line 1: The value of 'name' is not a string in double quotes"},
      {"use_ovmf = yes", "Line 1: The value of 'use_ovmf' is not true or false"},
      {"vcpu_num = 0", "The parameter 'vcpu_num' is not a number from 1 to 512"},
      {"boot_from = \"net\"", "The parameter 'boot_from' is not 'disk' or 'iso'"},
      {"x\\033[31m = 1", "Line 1: There is no setting 'x\\x1b[31m'"},
  };
  for (const auto& [text, expected] : rows) {
    const ApiHost host(SucceedAlways());
    const auto result = Edit(host, std::string("printf '") + text + "' > \"$1\"; cp \"$1\" " + folder_.File("mine"));
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, StartsWith(std::string("vexa: ") + expected));
    EXPECT_THAT(result.errors,
                HasSubstr("\nvexa: Nothing was changed\nvexa: Your text is kept in '" + folder_.File("run")));
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_EQ(host.Count("set"), 0);
    EXPECT_EQ(KeptText(), ContentOf(folder_.File("mine")));
    for (const auto& path : Left()) fs::remove(path);
  }
}

TEST_F(GuestEdit, Editor_ServerRefuses_KeepsText) {
  const ApiHost host(With([](const auto&, const auto&) { return ApiHost::Failure(406, "Taken."); }));
  const auto result = Edit(host, "echo 'name = \"db\"' > \"$1\"");
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, MatchesRegex("vexa: web-1: Taken \\(406\\)\\.\n"
                                          "vexa: Your text is kept in '.*/run/vexa-edit-[A-Za-z0-9]*\\.txt'\n"));
  EXPECT_EQ(KeptText(), "name = \"db\"\n");
}

TEST_F(GuestEdit, Editor_FailureAfterEdit_KeepsNoText) {
  for (const int code : {1001, 1600}) {
    const ApiHost host(With([&](const auto&, const auto&) {
      return ApiHost::Failure(code, "Edited, but.", R"(,"details":{"host_names":"nas-1"})");
    }));
    const auto result = Edit(host, "echo 'autorun = 1' > \"$1\"");
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.errors,
              "vexa: web-1: Edited, but (" + std::to_string(code) + ").\n  Details: {\"host_names\":\"nas-1\"}\n");
    EXPECT_THAT(Left(), IsEmpty());
  }
}

TEST_F(GuestEdit, Editor_ServerHangsUp_KeepsText) {
  const ApiHost host(With([](const auto&, const auto&) { return ApiHost::Reply{502, "away"}; }));
  EXPECT_EQ(Edit(host, "echo 'autorun = 1' > \"$1\"").exit_code, 1);
  EXPECT_EQ(KeptText(), "autorun = 1\n");
}

TEST_F(GuestEdit, Editor_Fails_SendsNothing) {
  const ApiHost host(SucceedAlways());
  const auto result = Edit(host, "echo 'autorun = 1' > \"$1\"; exit 3");
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "vexa: The editor ended with exit code 3, so nothing was changed\n");
  const auto killed = Edit(host, "echo 'autorun = 1' > \"$1\"; kill -KILL $$");
  EXPECT_EQ(killed.exit_code, 1);
  EXPECT_THAT(killed.errors,
              MatchesRegex("(.*\n)?vexa: The editor (was ended by signal 9|ended with exit code 137), so "
                           "nothing was changed\n"));
  const auto missing = RunProcess(ProgramOn(host, folder_.File("no-editor")));
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_THAT(missing.errors, HasSubstr("vexa: The editor ended with exit code 127, so nothing was changed\n"));
  EXPECT_EQ(host.Count("set"), 0);
  EXPECT_THAT(Left(), IsEmpty());
}

TEST_F(GuestEdit, Editor_FailsWithSigchldIgnored_SendsNothing) {
  // As those leave it who do not want to hear of theirs.
  const ApiHost host(SucceedAlways());
  ProcessOptions program = ProgramOn(host, Script("echo 'autorun = 1' > \"$1\"; exit 3"));
  program.argv.insert(program.argv.begin(), {"/bin/sh", "-c", "trap '' CHLD; exec \"$@\"", "sh"});
  const auto result = RunProcess(program);
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "vexa: The editor ended with exit code 3, so nothing was changed\n");
  EXPECT_EQ(host.Count("set"), 0);
}

TEST_F(GuestEdit, Edit_EditorLeavesNoReadableFile_IsRefused) {
  for (const char* script : {"rm \"$1\"", "rm \"$1\"; mkfifo \"$1\"", "rm \"$1\"; mkdir \"$1\""}) {
    const ApiHost host(SucceedAlways());
    const auto result = Edit(host, script);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, StartsWith("vexa: Cannot read the edited text: "));
    EXPECT_EQ(host.Count("set"), 0);
    EXPECT_THAT(Left(), IsEmpty());
  }
  const ApiHost host(SucceedAlways());
  const auto large = Edit(host, "head -c 1048577 /dev/zero > \"$1\"");
  EXPECT_EQ(large.exit_code, 1);
  EXPECT_THAT(large.errors, StartsWith("vexa: Cannot read the edited text, kept in '"));
  EXPECT_EQ(KeptText().size(), 1048577u);
  EXPECT_EQ(host.Count("set"), 0);
}

TEST_F(GuestEdit, Editor_FirstAvailable_IsUsed) {
  const ApiHost host(SucceedAlways());
  const std::string good = Script("echo \"$0 $1\" > " + folder_.File("ran"), "good");
  const std::string bad = Script("exit 9", "bad");
  ProcessOptions both = ProgramOn(host, bad);
  both.environment["VISUAL"] = good;
  EXPECT_EQ(RunProcess(both).exit_code, 0) << "$VISUAL goes before $EDITOR";

  // Options in the variable, and a folder with a blank for the file.
  fs::create_directory(folder_.File("r n"));
  ProcessOptions with_options =
      ProgramOn(host, Script("test \"$1\" = --wait && test -f \"$2\" && test $# = 2") + " --wait");
  with_options.environment["XDG_RUNTIME_DIR"] = folder_.File("r n");
  EXPECT_EQ(RunProcess(with_options).exit_code, 0);

  fs::create_directory(folder_.File("bin"));
  ProcessOptions fallback = ProgramOn(host, "");
  fallback.environment["PATH"] = folder_.File("bin");
  const auto none = RunProcess(fallback);
  EXPECT_EQ(none.exit_code, 1);
  EXPECT_EQ(none.errors, "vexa: No editor was found. Set $VISUAL or $EDITOR\n");
  for (const char* name : {"vi", "editor", "sensible-editor"}) {
    Script("echo \"$0\" > " + folder_.File("ran"), std::string("bin/") + name);
    EXPECT_EQ(RunProcess(fallback).exit_code, 0);
    EXPECT_THAT(ContentOf(folder_.File("ran")), ::testing::EndsWith(std::string("/bin/") + name + "\n"));
  }
}

TEST_F(GuestEdit, EditorFile_Folders_AreTriedInOrder) {
  const ApiHost host(SucceedAlways());
  fs::create_directory(folder_.File("tmp"));
  const std::string script = Script("dirname \"$(dirname \"$1\")\" > " + folder_.File("where"));
  ProcessOptions options = ProgramOn(host, script);
  options.environment["TMPDIR"] = folder_.File("tmp");
  EXPECT_EQ(RunProcess(options).exit_code, 0);
  EXPECT_EQ(ContentOf(folder_.File("where")), folder_.File("run") + "\n");
  for (const char* unusable : {"relative", "/no/such/folder"}) {
    options.environment["XDG_RUNTIME_DIR"] = unusable;
    EXPECT_EQ(RunProcess(options).exit_code, 0);
    EXPECT_EQ(ContentOf(folder_.File("where")), folder_.File("tmp") + "\n");
  }
}

TEST_F(GuestEdit, EditorFile_ControlCharacterInName_StaysOnItsLine) {
  const ApiHost host([](const std::string& method, const Json::Value&) {
    return ApiHost::Success(method == "list" ? kGuests : method == "get" ? R"({"name":"b\u001b[31md\n\"x"})" : "null");
  });
  const auto result =
      RunProcess(ProgramOn(host, Script("cp \"$1\" " + folder_.File("seen") + "; echo 'autorun = 1' >> \"$1\""), "g2"));
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "b\\x1b[31md\\n\"x: edited\n");
  EXPECT_THAT(ContentOf(folder_.File("seen")),
              AllOf(StartsWith("# The settings of the guest 'b\\x1b[31md\\n\"x' (g2)\n#\n"),
                    HasSubstr("\nname = \"b\\u001b[31md\\n\\\"x\"\n"), Not(HasSubstr("\x1b"))));
  EXPECT_EQ(host.Last("set"), R"(set {"autorun":1,"guest_id":"g2"})");
}

TEST_F(GuestEdit, Edit_UnknownGuest_OpensNoEditor) {
  const ApiHost host(SucceedAlways());
  const auto result = RunProcess(ProgramOn(host, Script("touch " + folder_.File("ran")), "web-9"));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "vexa: There is no guest called 'web-9'; did you mean 'web-1'? See 'vexa guest list'\n");
  EXPECT_FALSE(fs::exists(folder_.File("ran")));
  EXPECT_EQ(Run({"guest", "edit", ""}).exit_code, 2);
  EXPECT_EQ(Run({"guest", "edit"}).exit_code, 2);
}

// With a terminal.

// Wrong the first time, right afterwards, on top of what was there.
constexpr const char* kWrongThenRight =
    "if grep -q '^oops$' \"$1\"; then echo 'vcpu_num = 8' > \"$1\"; else echo oops > \"$1\"; fi";

ProcessOptions OnOne(ProcessOptions options) {
  options.environment["TERM"] = "xterm";
  return options;
}

TEST_F(GuestEdit, Edit_BadTextOnATerminal_AsksWhetherToEditAgain) {
  for (const char* yes : {"\n", "y\n", "Yes\n"}) {
    const ApiHost host(SucceedAlways());
    OnTerminal terminal(OnOne(ProgramOn(host, Script(kWrongThenRight))));
    EXPECT_TRUE(terminal.WaitFor("Edit again? [Y/n] ")) << terminal.shown();
    EXPECT_EQ(host.Count("set"), 0);
    EXPECT_THAT(Left(), IsEmpty()) << "between two edits there is no file";
    terminal.Type(yes);
    const int status = terminal.Finish();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << terminal.shown();
    EXPECT_EQ(host.Last("set"), R"(set {"guest_id":"g1","vcpu_num":8})");
    EXPECT_THAT(Left(), IsEmpty());
  }
}

TEST_F(GuestEdit, Edit_AnswerNoOnATerminal_KeepsTheText) {
  const std::pair<const char*, int> rows[] = {{"n\n", 1}, {"\x04", 1}, {"\x03", 130}};
  for (const auto& [typed, exit_code] : rows) {
    const ApiHost host(SucceedAlways());
    OnTerminal terminal(OnOne(ProgramOn(host, Script(kWrongThenRight))));
    EXPECT_TRUE(terminal.WaitFor("Edit again? [Y/n] ")) << terminal.shown();
    terminal.Type(typed);
    const int status = terminal.Finish();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == exit_code) << terminal.shown();
    EXPECT_THAT(terminal.shown(), HasSubstr("Your text is kept in '"));
    EXPECT_EQ(KeptText(), "oops\n");
    EXPECT_EQ(host.Count("set"), 0);
    for (const auto& path : Left()) fs::remove(path);
  }
}

TEST_F(GuestEdit, CtrlC_InEditor_IsHandledByEditor) {
  const ApiHost host(SucceedAlways());
  OnTerminal terminal(OnOne(ProgramOn(
      host, Script("trap 'echo \"autorun = 1\" > \"$1\"; exit 0' INT; echo ready; while :; do sleep 0.05; done"))));
  EXPECT_TRUE(terminal.WaitFor("ready"));
  terminal.Type("\x03");
  const int status = terminal.Finish();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << terminal.shown();
  EXPECT_EQ(host.Count("set"), 1);
}

// Asked to end.

TEST_F(GuestEdit, Editor_TerminatedDuringEdit_RemovesFolderAndKeepsText) {
  for (const int signal : {SIGTERM, SIGHUP}) {
    for (const bool is_changed : {false, true}) {
      const ApiHost host(SucceedAlways());
      const std::string change = is_changed ? "echo 'autorun = 1' > \"$1\"; " : "";
      Process program(ProgramOn(host, Script(change + "echo ready; exec sleep 60")));
      ASSERT_TRUE(program.WaitForText("ready", seconds(30)));
      program.Signal(signal);
      const auto ended = program.Wait(seconds(30));
      ASSERT_TRUE(ended);
      EXPECT_EQ(ended->code, 128 + signal);
      EXPECT_THAT(program.errors(), StartsWith("vexa: Interrupted, and nothing was changed\n"));
      EXPECT_EQ(host.Count("set"), 0);
      if (is_changed) {
        EXPECT_EQ(KeptText(), "autorun = 1\n");
      } else {
        EXPECT_THAT(Left(), IsEmpty());
      }
      for (const auto& path : Left()) fs::remove_all(path);
    }
  }
}

TEST_F(GuestEdit, Interrupt_DuringRequest_KeepsText) {
  const ApiHost host(With([](const auto&, const auto&) { return std::nullopt; }));
  Process program(ProgramOn(host, Script("echo 'autorun = 1' > \"$1\"")));
  ASSERT_TRUE(Eventually([&] { return host.held() == 1; }));
  EXPECT_THAT(Left(), IsEmpty());
  program.Signal(SIGINT);
  const auto ended = program.Wait(seconds(30));
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, 130);
  EXPECT_THAT(program.errors(),
              StartsWith("vexa: web-1: Interrupted after the request was sent and before it was answered.\n"
                         "vexa: Your text is kept in '"));
  EXPECT_EQ(KeptText(), "autorun = 1\n");
}

}  // namespace
}  // namespace vexa::test
