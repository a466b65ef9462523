// Signing certificates of hosts: asking other hosts for it, and doing it for them.
#pragma once

#include <string>

#include "host/api/peer/services.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::daemon {

// Asks the other hosts that are alive, one after the other, to sign the request for this host's certificate. Returns
// the certificate. Errors: kNotFound when none of them has the authority's key; kUnavailable with the last reason when
// one has it but did not sign, or did not reply.
Result<std::string> AskHostsToSign(const std::string& own_host_id, const std::string& request);

// The authority's files on this host.
struct AuthorityFiles {
  std::string certificate;
  std::string key;
};

// Whether the files can be used for signing. Errors: those of ReadPrivateFile, kInvalid.
Status CheckAuthorityFiles(const AuthorityFiles& files);

// Signs for a member of the cluster whose certificate has not been revoked. The new one counts as issued after the last
// revocation. The key is read each time, and wiped. Errors: those of ReadPrivateFile and the store; kInvalid (the
// request); kDenied (not a member, or revoked); kConflict (the revocation is in the future: a clock is wrong).
Result<std::string> SignForMember(const store::Store& store, const AuthorityFiles& files, const api::SigningCall& call);

}  // namespace vexa::daemon
