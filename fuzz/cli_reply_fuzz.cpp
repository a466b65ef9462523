// What a hostile server replies to any command: the command ends, and prints only visible text.
//
// The input: a letter for the command, one for the HTTP status and the form of the output, then the body of each reply.
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "cli/call_command.h"
#include "cli/grant_command.h"
#include "cli/guest_command.h"
#include "cli/guest_set_command.h"
#include "cli/guest_state_command.h"
#include "cli/host_command.h"
#include "cli/image_command.h"
#include "cli/log_command.h"
#include "cli/printable.h"
#include "cli/repository_command.h"
#include "cli/session_command.h"
#include "cli/user_command.h"
#include "fuzz/check.h"
#include "fuzz/printed_text.h"
#include "host/base/json_parse.h"
#include "tests/support/scripted_server.h"
#include "tests/support/temp_dir.h"

namespace {

namespace cli = vexa::cli;
using vexa::fuzz::Check;
using vexa::fuzz::PrintedText;

constexpr const char* kId = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";

using cli::GlobalOptions;

cli::GrantTarget Alice() {
  cli::GrantTarget target;
  target.name = "alice";
  return target;
}

cli::GuestSetOptions Set() {
  cli::GuestSetOptions options;
  options.guest = "web-1";
  options.arguments.settings = {"vcpu_num=2"};
  return options;
}

// Each as the command line calls it.
constexpr cli::ExitCode (*kCommands[])(const GlobalOptions&) = {
    [](const GlobalOptions& global) { return cli::RunGuestGet(global, kId); },
    [](const GlobalOptions& global) { return cli::RunGuestList(global); },
    [](const GlobalOptions& global) { return cli::RunGuestStatus(global, "web-1"); },
    [](const GlobalOptions& global) { return cli::RunGuestInfo(global, kId); },
    [](const GlobalOptions& global) { return cli::RunGuestSet(global, Set()); },
    [](const GlobalOptions& global) { return cli::RunGuestGrants(global, kId); },
    [](const GlobalOptions& global) { return cli::RunHostList(global); },
    [](const GlobalOptions& global) { return cli::RunHostShow(global, "nas-1"); },
    [](const GlobalOptions& global) { return cli::RunImageList(global); },
    [](const GlobalOptions& global) { return cli::RunImageRemove(global, "a.iso"); },
    [](const GlobalOptions& global) { return cli::RunRepositoryList(global); },
    [](const GlobalOptions& global) { return cli::RunUserList(global); },
    [](const GlobalOptions& global) { return cli::RunListGrants(global, Alice()); },
    [](const GlobalOptions& global) { return cli::RunGroupList(global); },
    [](const GlobalOptions& global) { return cli::RunLog(global, {}); },
    [](const GlobalOptions& global) { return cli::RunWhoami(global); },
    [](const GlobalOptions& global) { return cli::RunHealth(global); },
    [](const GlobalOptions& global) { return cli::RunShowLevel(global, Alice()); },
};
constexpr int kStatuses[] = {200, 200, 200, 400, 401, 403, 500, 503};

void CheckPrinted(const std::string& text) {
  Check(vexa::IsValidUtf8(text), "the output is UTF-8");
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    // Escapes are what Printable writes; it would escape them again.
    for (char& c : line) c = c == '\\' ? '/' : c;
    Check(vexa::cli::Printable(line) == line, "nothing in the output controls a terminal");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  static const vexa::test::TempDir folder;
  static const std::string socket = folder.File("s");
  for (const char* const name : {"HOME", "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR"})
    ::setenv(name, folder.path().c_str(), 1);
  const int status = kStatuses[data[1] / 2 % std::size(kStatuses)];
  const std::string body(vexa::fuzz::Text(data, size).substr(2));
  GlobalOptions global;
  global.socket = socket;
  global.timeout_s = 10;
  global.json = data[1] % 2 == 1;

  ::unlink(socket.c_str());
  const vexa::test::ScriptedServer server({vexa::test::HttpReplyOf(status, body)}, socket);
  const PrintedText printed;
  const int exit_code = static_cast<int>(kCommands[data[0] % std::size(kCommands)](global));
  Check(exit_code == 0 || exit_code == 1 || exit_code == 3, "a reply never leads to another exit code");
  Check(exit_code != 0 || status == 200, "only a success is shown as one");
  CheckPrinted(printed.text());
  return 0;
}
