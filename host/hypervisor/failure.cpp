#include "host/hypervisor/failure.h"

#include "host/base/rows.h"

namespace vexa::hypervisor {
namespace {

struct Row {
  FailureKind kind;
  std::string_view name;
  ErrorCode code;
};
constexpr Row kFailureKinds[] = {
    {FailureKind::kAlreadyRunning, "already_running", ErrorCode::kConflict},
    {FailureKind::kNotRunning, "not_running", ErrorCode::kConflict},
    {FailureKind::kNoSuchGuest, "no_such_guest", ErrorCode::kNotFound},
    {FailureKind::kExists, "exists", ErrorCode::kConflict},
    {FailureKind::kNetworkMissing, "network_missing", ErrorCode::kNotFound},
    {FailureKind::kBridgeMissing, "bridge_missing", ErrorCode::kNotFound},
    {FailureKind::kDiskMissing, "disk_missing", ErrorCode::kNotFound},
    {FailureKind::kNoMemory, "no_memory", ErrorCode::kNoSpace},
    {FailureKind::kCpuIncompatible, "cpu_incompatible", ErrorCode::kConflict},
    {FailureKind::kBusy, "busy", ErrorCode::kBusy},
    {FailureKind::kHasState, "has_state", ErrorCode::kConflict},
    {FailureKind::kAgentAbsent, "agent_absent", ErrorCode::kUnavailable},
    {FailureKind::kInvalid, "invalid", ErrorCode::kInvalid},
    {FailureKind::kDenied, "denied", ErrorCode::kDenied},
    {FailureKind::kUnsupported, "unsupported", ErrorCode::kInvalid},
    {FailureKind::kDisconnected, "disconnected", ErrorCode::kUnavailable},
    {FailureKind::kFailed, "failed", ErrorCode::kInternal},
};

}  // namespace

std::string_view FailureKindName(FailureKind kind) {
  const Row* const row = FindRow(kFailureKinds, &Row::kind, kind);
  return row != nullptr ? row->name : "failed";
}

ErrorCode CodeOf(FailureKind kind) {
  const Row* const row = FindRow(kFailureKinds, &Row::kind, kind);
  return row != nullptr ? row->code : ErrorCode::kInternal;
}

}  // namespace vexa::hypervisor
