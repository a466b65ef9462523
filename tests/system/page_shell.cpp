#include "tests/system/page_shell.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "tests/system/cli_terminal.h"

namespace vexa::test {
namespace {

std::string Describe(const TutorialStep& step, const std::string& what) {
  return "Line " + std::to_string(step.line) + " of the page " + what + ": " + step.commands;
}

}  // namespace

PageShell::PageShell(std::vector<std::string> prefix, std::string folder, std::chrono::seconds patience)
    : prefix_(std::move(prefix)), folder_(std::move(folder)), patience_(patience) {}

std::string PageShell::Run(const TutorialStep& step) const {
  const std::string state = folder_ + "/.page-shell";
  const std::string script = "trap '{ export -p; printf \"cd %q\\n\" \"$PWD\"; } >" + state + "' EXIT\n" +  //
                             "cd " + folder_ + "\n[ ! -f " + state + " ] || . " + state + "\nset -e\n" + step.commands;
  std::vector<std::string> argv = prefix_;
  argv.insert(argv.end(), {"/bin/bash", "-c", script});
  OnTerminal shell({.argv = argv,
                    .environment = {{"HOME", folder_},
                                    {"PATH", std::string(std::getenv("PATH"))},
                                    {"LANG", "C.UTF-8"},
                                    {"TERM", "dumb"}}},
                   patience_);
  for (const TypedText& typed : TypedTexts(step)) {
    if (!typed.after.empty() && !shell.WaitFor(typed.after)) {
      return Describe(step, "does not show '" + typed.after + "'") + shell.shown();
    }
    shell.Type(typed.text == "~." ? typed.text : typed.text + "\r");
  }
  const int status = shell.Finish();
  const std::vector<std::string> shown = ShownLines(shell.shown());
  std::printf("$ %s", step.commands.c_str());
  for (const std::string& line : shown) std::printf("%s\n", line.c_str());
  std::fflush(stdout);
  if (status != 0) return Describe(step, "fails") + shell.shown();
  return DifferenceFrom(step, shown);
}

}  // namespace vexa::test
