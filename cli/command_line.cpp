#include "cli/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "cli/client_options.h"
#include "cli/commands.h"
#include "cli/completion.h"
#include "cli/output.h"
#include "cli/parse_failure.h"

#ifndef VEXA_VERSION
#error "The build defines VEXA_VERSION"
#endif

namespace vexa::cli {
namespace {

constexpr const char* kFooter = R"(
The server is that of --server or --socket, otherwise of --context, otherwise $VEXA_SERVER, otherwise that of the context
$VEXA_CONTEXT or the one in use, otherwise the one you are logged in to, otherwise the Unix socket $VEXA_SOCKET or
/run/vexad/vexad.sock, where your system account identifies you.

Examples:
  vexa login --server https://nas:8443 alice
  vexa guest get 6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55
  vexa guest get 6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55 --json | jq .vdisks
  vexa call VEXA.Virtualization.Guest get '{"guest_id": "6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55"}'
  vexa guest start web-1 web-2 --wait
  vexa guest set web-1 vcpu_num=4 --add-disk 100
  vexa log -f
  vexa health

Exit codes: 0 done; 1 refused or failed; 2 wrong usage; 3 the server cannot be reached; 130 interrupted.)";

// Returns the value of --output.
std::shared_ptr<std::string> AddGlobalOptions(const Command& app, GlobalOptions& options) {
  const Option server =
      app.AddOption("--server", options.server, "The server, such as https://nas:8443").Placeholder("URL");
  app.AddOption("--socket", options.socket, "The Unix socket of a server on this host")
      .Placeholder("PATH")
      .Excludes(server);
  app.AddOption("--context", options.context, "The context whose server and login are used; see 'vexa context'")
      .Placeholder("NAME")
      .Excludes(server);
  app.AddOption("--token-file", options.token_file, "A file with the token to use instead of the saved login")
      .Placeholder("PATH");
  app.AddOption("--ca-file", options.ca_file, "The authorities to trust instead of the system's (PEM)")
      .Placeholder("PATH");
  app.AddOption("--timeout", options.timeout_s, "How long to wait for a reply, 1 to 86400 s (default 60)")
      .Placeholder("SECONDS")
      .InRange(1, 86'400);
  const auto format = std::make_shared<std::string>();
  const Option output = app.AddOption("--output", *format, "How to print data: table, json, yaml or name (only names)")
                            .Placeholder("FORMAT")
                            .OneOf({"table", "json", "yaml", "name"});
  app.AddFlag("--json", options.json, "The same as --output json").Excludes(output);
  app.AddFlag("--ids", options.ids, "Show ids in tables, beside or in place of names");
  app.AddFlag("-q,--quiet", options.quiet, "Print no confirmations");
  app.AddFlag("-v,--verbose", options.verbose, "Print each request and reply on standard error, without secrets");
  app.AddFlag("--insecure-http", options.insecure_http, "Allow sending passwords and tokens unencrypted");
  return format;
}

// "--watch" without a number of seconds becomes "--watch=2", because the word after it may be an argument.
std::vector<std::string> WithWatchSeconds(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  for (std::size_t i = 0; i < words.size() && words[i] != "--"; ++i) {
    const bool has_number = i + 1 < words.size() && words[i + 1].find_first_not_of("0123456789") == std::string::npos;
    if (words[i] == "--watch" && !has_number) words[i] = "--watch=2";
  }
  std::ranges::reverse(words);  // as the parser takes them
  return words;
}

void AddCommands(const Command& app) {
  AddClientCommands(app);
  AddHostCommands(app);
  AddRecoveryCommands(app);
  AddActionCommands(app);
  AddConsoleCommands(app);
  AddEditCommands(app);
  AddCreateCommand(app);
  AddErrorCommand(app);
  AddAccountCommands(app);
  AddClusterCommands(app);
  AddRepositoryCommands(app);
  AddImageCommands(app);
  AddNetworkCommands(app);
  AddSetupCommand(app);
  AddImportCommand(app);
  AddContextCommands(app);
  AddCompletionCommands(app);
}

}  // namespace

int RunCommandLine(int argc, char** argv) {
  GlobalOptions global;
  RunFunction run;
  CLI::App app("The command line client of the virtualization server.", "vexa");
  app.set_version_flag("--version", "vexa " VEXA_VERSION, "Print the version and exit");
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.footer("\n'vexa --help' shows the options that all commands take.");  // of the commands below
  app.require_subcommand(1);
  app.fallthrough();  // global options may follow the command
  const Command program(app, run);
  const std::shared_ptr<std::string> format = AddGlobalOptions(program, global);
  AddCommands(program);
  app.footer(kFooter);
  if (argc > 2 && argv[1] == kCompleteWord) {
    PrintCompletions(app, std::vector<std::string>(argv + 3, argv + argc));
    return static_cast<int>(ExitCode::kOk);
  }
  try {
    app.parse(WithWatchSeconds(argc, argv));
  } catch (const CLI::Success& asked) {  // --help, --version
    return app.exit(asked);
  } catch (const CLI::ParseError& error) {
    std::cerr << ParseFailureText(app, error);
    return static_cast<int>(ExitCode::kUsage);
  }
  if (!format->empty()) global.json = *format != "table";
  SetDataFormat(*format == "yaml" ? DataFormat::kYaml : *format == "name" ? DataFormat::kName : DataFormat::kJson);
  return static_cast<int>(run(global));
}

}  // namespace vexa::cli
