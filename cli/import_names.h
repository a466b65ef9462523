// The names of repositories, hosts and networks in the options of an import.
#pragma once

#include <vector>

#include "cli/exit_code.h"
#include "cli/http_client.h"
#include "cli/import_command.h"

namespace vexa::cli {

// Replaces the names in the options of `guests` by ids. The server lists what is named, each kind once; without
// options it is not asked. Failures are printed.
ExitCode ResolveImportNames(HttpClient& client, std::vector<ImportSource>& guests);

}  // namespace vexa::cli
