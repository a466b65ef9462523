#include "host/hypervisor/libvirt_errors.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace vexa::hypervisor {
namespace {

struct Row {
  int code;
  Problem problem;
};
// Codes that mean the same in every operation.
constexpr Row kForEveryOperation[] = {
    {VIR_ERR_NO_DOMAIN, Problem::kNoSuchGuest},
    {VIR_ERR_DOM_EXIST, Problem::kExists},
    {VIR_ERR_NO_NETWORK, Problem::kNetworkMissing},
    {VIR_ERR_NO_MEMORY, Problem::kNoMemory},
    {VIR_ERR_CPU_INCOMPATIBLE, Problem::kCpuIncompatible},
    {VIR_ERR_OPERATION_TIMEOUT, Problem::kBusy},
    {VIR_ERR_RESOURCE_BUSY, Problem::kBusy},
    {VIR_ERR_AGENT_UNRESPONSIVE, Problem::kAgentAbsent},
    {VIR_ERR_AGENT_UNSYNCED, Problem::kAgentAbsent},
    {VIR_ERR_XML_ERROR, Problem::kInvalid},
    {VIR_ERR_XML_DETAIL, Problem::kInvalid},
    {VIR_ERR_XML_INVALID_SCHEMA, Problem::kInvalid},
    {VIR_ERR_NO_SOURCE, Problem::kInvalid},
    {VIR_ERR_NO_TARGET, Problem::kInvalid},
    {VIR_ERR_NO_NAME, Problem::kInvalid},
    {VIR_ERR_NO_OS, Problem::kInvalid},
    {VIR_ERR_NO_DEVICE, Problem::kInvalid},
    {VIR_ERR_INVALID_ARG, Problem::kInvalid},
    {VIR_ERR_OS_TYPE, Problem::kInvalid},
    {VIR_ERR_CONFIG_UNSUPPORTED, Problem::kInvalid},
    {VIR_ERR_NO_SUPPORT, Problem::kUnsupported},
    {VIR_ERR_ARGUMENT_UNSUPPORTED, Problem::kUnsupported},
    {VIR_ERR_OPERATION_UNSUPPORTED, Problem::kUnsupported},
    {VIR_ERR_NO_CONNECT, Problem::kUnsupported},
    {VIR_ERR_OPERATION_DENIED, Problem::kDenied},
    {VIR_ERR_ACCESS_DENIED, Problem::kDenied},
    {VIR_ERR_AUTH_FAILED, Problem::kDenied},
    {VIR_ERR_AUTH_CANCELLED, Problem::kDenied},
    {VIR_ERR_AUTH_UNAVAILABLE, Problem::kDenied},
    {VIR_ERR_INVALID_CONN, Problem::kDisconnected},
};

bool Says(const virError& error, std::string_view words) {
  return error.message != nullptr && std::string_view(error.message).find(words) != std::string_view::npos;
}

bool IsProcessorError(const virError& error) {
  constexpr std::string_view kSentences[] = {
      "guest CPU doesn't match",
      "Host CPU does not provide required features",
      "Host CPU model does not match required CPU",
      "incompatible with host CPU",
  };
  return std::any_of(std::begin(kSentences), std::end(kSentences),
                     [&](std::string_view sentence) { return Says(error, sentence); });
}

// The system's errno is the first number of such an error. The texts are those of libvirt and QEMU.
Problem ClassifySystemError(Operation operation, const virError& error) {
  if (operation == Operation::kOpen) return error.int1 == EACCES ? Problem::kDenied : Problem::kDisconnected;
  switch (error.int1) {
    case ENODEV:
      return operation == Operation::kStart ? Problem::kBridgeMissing : Problem::kFailed;
    case ENOENT:
      return operation == Operation::kStart ? Problem::kDiskMissing : Problem::kFailed;
    case ENOMEM:
      return Problem::kNoMemory;
    case EACCES:
    case EPERM:
      return Problem::kDenied;
    default:
      return Problem::kFailed;
  }
}

// Errors that only their sentence distinguishes: the test driver reports guests that run or do not in this way, and
// QEMU that it got no memory. Processor errors sometimes have the right code and sometimes a general one.
Problem ClassifyText(const virError& error) {
  if (Says(error, "already running")) return Problem::kAlreadyRunning;
  if (Says(error, "not running")) return Problem::kNotRunning;
  if (IsProcessorError(error)) return Problem::kCpuIncompatible;
  if (Says(error, "annot allocate memory") || Says(error, "cannot set up guest memory")) return Problem::kNoMemory;
  // QEMU's helper program that adds guests of users other than root to bridges.
  if (Says(error, "access denied by acl file") || Says(error, "failed to parse default acl file")) {
    return Problem::kDenied;
  }
  return Problem::kFailed;
}

Problem ClassifyInvalidOperation(Operation operation, const virError& error) {
  const Problem by_text = ClassifyText(error);
  if (by_text != Problem::kFailed) return by_text;
  if (operation == Operation::kStart && Says(error, "is not active")) return Problem::kNetworkMissing;
  switch (operation) {
    case Operation::kStart:
    case Operation::kUndefine:
      return Problem::kAlreadyRunning;
    case Operation::kStop:
    case Operation::kRead:
      return Problem::kNotRunning;
    default:
      return Problem::kFailed;
  }
}

}  // namespace

Problem Translate(Operation operation, const virError& error) {
  // However the connection ends, the next call reports it with the code of the transport.
  if (error.domain == VIR_FROM_RPC && operation != Operation::kOpen) {
    // Except for this one, between libvirt's own daemons: the network daemon is not running.
    if (operation == Operation::kStart && Says(error, "virtnetworkd-sock")) return Problem::kNetworkMissing;
    return Problem::kDisconnected;
  }
  for (const Row& row : kForEveryOperation) {
    if (row.code == error.code) return row.problem;
  }
  switch (error.code) {
    case VIR_ERR_SYSTEM_ERROR:
      return ClassifySystemError(operation, error);
    case VIR_ERR_OPERATION_INVALID:
      return ClassifyInvalidOperation(operation, error);
    case VIR_ERR_OPERATION_FAILED:
      // Another guest has the name with a different UUID, or the UUID with a different name.
      return operation == Operation::kDefine ? Problem::kExists : ClassifyText(error);
    case VIR_ERR_INTERNAL_ERROR:
      // A daemon that ends, or stops responding, while a connection to it is being made.
      if (error.domain == VIR_FROM_RPC) return Problem::kDisconnected;
      return ClassifyText(error);
    default:
      return Problem::kFailed;
  }
}

Failure LastFailure(Operation operation, std::string message) {
  const virError* const error = virGetLastError();
  if (error == nullptr || error->code == VIR_ERR_OK) {
    return {Problem::kFailed, std::move(message), "libvirt does not say why"};
  }
  const Problem problem = Translate(operation, *error);
  return {problem, std::move(message), error->message != nullptr ? error->message : ""};
}

}  // namespace vexa::hypervisor
