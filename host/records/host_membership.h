// Which hosts belong to the cluster, and which of their certificates have been revoked.
//
//   /revoked/<host id>  {"before" (Unix seconds), "by", "time"}: certificates of the host that were issued before that
//                       time are refused
#pragma once

#include <chrono>
#include <set>
#include <string>

#include "host/base/result.h"
#include "host/records/host_claim_record.h"
#include "host/records/reader.h"

namespace vexa::records {

inline constexpr char kHostClaims[] = "host_claim";
inline constexpr char kRevocations[] = "revoked";

struct HostMembership {
  bool is_member = false;
  std::chrono::system_clock::time_point revoked_before;  // the epoch: nothing has been revoked

  // Whether a certificate that was issued at this time may be used.
  bool Accepts(std::chrono::system_clock::time_point issued) const { return is_member && issued >= revoked_before; }
};

// A host is a member once its daemon has claimed its id, or its record is in the database, until it is removed from the
// cluster. One whose revocation is damaged is not: which certificates it refuses is unknown. Errors: those of the
// store.
Result<HostMembership> MembershipOf(const Reader& reader, const std::string& host_id);

// The ids of all hosts that have ever been members. Errors: those of the store.
Result<std::set<std::string>> HostIds(const Reader& reader);

// Refuses all certificates of the host that were issued before `before`, which has whole seconds. Replaces an earlier
// revocation, also by an earlier time, because the clock that it came from may have been wrong. Errors: kNotFound (no
// such host); those of the store.
Status RevokeCertificates(store::Store& store, const std::string& host_id, std::chrono::system_clock::time_point before,
                          const ChangeAuthor& author);

}  // namespace vexa::records
