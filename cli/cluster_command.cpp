#include "cli/cluster_command.h"

#include <fmt/format.h>

#include <openssl/crypto.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <iostream>
#include <memory>

#include "cli/printable.h"
#include "host/base/files.h"
#include "host/base/private_file.h"
#include "host/transport/certificates.h"

namespace vexa::cli {
namespace {

using transport::Credentials;

constexpr std::size_t kMaxFileBytes = 64 * 1024;
constexpr mode_t kSecret = 0600;
constexpr mode_t kPublic = 0644;

struct Wipe {
  void operator()(Credentials* credentials) const {
    OPENSSL_cleanse(credentials->key.data(), credentials->key.size());
    delete credentials;
  }
};
// The key is wiped from memory when it is destroyed.
using Secret = std::unique_ptr<Credentials, Wipe>;

Secret MakeSecret(Credentials credentials) { return Secret(new Credentials(std::move(credentials))); }

bool IsPresent(const std::string& path) {
  struct stat file {};
  return ::lstat(path.c_str(), &file) == 0 || errno != ENOENT;
}

// Writes the key first, because a certificate is useless without its key.
Status Write(const Credentials& credentials, const std::string& key_path, const std::string& certificate_path) {
  if (Status key = WriteFileAtomically(key_path, credentials.key, kSecret); !key) return key;
  return WriteFileAtomically(certificate_path, credentials.certificate, kPublic);
}

Result<Secret> ReadAuthority(const std::string& directory) {
  Result<std::string> certificate = ReadFile(directory + "/authority.pem", kMaxFileBytes);
  if (!certificate) return certificate.error();
  Result<PrivateFile> key = ReadPrivateFile(directory + "/authority.key", kMaxFileBytes);
  if (!key) return key.error();
  return MakeSecret({std::move(*certificate), std::move(key->content)});
}

}  // namespace

ExitCode RunClusterInit(const GlobalOptions& global, const std::string& directory) {
  const std::string key_path = directory + "/authority.key";
  const std::string certificate_path = directory + "/authority.pem";
  if (Status made = CreateDirectories(directory, 0700); !made) return Report(made.error());
  for (const std::string& path : {key_path, certificate_path}) {
    if (IsPresent(path)) return Report(Error(ErrorCode::kConflict, fmt::format("'{}' already exists", path)));
  }
  Result<Credentials> authority = transport::MakeAuthority();
  if (!authority) return Report(authority.error());
  const Secret secret = MakeSecret(std::move(*authority));
  if (Status written = Write(*secret, key_path, certificate_path); !written) return Report(written.error());
  return PrintConfirmation(global, fmt::format("Created the authority '{}'. Anyone who has '{}' can act as any host of "
                                               "the cluster. Keep it safe, on at most "
                                               "one of the hosts.",
                                               Printable(certificate_path), Printable(key_path)));
}

ExitCode RunClusterCertificate(const GlobalOptions& global, const CertificateOptions& options) {
  const std::string key_path = options.out + "/host.key";
  const std::string certificate_path = options.out + "/host.pem";
  const Result<Secret> authority = ReadAuthority(options.directory);
  if (!authority) return Report(authority.error());
  Result<Credentials> host = transport::MakeHostCredentials(
      **authority, options.host_id, {std::chrono::system_clock::now(), std::chrono::hours(24) * options.days});
  if (!host) return Report(host.error());
  const Secret secret = MakeSecret(std::move(*host));
  if (Status made = CreateDirectories(options.out, 0700); !made) return Report(made.error());
  for (const std::string& path : {key_path, certificate_path}) {
    if (options.if_present == IfPresent::kRefuse && IsPresent(path)) {
      return Report(Error(ErrorCode::kConflict, fmt::format("'{}' already exists. Use --replace to replace it", path)));
    }
  }
  if (Status written = Write(*secret, key_path, certificate_path); !written) return Report(written.error());
  const Status copied = WriteFileAtomically(options.out + "/authority.pem", (*authority)->certificate, kPublic);
  if (!copied) return Report(copied.error());
  return PrintConfirmation(global, fmt::format("Created the certificate '{}' for the host '{}'. It expires in {} days.",
                                               Printable(certificate_path), Printable(options.host_id), options.days));
}

}  // namespace vexa::cli
