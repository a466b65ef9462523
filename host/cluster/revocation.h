// Revoking the certificates of a host.
#pragma once

#include <chrono>
#include <string>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

struct RevocationRequest {
  std::string host_id;
  std::string own_host_id;  // of the host that performs it
  std::string user;         // who requested it
  // How long another host may take to send a heartbeat.
  std::chrono::milliseconds heartbeat_wait{7'000};
};

// Makes every host refuse the certificates of the host that have been issued until now: by the clock of this host, by
// that of the newest heartbeat, and at least the one that the host has reported last. Returns when a new one would be
// accepted, or after three seconds, when the clocks differ by more than that.
// Nothing is revoked when this host's clock is more than an hour ahead of another living host's, because the
// certificates that are made next would be refused as well; to see that takes up to `heartbeat_wait`, unless a recent
// heartbeat shows that it is not. Nor is anything revoked when the clock is more than an hour behind the newest
// heartbeat: certificates that exist would look as if they were made later.
// Errors: kNotFound (no such host), kDenied (this host's clock), those of the store.
Status RevokeHost(store::Store& store, const RevocationRequest& request);

}  // namespace vexa::cluster
