#include "cli/cluster_command.h"

#include <openssl/crypto.h>
#include <sys/stat.h>

#include <cerrno>
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
// Its key is wiped from memory afterwards.
using Secret = std::unique_ptr<Credentials, Wipe>;

Secret Keep(Credentials credentials) { return Secret(new Credentials(std::move(credentials))); }

Status RefusePresent(const std::string& path) {
  struct stat file {};
  if (::lstat(path.c_str(), &file) != 0 && errno == ENOENT) return {};
  return Error(ErrorCode::kConflict, "'" + path + "' exists already");
}

// The key first: a certificate without its key is useless.
Status Write(const Credentials& credentials, const std::string& key_path, const std::string& certificate_path) {
  if (Status key = WriteFileAtomically(key_path, credentials.key, kSecret); !key) return key;
  return WriteFileAtomically(certificate_path, credentials.certificate, kPublic);
}

Result<Secret> ReadAuthority(const std::string& directory) {
  Result<std::string> certificate = ReadFile(directory + "/authority.pem", kMaxFileBytes);
  if (!certificate) return certificate.error();
  Result<PrivateFile> key = ReadPrivateFile(directory + "/authority.key", kMaxFileBytes);
  if (!key) return key.error();
  return Keep({std::move(*certificate), std::move(key->content)});
}

ExitCode Done(const GlobalOptions& global, const std::string& text) {
  if (!global.quiet) std::cout << Printable(text) << '\n';
  return ExitCode::kOk;
}

}  // namespace

ExitCode RunClusterInit(const GlobalOptions& global, const std::string& directory) {
  const std::string key_path = directory + "/authority.key";
  const std::string certificate_path = directory + "/authority.pem";
  if (Status made = CreateDirectories(directory, 0700); !made) return Report(made.error());
  for (const std::string& path : {key_path, certificate_path}) {
    if (Status free = RefusePresent(path); !free) return Report(free.error());
  }
  Result<Credentials> authority = transport::MakeAuthority();
  if (!authority) return Report(authority.error());
  const Secret kept = Keep(std::move(*authority));
  if (Status written = Write(*kept, key_path, certificate_path); !written) return Report(written.error());
  return Done(global, "Made the authority '" + certificate_path + "'. Anyone who has '" + key_path +
                          "' can make hosts: keep it safe, and off the hosts.");
}

ExitCode RunClusterCertificate(const GlobalOptions& global, const std::string& directory, const std::string& host_id,
                               const std::string& out, IfPresent if_present) {
  const std::string key_path = out + "/host.key";
  const std::string certificate_path = out + "/host.pem";
  const Result<Secret> authority = ReadAuthority(directory);
  if (!authority) return Report(authority.error());
  Result<Credentials> host = transport::MakeHostCredentials(**authority, host_id);
  if (!host) return Report(host.error());
  const Secret kept = Keep(std::move(*host));
  if (Status made = CreateDirectories(out, 0700); !made) return Report(made.error());
  for (const std::string& path : {key_path, certificate_path}) {
    if (if_present == IfPresent::kReplace) break;
    if (Status free = RefusePresent(path); !free) {
      return Report(Error(free.error().code(), free.error().message() + "; --replace makes a new one in its place"));
    }
  }
  if (Status written = Write(*kept, key_path, certificate_path); !written) return Report(written.error());
  const Status copied = WriteFileAtomically(out + "/authority.pem", (*authority)->certificate, kPublic);
  if (!copied) return Report(copied.error());
  return Done(global, "Made the certificate '" + certificate_path + "' of host '" + host_id + "'.");
}

}  // namespace vexa::cli
