// Signs the certificates of hosts, where the cluster's authority is.
#include <syslog.h>

#include "host/api/peer/rows.h"
#include "host/transport/certificates.h"
#include "json/readers.h"

namespace vexa::api {
namespace {

bool IsRequestSize(const std::string& request) {
  return !request.empty() && request.size() <= transport::kMaxRequestBytes;
}

void SignCertificate(const ServiceParts& parts, const Call& call) {
  const auto request = call.request->GetAndCheckString("request", kRequired, IsRequestSize);
  if (request.IsInvalid()) return Fail(call, host_error::kBadParameter);
  if (!parts.sign_certificate) return Fail(call, host_error::kNotFoundOrUnreadable, "This host has no authority key");
  // Intentional: the id is that of the caller's certificate, so a host cannot ask for the certificate of another one.
  // The items of a host's compound request are calls in the name of this host, which signs for itself without a call.
  if (call.caller.certificate_issued == std::chrono::system_clock::time_point()) {
    return Fail(call, host_error::kNotFoundOrUnreadable, "Certificates are signed for hosts that call directly");
  }
  const Result<std::string> certificate =
      parts.sign_certificate({call.caller.host_id, call.caller.certificate_issued, request.Get()});
  if (!certificate) {
    ::syslog(LOG_WARNING, "No certificate was signed for the host '%s': %s", call.caller.host_id.c_str(),
             certificate.error().ToString().c_str());
    const bool is_bad = certificate.error().code() == ErrorCode::kInvalid;
    return Fail(call, is_bad ? host_error::kBadParameter : host_error::kFailed, certificate.error().ToString());
  }
  ::syslog(LOG_NOTICE, "Signed a certificate for the host '%s'.", call.caller.host_id.c_str());
  Json::Value data(Json::objectValue);
  data["certificate"] = *certificate;
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> CertificateRows(const ServiceParts& parts) {
  return {HostRow("VEXA.CCC.Cluster.Member", "certificate_sign", LaneKind::kLong,
                  [parts](const Call& call) { SignCertificate(parts, call); },
                  "Sign a new certificate of the calling host, where the authority's key is.",
                  {Text("request", "The request, PEM (PKCS #10); only its key is used.")},
                  {host_error::kBadParameter, host_error::kNotFoundOrUnreadable, host_error::kFailed})};
}

}  // namespace vexa::api
