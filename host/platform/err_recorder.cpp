// The base of the senders. A sender keeps no error: every failure is in the reply.
#include "webapi/platform/dr.h"

namespace VexaDRCore {

int ErrRecorder::GetErr() const { return 0; }

}  // namespace VexaDRCore

namespace VexaDRNode {

BaseSender::~BaseSender() = default;

}  // namespace VexaDRNode
