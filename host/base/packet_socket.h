// Unix sockets of packets (SOCK_SEQPACKET), over which the daemon asks its small services with rights.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "host/base/descriptor.h"
#include "host/base/result.h"

namespace vexa {

// The socket that the service manager has opened for this process (sd_listen_fds(3)), closed in the programs that
// it starts; -1 without exactly one.
int PassedListener();

// Listens on a new socket at `path` with the mode 0660. Errors: kInternal.
Result<Descriptor> ListenForPackets(const std::string& path);

// Connects, and limits each later wait. Errors: kUnavailable, with the system's reason as the message.
Result<Descriptor> ConnectForPackets(const std::string& path, int timeout_s);

// Sending and receiving fail after that time without progress.
void LimitWaits(int socket, int seconds);

// Whether the process at the other end belongs to root or one of the users.
bool IsPeerAllowed(int socket, const std::vector<uid_t>& users);

}  // namespace vexa
