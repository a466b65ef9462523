// The commands that talk to a server.
#include <CLI/CLI.hpp>
#include <memory>

#include "cli/call_command.h"
#include "cli/commands.h"
#include "cli/guest_command.h"
#include "cli/session_command.h"

namespace vexa::cli {
namespace {

void AddSession(CLI::App& app, Invocation& invocation) {
  auto* login = app.add_subcommand("login", "Log in to a server and save the session");
  auto options = std::make_shared<LoginOptions>();
  login->add_option("USER", options->user, "Who logs in (default: your own account's name)");
  login->add_flag_callback(
      "--password-stdin", [options] { options->password = PasswordSource::kStandardInput; },
      "Read the password from the first line of standard input");
  login->footer(
      "\nExamples:\n  vexa login --server https://nas:8443 alice\n"
      "  vexa login --server https://nas:8443 --password-stdin alice < password.txt");
  login->callback([&invocation, options] {
    invocation.run = [&invocation, options] { return RunLogin(invocation.global, *options); };
  });

  app.add_subcommand("logout", "End the session and forget it")->callback([&invocation] {
    invocation.run = [&invocation] { return RunLogout(invocation.global); };
  });
  app.add_subcommand("whoami", "Show who you are to the server")->callback([&invocation] {
    invocation.run = [&invocation] { return RunWhoami(invocation.global); };
  });
}

void AddGuest(CLI::App& app, Invocation& invocation) {
  auto* guest = app.add_subcommand("guest", "Guests");
  guest->require_subcommand(1);
  auto* get = guest->add_subcommand("get", "Show a guest's configuration");
  auto id = std::make_shared<std::string>();
  get->add_option("ID", *id, "The guest's id")->required();
  get->callback(
      [&invocation, id] { invocation.run = [&invocation, id] { return RunGuestGet(invocation.global, *id); }; });
}

void AddRequests(CLI::App& app, Invocation& invocation) {
  auto* call = app.add_subcommand("call", "Call any method of the API and print its data as JSON");
  auto options = std::make_shared<CallOptions>();
  call->add_option("API", options->api, "Such as VEXA.Virtualization.Guest")->required();
  call->add_option("METHOD", options->method, "Such as get")->required();
  call->add_option("JSON", options->parameters, "The parameters, an object; '-' reads standard input");
  call->add_option("--api-version", options->version, "The version of the API")->check(CLI::Range(1, 1'000'000));
  call->footer(
      "\nOther users can see a command line: give secrets with '-'.\n\nExamples:\n"
      "  vexa call VEXA.Core.Session info\n"
      "  echo '{\"guest_id\": \"6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55\"}' |\n"
      "    vexa call VEXA.Virtualization.Guest get -");
  call->callback([&invocation, options] {
    invocation.run = [&invocation, options] { return RunCall(invocation.global, *options); };
  });

  app.add_subcommand("health", "Check the health of the server")->callback([&invocation] {
    invocation.run = [&invocation] { return RunHealth(invocation.global); };
  });
}

}  // namespace

void AddClientCommands(CLI::App& app, Invocation& invocation) {
  AddSession(app, invocation);
  AddGuest(app, invocation);
  AddRequests(app, invocation);
}

}  // namespace vexa::cli
