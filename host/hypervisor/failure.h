// Why a hypervisor call failed; such calls return a Result<T, Failure>.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "host/base/result.h"

namespace vexa::hypervisor {

// Why a call failed, as far as a caller can act on it.
enum class FailureKind {
  kAlreadyRunning,  // the guest is running, and the call requires it to be off
  kNotRunning,      // the guest is off, and the call requires it to be running
  kNoSuchGuest,
  kExists,          // another guest has the name or the UUID
  kNetworkMissing,  // libvirt does not know a network of the guest
  kBridgeMissing,
  kDiskMissing,      // the file of a disk, an ISO image or the firmware
  kNoMemory,         // the host does not have enough memory
  kCpuIncompatible,  // the host's processor lacks a feature that the guest's has
  kBusy,             // another operation is using the guest; try again
  kHasState,         // the guest has a saved memory image, snapshots or checkpoints
  kAgentAbsent,      // the guest's agent does not answer
  kInvalid,          // an invalid id, XML or option
  kDenied,
  kUnsupported,   // this hypervisor cannot do it
  kDisconnected,  // not connected to libvirt at present; reconnecting
  kFailed,        // anything else; see the cause
};

// The name for logs: "already_running", "not_running", …
std::string_view FailureKindName(FailureKind kind);

// The general error code that is closest.
ErrorCode CodeOf(FailureKind kind);

// An Error that also has a kind. As the error of a Result it converts to a plain Error.
class Failure : public Error {
 public:
  Failure(FailureKind kind, std::string message, std::string cause = "")
      : Error(CodeOf(kind), std::move(message), std::move(cause)), kind_(kind) {}

  FailureKind kind() const { return kind_; }

 private:
  FailureKind kind_;
};

}  // namespace vexa::hypervisor
