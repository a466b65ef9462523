#include "host/hypervisor/outcome.h"

namespace vexa::hypervisor {
namespace {

struct Row {
  Problem problem;
  std::string_view name;
  ErrorCode code;
};
constexpr Row kProblems[] = {
    {Problem::kAlreadyRunning, "already_running", ErrorCode::kConflict},
    {Problem::kNotRunning, "not_running", ErrorCode::kConflict},
    {Problem::kNoSuchGuest, "no_such_guest", ErrorCode::kNotFound},
    {Problem::kExists, "exists", ErrorCode::kConflict},
    {Problem::kNetworkMissing, "network_missing", ErrorCode::kNotFound},
    {Problem::kBridgeMissing, "bridge_missing", ErrorCode::kNotFound},
    {Problem::kDiskMissing, "disk_missing", ErrorCode::kNotFound},
    {Problem::kNoMemory, "no_memory", ErrorCode::kNoSpace},
    {Problem::kCpuIncompatible, "cpu_incompatible", ErrorCode::kConflict},
    {Problem::kBusy, "busy", ErrorCode::kBusy},
    {Problem::kHasState, "has_state", ErrorCode::kConflict},
    {Problem::kAgentAbsent, "agent_absent", ErrorCode::kUnavailable},
    {Problem::kInvalid, "invalid", ErrorCode::kInvalid},
    {Problem::kDenied, "denied", ErrorCode::kDenied},
    {Problem::kUnsupported, "unsupported", ErrorCode::kInvalid},
    {Problem::kDisconnected, "disconnected", ErrorCode::kUnavailable},
    {Problem::kFailed, "failed", ErrorCode::kInternal},
};

}  // namespace

std::string_view ProblemName(Problem problem) {
  for (const Row& row : kProblems) {
    if (row.problem == problem) return row.name;
  }
  return "failed";
}

ErrorCode CodeOf(Problem problem) {
  for (const Row& row : kProblems) {
    if (row.problem == problem) return row.code;
  }
  return ErrorCode::kInternal;
}

}  // namespace vexa::hypervisor
