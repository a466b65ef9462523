// vexa context.
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/context_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter = R"(
A context keeps a server, the authorities to trust and a user. Each context has a login of its own. A command takes the
context of --context, otherwise of $VEXA_CONTEXT, otherwise the one that is used. With --server or --socket it takes none.

Examples:
  vexa context add nas1 --server https://nas1:8443 --ca-file nas1.pem --user alice
  vexa login                            # as alice, at nas1
  vexa context use nas1
  vexa --context nas2 guest list)";

}  // namespace

void AddContextCommands(const Command& app) {
  const Command context = app.AddGroup("context", "Servers by names of your own");
  context.Footer(kFooter);

  const Command add = context.AddCommand("add", "Add the server of --server, with the file of --ca-file");
  const auto added = std::make_shared<ContextAddOptions>();
  add.AddOption("NAME", added->name, "The name of the context").Required();
  add.AddOption("--user", added->user, "The user to log in as (default: the name of your system account)")
      .Placeholder("NAME");
  add.OnRun(added, RunContextAdd);

  context.AddCommand("list", "List the contexts").OnRun(RunContextList);

  const auto name = std::make_shared<std::string>();
  const Command use = context.AddCommand("use", "Use a context from now on");
  use.AddOption("CONTEXT", *name, "Its name").Required();
  use.OnRun(name, RunContextUse);

  const Command show = context.AddCommand("show", "Show a context, and whether you are logged in");
  show.AddOption("CONTEXT", *name, "Its name (default: the one that is used)");
  show.OnRun(name, RunContextShow);

  const Command remove = context.AddCommand("remove", "Remove a context and its login");
  remove.AddOption("CONTEXT", *name, "Its name").Required();
  remove.OnRun(name, RunContextRemove);
}

}  // namespace vexa::cli
