// The base class of the senders. A sender does not store an error: every failure is in the reply.
#include "webapi/platform/dr.h"

namespace VexaDRCore {

int ErrRecorder::GetErr() const { return 0; }

}  // namespace VexaDRCore

namespace VexaDRNode {

BaseSender::~BaseSender() = default;

}  // namespace VexaDRNode
