// Brings a serial line that a libvirt daemon passes on to a socket.
#pragma once

#include <memory>

#include "host/base/descriptor.h"
#include "host/base/result.h"
#include "host/hypervisor/console_stream.h"

namespace vexa::hypervisor {

// Copies the bytes of an open, non-blocking stream to and from a socket, and returns the socket's other end. Differs
// from SocketOfStream where libvirt does for the streams of a daemon:
// - Sending waits while the guest takes no input, so a thread of the line's own sends.
// - libvirt reads from the daemon without a limit, so everything that has come is taken from it. The line ends when
//   more than kMaxWaitingBytes wait for a viewer that takes too little.
// - A guest that takes no input also holds up the end of its stream. So nothing is asked of the stream when the socket
//   is closed: the connection is closed, within a few seconds even when the daemon reads nothing from it.
// `connection` must be the stream's, without another user and without keepalive. kInternal: no descriptors, memory or
// threads. Threads: any.
Result<Descriptor> SocketOfDaemonLine(std::shared_ptr<virConnect> connection, StreamHandle stream);

inline constexpr std::size_t kMaxWaitingBytes = std::size_t{1} << 20;

}  // namespace vexa::hypervisor
