#include "host/hypervisor/libvirt_errors.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "host/base/rows.h"

namespace vexa::hypervisor {
namespace {

struct Row {
  int code;
  FailureKind kind;
};
// Codes that mean the same in every operation.
constexpr Row kForEveryOperation[] = {
    {VIR_ERR_NO_DOMAIN, FailureKind::kNoSuchGuest},
    {VIR_ERR_DOM_EXIST, FailureKind::kExists},
    {VIR_ERR_NO_NETWORK, FailureKind::kNetworkMissing},
    {VIR_ERR_NO_MEMORY, FailureKind::kNoMemory},
    {VIR_ERR_CPU_INCOMPATIBLE, FailureKind::kCpuIncompatible},
    {VIR_ERR_OPERATION_TIMEOUT, FailureKind::kBusy},
    {VIR_ERR_RESOURCE_BUSY, FailureKind::kBusy},
    {VIR_ERR_AGENT_UNRESPONSIVE, FailureKind::kAgentAbsent},
    {VIR_ERR_AGENT_UNSYNCED, FailureKind::kAgentAbsent},
    {VIR_ERR_XML_ERROR, FailureKind::kInvalid},
    {VIR_ERR_XML_DETAIL, FailureKind::kInvalid},
    {VIR_ERR_XML_INVALID_SCHEMA, FailureKind::kInvalid},
    {VIR_ERR_NO_SOURCE, FailureKind::kInvalid},
    {VIR_ERR_NO_TARGET, FailureKind::kInvalid},
    {VIR_ERR_NO_NAME, FailureKind::kInvalid},
    {VIR_ERR_NO_OS, FailureKind::kInvalid},
    {VIR_ERR_NO_DEVICE, FailureKind::kInvalid},
    {VIR_ERR_INVALID_ARG, FailureKind::kInvalid},
    {VIR_ERR_OS_TYPE, FailureKind::kInvalid},
    {VIR_ERR_CONFIG_UNSUPPORTED, FailureKind::kInvalid},
    {VIR_ERR_NO_SUPPORT, FailureKind::kUnsupported},
    {VIR_ERR_ARGUMENT_UNSUPPORTED, FailureKind::kUnsupported},
    {VIR_ERR_OPERATION_UNSUPPORTED, FailureKind::kUnsupported},
    {VIR_ERR_NO_CONNECT, FailureKind::kUnsupported},
    {VIR_ERR_OPERATION_DENIED, FailureKind::kDenied},
    {VIR_ERR_ACCESS_DENIED, FailureKind::kDenied},
    {VIR_ERR_AUTH_FAILED, FailureKind::kDenied},
    {VIR_ERR_AUTH_CANCELLED, FailureKind::kDenied},
    {VIR_ERR_AUTH_UNAVAILABLE, FailureKind::kDenied},
    {VIR_ERR_INVALID_CONN, FailureKind::kDisconnected},
};

bool MessageContains(const virError& error, std::string_view text) {
  return error.message != nullptr && std::string_view(error.message).find(text) != std::string_view::npos;
}

bool IsProcessorError(const virError& error) {
  constexpr std::string_view kSentences[] = {
      "guest CPU doesn't match",
      "Host CPU does not provide required features",
      "Host CPU model does not match required CPU",
      "incompatible with host CPU",
  };
  return std::any_of(std::begin(kSentences), std::end(kSentences),
                     [&](std::string_view sentence) { return MessageContains(error, sentence); });
}

// int1 of such an error is errno.
FailureKind ClassifySystemError(Operation operation, const virError& error) {
  if (operation == Operation::kOpen) return error.int1 == EACCES ? FailureKind::kDenied : FailureKind::kDisconnected;
  switch (error.int1) {
    case ENODEV:
      return operation == Operation::kStart ? FailureKind::kBridgeMissing : FailureKind::kFailed;
    case ENOENT:
      return operation == Operation::kStart ? FailureKind::kDiskMissing : FailureKind::kFailed;
    case ENOMEM:
      return FailureKind::kNoMemory;
    case EACCES:
    case EPERM:
      return FailureKind::kDenied;
    default:
      return FailureKind::kFailed;
  }
}

// Errors that only their message distinguishes, which comes from libvirt or QEMU: the test driver reports this
// way that a guest is running or stopped, and QEMU that it could not allocate memory. Processor errors sometimes have
// the right code and sometimes a general one.
FailureKind ClassifyMessage(const virError& error) {
  if (MessageContains(error, "already running")) return FailureKind::kAlreadyRunning;
  if (MessageContains(error, "not running")) return FailureKind::kNotRunning;
  if (IsProcessorError(error)) return FailureKind::kCpuIncompatible;
  if (MessageContains(error, "annot allocate memory") || MessageContains(error, "cannot set up guest memory"))
    return FailureKind::kNoMemory;
  // QEMU's helper program that adds guests of users other than root to bridges.
  if (MessageContains(error, "access denied by acl file") ||
      MessageContains(error, "failed to parse default acl file")) {
    return FailureKind::kDenied;
  }
  return FailureKind::kFailed;
}

FailureKind ClassifyInvalidOperation(Operation operation, const virError& error) {
  const FailureKind by_message = ClassifyMessage(error);
  if (by_message != FailureKind::kFailed) return by_message;
  if (operation == Operation::kStart && MessageContains(error, "is not active")) return FailureKind::kNetworkMissing;
  switch (operation) {
    case Operation::kStart:
    case Operation::kUndefine:
      return FailureKind::kAlreadyRunning;
    case Operation::kStop:
    case Operation::kRead:
      return FailureKind::kNotRunning;
    default:
      return FailureKind::kFailed;
  }
}

}  // namespace

bool LacksCpuGroup(const virError& error) {
  return error.code == VIR_ERR_CONFIG_UNSUPPORTED && MessageContains(error, "CPU tuning is not available");
}

FailureKind ClassifyError(Operation operation, const virError& error) {
  // However the connection ends, the next call reports it with the code of the transport.
  if (error.domain == VIR_FROM_RPC && operation != Operation::kOpen) {
    // Except for this one, between libvirt's own daemons: the network daemon is not running.
    if (operation == Operation::kStart && MessageContains(error, "virtnetworkd-sock"))
      return FailureKind::kNetworkMissing;
    return FailureKind::kDisconnected;
  }
  if (const Row* const row = FindRow(kForEveryOperation, &Row::code, error.code)) return row->kind;
  switch (error.code) {
    case VIR_ERR_SYSTEM_ERROR:
      return ClassifySystemError(operation, error);
    case VIR_ERR_OPERATION_INVALID:
      return ClassifyInvalidOperation(operation, error);
    case VIR_ERR_OPERATION_FAILED:
      // Another guest has the name with a different UUID, or the UUID with a different name.
      return operation == Operation::kDefine ? FailureKind::kExists : ClassifyMessage(error);
    case VIR_ERR_INTERNAL_ERROR:
      // A daemon that ends, or stops responding, while a connection to it is being made.
      if (error.domain == VIR_FROM_RPC) return FailureKind::kDisconnected;
      return ClassifyMessage(error);
    default:
      return FailureKind::kFailed;
  }
}

Failure LastFailure(Operation operation, std::string message) {
  const virError* const error = virGetLastError();
  if (error == nullptr || error->code == VIR_ERR_OK) {
    return {FailureKind::kFailed, std::move(message), "libvirt does not report a reason"};
  }
  const FailureKind kind = ClassifyError(operation, *error);
  return {kind, std::move(message), error->message != nullptr ? error->message : ""};
}

}  // namespace vexa::hypervisor
