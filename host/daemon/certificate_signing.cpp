#include "host/daemon/certificate_signing.h"

#include <fmt/format.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "host/base/certificate_times.h"
#include "host/base/files.h"
#include "host/base/private_file.h"
#include "host/base/time_text.h"
#include "host/records/host_liveness.h"
#include "host/records/host_membership.h"
#include "host/transport/certificates.h"
#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc_senders.h"

namespace vexa::daemon {
namespace {

using std::chrono::system_clock;

constexpr std::size_t kMaxFileBytes = 64 * 1024;
constexpr int kTimeoutS = 10;

// The key is wiped from memory when it is destroyed.
struct Authority {
  transport::Credentials credentials;
  Authority() = default;
  Authority(Authority&&) = default;
  Authority& operator=(Authority&&) = delete;
  ~Authority() { OPENSSL_cleanse(credentials.key.data(), credentials.key.size()); }
};

Result<Authority> ReadAuthority(const AuthorityFiles& files) {
  Result<std::string> certificate = ReadFile(files.certificate, kMaxFileBytes);
  if (!certificate) return certificate.error();
  Result<PrivateFile> key = ReadPrivateFile(files.key, kMaxFileBytes);
  if (!key) return key.error();
  Authority authority;
  authority.credentials = {*std::move(certificate), std::move(key->content)};
  return authority;
}

Result<std::set<std::string>> HostsToAsk(const std::string& own_host_id) {
  const auto reader = records::Reader::OpenCurrent();
  if (!reader) return reader.error();
  auto reachable = records::ReachableHosts(*reader);
  if (reachable) reachable->erase(own_host_id);
  return reachable;
}

// Whether the reply means that the host cannot sign at all: it has no key, or its version is older.
bool CannotSign(int code) { return code == host_error::kNotFoundOrUnreadable || code == host_error::kUnknownApi; }

}  // namespace

Result<std::string> AskHostsToSign(const std::string& own_host_id, const std::string& request) {
  const auto hosts = HostsToAsk(own_host_id);
  if (!hosts) return hosts.error();
  std::optional<Error> failure;
  for (const std::string& host : *hosts) {
    VexaDRCore::Request call;
    call.setAPI("VEXA.CCC.Cluster.Member");
    call.setMethod("certificate_sign");
    call.setTimeout(kTimeoutS);
    call.addParam("request", request);
    const VexaDRCore::Response response = VexaCCC::Sender(host).process(call);
    if (response.isSuccess()) return json::String(response.getDataField("certificate"));
    if (CannotSign(response.getErrCode())) continue;
    failure = Error(ErrorCode::kUnavailable, fmt::format("The host '{}' did not sign it", host),
                    fmt::format("{} ({})", json::String(response.getErrMsg()), response.getErrCode()));
  }
  return failure ? *failure : Error(ErrorCode::kNotFound, "No host that can be reached has the authority's key");
}

Status CheckAuthorityFiles(const AuthorityFiles& files) {
  const Result<Authority> authority = ReadAuthority(files);
  return authority ? transport::CheckAuthority(authority->credentials) : authority.error();
}

Result<std::string> SignForMember(const store::Store& store, const AuthorityFiles& files,
                                  const api::SigningCall& call) {
  transport::Validity validity;
  {
    const auto reader = records::Reader::Open(store);
    if (!reader) return reader.error();
    const auto membership = records::MembershipOf(*reader, call.host_id);
    if (!membership) return membership.error();
    // Checked again: it may have been revoked since the call was accepted.
    if (!membership->Accepts(call.certificate_issued)) {
      return Error(ErrorCode::kDenied, fmt::format("'{}' is not a host of this cluster, or its certificate has been "
                                                   "revoked",
                                                   call.host_id));
    }
    validity.begin = std::max(validity.begin, membership->revoked_before);
  }
  if (validity.begin > system_clock::now() + kCertificateClockTolerance) {
    return Error(ErrorCode::kConflict,
                 fmt::format("The certificates of '{}' are revoked until {}: a clock is wrong. Revoke them again",
                             call.host_id, FormatUtcTime(validity.begin)));
  }
  const Result<Authority> authority = ReadAuthority(files);
  if (!authority) return authority.error();
  return transport::SignHostCertificate(authority->credentials, call.request, call.host_id, validity);
}

}  // namespace vexa::daemon
