#include "host/base/certificate_times.h"

#include <ctime>

namespace vexa {
namespace {

using std::chrono::system_clock;

bool Convert(const ASN1_TIME* time, system_clock::time_point& result) {
  std::tm fields{};
  if (time == nullptr || ASN1_TIME_to_tm(time, &fields) != 1) return false;
  result = system_clock::from_time_t(::timegm(&fields));
  return true;
}

}  // namespace

CertificateTimes TimesOf(const X509* certificate) {
  CertificateTimes times;
  const bool parsed = Convert(X509_get0_notBefore(certificate), times.not_before) &&
                      Convert(X509_get0_notAfter(certificate), times.not_after);
  return parsed ? times : CertificateTimes();
}

int AcceptWithinClockTolerance(X509_STORE_CTX* context) {
  const bool is_too_early = X509_STORE_CTX_get_error(context) == X509_V_ERR_CERT_NOT_YET_VALID;
  if (!is_too_early || X509_STORE_CTX_get_error_depth(context) != 0) return 0;
  const CertificateTimes times = TimesOf(X509_STORE_CTX_get_current_cert(context));
  if (times.IsFromFuture(system_clock::now()) || times.HasExpired(system_clock::now())) return 0;
  X509_STORE_CTX_set_error(context, X509_V_OK);
  return 1;
}

}  // namespace vexa
