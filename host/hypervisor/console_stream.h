// Brings a stream of a libvirt driver in this process to a socket.
#pragma once

#include "host/base/descriptor.h"
#include "host/base/result.h"
#include "host/hypervisor/handles.h"

namespace vexa::hypervisor {

struct FreeStream {
  void operator()(virStreamPtr stream) const { virStreamFree(stream); }
};
using StreamHandle = std::unique_ptr<virStream, FreeStream>;

// Copies the bytes of an open, non-blocking stream to and from a socket, on libvirt's event loop, and returns the
// socket's other end. It holds at most 16 KiB each way: what one side does not take is not read from the other. When
// the socket is closed, the stream is aborted; when the stream ends, the socket is closed. kInternal: no descriptors or
// no memory. Threads: any.
Result<Descriptor> SocketOfStream(StreamHandle stream);

}  // namespace vexa::hypervisor
