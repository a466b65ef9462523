// What a hostile server replies to any command: the command ends, and prints only visible text.
//
// The input: a letter for the command, one for the HTTP status and the form of the output, then the body of each reply.
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "cli/printable.h"
#include "fuzz/check.h"
#include "host/base/json_parse.h"
#include "tests/support/scripted_server.h"
#include "tests/support/temp_dir.h"

namespace {

using vexa::fuzz::Check;

constexpr const char* kId = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";

const std::vector<std::vector<const char*>> kCommands = {
    {"guest", "get", kId},
    {"guest", "list"},
    {"guest", "status", "web-1"},
    {"guest", "info", kId},
    {"guest", "set", kId, "vcpu_num=2"},
    {"guest", "grants", kId},
    {"host", "list"},
    {"host", "show", "nas-1"},
    {"image", "list"},
    {"image", "remove", "a.iso"},
    {"repository", "list"},
    {"user", "list"},
    {"user", "grants", "alice"},
    {"group", "list"},
    {"log"},
    {"whoami"},
    {"health"},
    {"call", "VEXA.Virtualization.Guest", "get", "{}"},
};
constexpr int kStatuses[] = {200, 200, 200, 400, 401, 403, 500, 503};

// What the command prints goes to `text`.
class PrintedText {
 public:
  PrintedText() : out_(std::cout.rdbuf(text_.rdbuf())), err_(std::cerr.rdbuf(text_.rdbuf())) {}
  ~PrintedText() {
    std::cout.rdbuf(out_);
    std::cerr.rdbuf(err_);
  }
  std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* out_;
  std::streambuf* err_;
};

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
  const std::vector<const char*>& command = kCommands[data[0] % kCommands.size()];
  const int status = kStatuses[data[1] / 2 % std::size(kStatuses)];
  const std::string body(vexa::fuzz::Text(data, size).substr(2));
  std::vector<std::string> arguments{"vexa", "--socket", socket, "--timeout", "10"};
  if (data[1] % 2 == 1) arguments.emplace_back("--json");
  arguments.insert(arguments.end(), command.begin(), command.end());
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  ::unlink(socket.c_str());
  const vexa::test::ScriptedServer server({vexa::test::HttpReplyOf(status, body)}, socket);
  const PrintedText printed;
  const int exit_code = vexa::cli::RunCommandLine(static_cast<int>(argv.size()) - 1, argv.data());
  Check(exit_code == 0 || exit_code == 1 || exit_code == 3, "a reply never leads to another exit code");
  Check(exit_code != 0 || status == 200, "only a success is shown as one");
  CheckPrinted(printed.text());
  return 0;
}
