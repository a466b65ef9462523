// Results of the host's own code: a value, or an error with a code, a sentence and its cause.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace vexa {

enum class ErrorCode {
  kInvalid,      // the caller's input cannot be accepted
  kNotFound,     // what was named does not exist
  kConflict,     // changed elsewhere first, or exists already
  kDenied,       // the caller may not do this
  kBusy,         // try again later
  kUnavailable,  // a required component cannot be reached
  kNoSpace,      // the disk or a limit is full
  kCorrupt,      // stored data cannot be understood
  kInternal,     // a call failed for a reason of its own; see the cause
};

// The code as a word, for logs: "invalid", "not_found", …
std::string_view ErrorCodeName(ErrorCode code);

class Error {
 public:
  Error(ErrorCode code, std::string message) : code_(code), message_(std::move(message)) {}
  Error(ErrorCode code, std::string message, std::string cause)
      : code_(code), message_(std::move(message)), cause_(std::move(cause)) {}

  ErrorCode code() const { return code_; }
  const std::string& message() const { return message_; }
  const std::string& cause() const { return cause_; }

  // "message" or "message: cause", for people and logs.
  std::string ToString() const { return cause_.empty() ? message_ : message_ + ": " + cause_; }

 private:
  ErrorCode code_;
  std::string message_;
  std::string cause_;
};

// An error whose cause is the system's text for `error_number` (errno(3)).
Error SystemError(ErrorCode code, std::string message, int error_number);

template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::move(value)) {}  // NOLINT(google-explicit-constructor): `return value;` is the point
  Result(Error error) : state_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return std::holds_alternative<T>(state_); }
  explicit operator bool() const { return ok(); }

  // Requires ok().
  T& value() & { return std::get<T>(state_); }
  const T& value() const& { return std::get<T>(state_); }
  T&& value() && { return std::get<T>(std::move(state_)); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

  // Requires !ok().
  const Error& error() const { return std::get<Error>(state_); }

 private:
  std::variant<T, Error> state_;
};

template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return !error_.has_value(); }
  explicit operator bool() const { return ok(); }
  const Error& error() const { return *error_; }

 private:
  std::optional<Error> error_;
};

using Status = Result<void>;

}  // namespace vexa
