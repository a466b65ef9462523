// The commands of pages that need no guests. docs/tutorial.md, docs/console.md: tutorial_test; README.md and others
// that are about an installed host: tests/packages/test-packages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "host/base/files.h"
#include "host/transport/transport.h"
#include "tests/support/matchers.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/system/page_shell.h"
#include "tests/system/tutorial_page.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience{120};

std::string TextOf(const fs::path& page) {
  const auto text = ReadFile(page, 1 << 20);
  EXPECT_TRUE(text.ok()) << page;
  return text ? *text : "";
}

// The command `vexa` of this build is found first.
void SetSearchPath() {
  const std::string folder = fs::path(VEXA_PROGRAM).parent_path();
  ::setenv("PATH", (folder + ":" + std::getenv("PATH")).c_str(), 1);
}

TEST(Pages, CommandsOfTransport_MakeFilesForAHost) {
  SetSearchPath();
  const TempDir folder;
  const std::vector<TutorialStep> steps = ReadTutorial(TextOf(VEXA_SOURCE_DIR "/docs/transport.md"));
  ASSERT_FALSE(steps.empty());
  const PageShell shell({}, folder.path(), kPatience);
  for (const TutorialStep& step : steps) ASSERT_EQ(shell.Run(step), "");
  transport::TransportOptions options;
  options.host_id = "6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55";  // that of the page
  options.remote = transport::TransportOptions::Remote::kTls;
  options.tls = {folder.File("host1/host.pem"), folder.File("host1/host.key"), folder.File("host1/authority.pem")};
  const auto usable = transport::Transport::Make(options);
  EXPECT_TRUE(usable.ok()) << usable.error().ToString();
}

// The lines of blocks without a language that begin with the command: a page shows what can be typed, in no order.
std::vector<std::string> CommandLinesOf(const std::string& page) {
  std::vector<std::string> lines;
  std::istringstream stream(page);
  bool is_in_block = false;
  bool has_language = false;
  for (std::string line; std::getline(stream, line);) {
    if (line.starts_with("```")) {
      is_in_block = !is_in_block;
      has_language = line.size() > 3;
    } else if (is_in_block && !has_language && line.starts_with("vexa ")) {
      lines.push_back(line);
    }
  }
  return lines;
}

// Lines that are not run, each with the reason.
bool IsLeftOut(const std::string& line) {
  return line.find(" --watch") != std::string::npos;  // goes on asking a server that does not answer
}

// They are words and options that `vexa` takes. What they do is tested elsewhere: no server answers here.
TEST(Pages, CommandLinesInOtherBlocks_AreParsed) {
  SetSearchPath();
  const TempDir folder;
  std::size_t count = 0;
  for (const fs::directory_entry& page : fs::directory_iterator(VEXA_SOURCE_DIR "/docs")) {
    if (page.path().extension() != ".md") continue;
    for (const std::string& line : CommandLinesOf(TextOf(page.path()))) {
      if (IsLeftOut(line)) continue;
      ++count;
      const ProcessResult result = RunProcess({.argv = {"/bin/bash", "-c", line.substr(0, line.find('|'))},
                                               .environment = {{"HOME", folder.path()},
                                                               {"XDG_CONFIG_HOME", std::nullopt},
                                                               {"VEXA_SOCKET", std::nullopt},
                                                               {"VEXA_CONTEXT", std::nullopt},
                                                               {"VEXA_SERVER", "http://127.0.0.1:1"}},
                                               .working_directory = folder.path()},
                                              kPatience);
      EXPECT_FALSE(result.timed_out) << page.path() << ": " << line;
      for (const char* const refusal : {"There is no command", "There is no option", "There is no setting",
                                        "does not take", "is required", "is not a value of", "\nTry 'vexa"}) {
        EXPECT_THAT(result.errors, Not(HasSubstr(refusal))) << page.path() << ": " << line;
      }
    }
  }
  EXPECT_GT(count, 100U) << "The command lines of docs/ cannot be read";
}

}  // namespace
}  // namespace vexa::test
