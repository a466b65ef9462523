// Runs the real client in an environment of its own.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/matchers.h"
#include "tests/support/process.h"
#include "tests/support/scripted_server.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {

inline constexpr const char* kToken = "T0kenT0kenT0kenT0kenT0kenT0kenT0kenT0kenT0k";

class CliTest : public ::testing::Test {
 protected:
  // A client that knows no server, no login, no proxy.
  ProcessOptions Program(std::vector<std::string> arguments) const {
    ProcessOptions options;
    options.argv = {VEXA_PROGRAM};
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.environment["XDG_CONFIG_HOME"] = folder_.File("config");
    options.environment["HOME"] = folder_.path();
    for (const char* name : {"VEXA_SERVER", "VEXA_CONTEXT", "NO_COLOR", "http_proxy", "https_proxy", "HTTPS_PROXY",
                             "all_proxy", "ALL_PROXY"}) {
      options.environment[name] = std::nullopt;
    }
    options.environment["VEXA_SOCKET"] = folder_.File("vexad.sock");
    return options;
  }

  ProcessResult Run(std::vector<std::string> arguments, const std::string& input = "") const {
    ProcessOptions options = Program(std::move(arguments));
    options.input = input;
    const ProcessResult result = RunProcess(options);
    EXPECT_FALSE(result.timed_out);
    // Nobody else can read the token at any time.
    EXPECT_THAT(result.output + result.errors, Not(HasSubstr(kToken)));
    return result;
  }

  // With this part of a message, and nothing printed.
  static void ExpectFailed(const ProcessResult& result, const std::string& part) {
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, HasSubstr(part));
    EXPECT_THAT(result.output, IsEmpty());
  }

  // The client of alice, who has logged in to `server`.
  template <class Server>
  ProcessResult RunOn(const Server& server, std::vector<std::string> arguments) const {
    SaveLogin(server.url());
    return Run(std::move(arguments));
  }

  // As `vexa login` leaves it.
  void SaveLogin(const std::string& server, mode_t mode = 0600) const {
    std::filesystem::create_directories(folder_.File("config/vexa"));
    WriteFile(LoginFile(), "{\"server\": \"" + server + "\", \"user\": \"alice\", \"token\": \"" + kToken + "\"}",
              mode);
  }

  void WriteFile(const std::string& path, const std::string& content, mode_t mode = 0600) const {
    std::ofstream(path) << content;
    std::filesystem::permissions(path, static_cast<std::filesystem::perms>(mode));
  }

  std::string LoginFile() const { return folder_.File("config/vexa/login.json"); }

  TempDir folder_;
};

}  // namespace vexa::test
