// The result of a hypervisor call: a value, or a failure whose meaning a caller can act on.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "host/base/result.h"

namespace vexa::hypervisor {

enum class Problem {
  kAlreadyRunning,  // the guest runs, and the call needs one that is off
  kNotRunning,      // the guest is off, and the call needs one that runs
  kNoSuchGuest,
  kExists,          // another guest has the name or the UUID
  kNetworkMissing,  // libvirt does not know a network of the guest
  kBridgeMissing,
  kDiskMissing,      // the file of a disk, an ISO image or the firmware
  kNoMemory,         // the host has not enough memory
  kCpuIncompatible,  // the host's processor lacks a feature of the guest's
  kBusy,             // another operation holds the guest; try again
  kHasState,         // the guest has a saved memory image, snapshots or checkpoints
  kAgentAbsent,      // the guest's agent does not answer
  kInvalid,          // an invalid id, XML or option
  kDenied,
  kUnsupported,   // this hypervisor cannot do it
  kDisconnected,  // not connected to libvirt at present; reconnecting
  kFailed,        // anything else; see the cause
};

// As a word for logs: "already_running", "not_running", …
std::string_view ProblemName(Problem problem);

// The closest general code.
ErrorCode CodeOf(Problem problem);

class Failure {
 public:
  Failure(Problem problem, std::string message, std::string cause = "")
      : problem_(problem), error_(CodeOf(problem), std::move(message), std::move(cause)) {}

  Problem problem() const { return problem_; }
  const Error& error() const { return error_; }
  std::string ToString() const { return error_.ToString(); }

 private:
  Problem problem_;
  Error error_;
};

// Like Result<T>, with a Failure in place of the Error; it converts to a Result.
template <class T>
class [[nodiscard]] Outcome {
 public:
  Outcome(T value) : state_(std::move(value)) {}            // NOLINT(google-explicit-constructor): as Result
  Outcome(Failure failure) : state_(std::move(failure)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return std::holds_alternative<T>(state_); }
  explicit operator bool() const { return ok(); }

  // Requires ok().
  T& operator*() & { return std::get<T>(state_); }
  const T& operator*() const& { return std::get<T>(state_); }
  T&& operator*() && { return std::get<T>(std::move(state_)); }
  T* operator->() { return &std::get<T>(state_); }
  const T* operator->() const { return &std::get<T>(state_); }

  // Requires !ok().
  const Failure& failure() const { return std::get<Failure>(state_); }

  operator Result<T>() && {  // NOLINT(google-explicit-constructor): for callers that need no meaning
    if (ok()) return std::get<T>(std::move(state_));
    return failure().error();
  }

 private:
  std::variant<T, Failure> state_;
};

template <>
class [[nodiscard]] Outcome<void> {
 public:
  Outcome() = default;
  Outcome(Failure failure) : failure_(std::move(failure)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return !failure_.has_value(); }
  explicit operator bool() const { return ok(); }
  const Failure& failure() const { return *failure_; }

  operator Status() const {  // NOLINT(google-explicit-constructor)
    if (ok()) return {};
    return failure_->error();
  }

 private:
  std::optional<Failure> failure_;
};

}  // namespace vexa::hypervisor
