// vexa cluster: the authority of a cluster and the certificates of its hosts.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

// Creates a new authority in the folder `directory`: authority.pem, and authority.key (0600). Never replaces one.
ExitCode RunClusterInit(const GlobalOptions& global, const std::string& directory);

enum class IfPresent { kRefuse, kReplace };

struct CertificateOptions {
  std::string directory;  // of the authority
  std::string host_id;
  std::string out;
  int days = 30;  // until the certificate expires
  IfPresent if_present = IfPresent::kRefuse;
};

// Creates a key and a certificate for the host in the folder `out`: host.key (0600), host.pem, and a copy of
// authority.pem. These are that host's settings cluster-key, cluster-certificate and cluster-authority.
ExitCode RunClusterCertificate(const GlobalOptions& global, const CertificateOptions& options);

}  // namespace vexa::cli
