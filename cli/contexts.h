// Contexts: named servers with the authority to trust and the user, so that no command has to name them.
//
// They are in contexts.json in the folder of the saved login: {"current": "<name>", "contexts": {"<name>": {"server",
// "ca_file", "user"}}}. Each context has a login of its own.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "cli/client_options.h"
#include "host/base/result.h"

namespace vexa::cli {

struct Context {
  std::string server;   // as ParseServerUrl normalises it
  std::string ca_file;  // an absolute path; "": the system's authorities
  std::string user;     // "": the name of the account that runs the program
};

struct Contexts {
  std::string current;  // "": none
  std::map<std::string, Context> all;
};

// Whether `name` can be a context's: 1 to 64 letters, digits and . _ -, the first of them a letter or digit.
bool IsContextName(const std::string& name);

// Empty without a file. kCorrupt, with the file's path, when it cannot be parsed.
Result<Contexts> LoadContexts();
// Replaces the file (0600, its folder 0700) atomically.
Status SaveContexts(const Contexts& contexts);

// kNotFound, with the nearest name.
Error UnknownContext(const Contexts& contexts, const std::string& name);

// The options with the server, the authorities and the user of the context: that of --context, otherwise of
// $VEXA_CONTEXT, otherwise the current one. Its login becomes that of the program. The options stay as they are without
// a context, and where --server, --socket or $VEXA_SERVER names a server. Called where a server is needed, so that
// commands without one run when the file cannot be read. Errors: those of LoadContexts and UnknownContext.
Result<GlobalOptions> WithContext(GlobalOptions options);

}  // namespace vexa::cli
