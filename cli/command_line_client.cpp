// The commands about sessions, vexa guest get, vexa call and vexa health.
#include <memory>

#include "cli/call_command.h"
#include "cli/commands.h"
#include "cli/guest_command.h"
#include "cli/session_command.h"
#include "cli/session_list_command.h"

namespace vexa::cli {
namespace {

void AddSession(const Command& app) {
  const Command login = app.AddCommand("login", "Log in to a server and save the session");
  const auto options = std::make_shared<LoginOptions>();
  login.AddOption("USER", options->user, "The name of the user (default: the name of your system account)");
  login.AddFlag(
      "--password-stdin", [options] { options->password = PasswordSource::kStandardInput; },
      "Read the password from the first line of standard input");
  login.Footer(
      "\nExamples:\n  vexa login --server https://nas:8443 alice\n"
      "  vexa login --server https://nas:8443 --password-stdin alice < password.txt");
  login.OnRun(options, RunLogin);

  app.AddCommand("logout", "End the session and remove the saved login").OnRun(RunLogout);
  app.AddCommand("whoami", "Show who you are to the server").OnRun(RunWhoami);
}

void AddSessions(const Command& app) {
  const Command session = app.AddGroup("session", "The logins at a server");
  session.Footer(
      "\nA user's sessions also end with the user's password and account. Each server has its own sessions.\n\n"
      "Examples:\n  vexa session list\n  vexa session end 4f1c2a0e5b7d9c31\n  vexa session end --user alice");

  const Command list = session.AddCommand("list", "List your sessions, or those of others (administrators)");
  const auto list_options = std::make_shared<SessionListOptions>();
  const Option user = list.AddOption("USER", list_options->user, "The user whose sessions to list (default: you)");
  list.AddFlag("--all", list_options->all, "List the sessions of all users").Excludes(user);
  list.OnRunOrWatch(list_options, RunSessionList);

  const Command end = session.AddCommand("end", "End a session, or all sessions of a user");
  const auto end_options = std::make_shared<SessionEndOptions>();
  const Option id = end.AddOption("SESSION", end_options->id, "The session's id from 'vexa session list'");
  end.AddOption("--user", end_options->user, "End all sessions of this user").Placeholder("NAME").Excludes(id);
  end.OnRun(end_options, RunSessionEnd);
}

void AddGuest(const Command& app) {
  const Command get = app.AddGroup("guest", "Guests").AddCommand("get", "Show a guest's configuration");
  const auto guest = std::make_shared<std::string>();
  get.AddOption("GUEST", *guest, "Its id or name").Required();
  get.OnRun(guest, RunGuestGet);
}

void AddRequests(const Command& app) {
  const Command call = app.AddCommand("call", "Call any method of the API and print its data as JSON");
  const auto options = std::make_shared<CallOptions>();
  call.AddOption("API", options->api, "Such as VEXA.Virtualization.Guest").Required();
  call.AddOption("METHOD", options->method, "Such as get").Required();
  call.AddOption("JSON", options->parameters, "The parameters, an object; '-' reads standard input");
  call.AddOption("--api-version", options->version, "The version of the API").InRange(1, 1'000'000);
  call.Footer(
      "\nOther users can see a command line. Pass secrets with '-'.\n\nExamples:\n"
      "  vexa call VEXA.Core.Session info\n"
      "  echo '{\"guest_id\": \"6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55\"}' |\n"
      "    vexa call VEXA.Virtualization.Guest get -");
  call.OnRun(options, RunCall);

  app.AddCommand("health", "Check the health of the server").OnRunOrWatch(RunHealth);
}

}  // namespace

void AddClientCommands(const Command& app) {
  AddSession(app);
  AddSessions(app);
  AddGuest(app);
  AddRequests(app);
}

}  // namespace vexa::cli
