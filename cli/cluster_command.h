// vexa cluster: the authority of a cluster and the certificates of its hosts.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

// Creates a new authority in the folder `directory`: authority.pem, and authority.key (0600). Never replaces one.
ExitCode RunClusterInit(const GlobalOptions& global, const std::string& directory);

enum class IfPresent { kRefuse, kReplace };

// Creates a key and a certificate for the host `host_id` in the folder `out`: host.key (0600), host.pem, and a copy of
// authority.pem. These are that host's settings tls-key, tls-certificate and client-authority.
ExitCode RunClusterCertificate(const GlobalOptions& global, const std::string& directory, const std::string& host_id,
                               const std::string& out, IfPresent if_present);

}  // namespace vexa::cli
