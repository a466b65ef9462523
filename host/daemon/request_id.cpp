#include "host/daemon/request_id.h"

namespace vexa::daemon {
namespace {

thread_local std::string_view current;

}  // namespace

RequestIdScope::RequestIdScope(std::string_view id) { current = id; }

RequestIdScope::~RequestIdScope() { current = {}; }

std::string_view CurrentRequestId() { return current; }

}  // namespace vexa::daemon
