// The result type of the host's own code: a value, or an error with a code, a sentence and its cause.
#pragma once

#include <concepts>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace vexa {

enum class ErrorCode {
  kInvalid,      // the caller's input cannot be accepted
  kNotFound,     // the named object does not exist
  kConflict,     // it was changed by another writer first, or exists already
  kDenied,       // the caller may not do this
  kBusy,         // try again later
  kUnavailable,  // a required component cannot be reached
  kNoSpace,      // the disk or a limit is full
  kCorrupt,      // stored data is damaged
  kUnknown,      // it may have happened or not, and which cannot be found out now
  kInternal,     // anything else; see the cause
};

// The name of the code for logs: "invalid", "not_found", …
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

// An error whose cause is the system's description of `error_number`, a value of errno(3).
Error SystemError(ErrorCode code, std::string message, int error_number);

// Either a value of type T, or the error of type E that explains why there is no value. E is an Error, a type derived
// from it with more details, or another type such as Refusal. Calling value() after a failure, or error() after a
// success, is a bug of the caller.
template <class T, class E = Error>
class [[nodiscard]] Result {
 public:
  // NOLINTBEGIN(google-explicit-constructor): intentional, so that `return value;` and `return error;` work
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  Result(E error) : state_(std::in_place_index<1>, std::move(error)) {}
  // Converts a result whose error type is derived from E.
  template <std::derived_from<E> D>
  requires(!std::same_as<D, E>) Result(Result<T, D> other)
      : Result(other ? Result(*std::move(other)) : Result(E(other.error()))) {}
  // NOLINTEND(google-explicit-constructor)

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

  // Requires ok().
  T& value() & { return std::get<0>(state_); }
  const T& value() const& { return std::get<0>(state_); }
  T&& value() && { return std::get<0>(std::move(state_)); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T&& operator*() && { return std::move(*this).value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

  // Requires !ok().
  const E& error() const { return std::get<1>(state_); }

 private:
  std::variant<T, E> state_;
};

template <class E>
class [[nodiscard]] Result<void, E> {
 public:
  Result() = default;
  Result(E error) : error_(std::move(error)) {}  // NOLINT(google-explicit-constructor)
  template <std::derived_from<E> D>
  requires(!std::same_as<D, E>) Result(const Result<void, D>& other) {  // NOLINT(google-explicit-constructor)
    if (!other) error_ = other.error();
  }

  bool ok() const { return !error_.has_value(); }
  explicit operator bool() const { return ok(); }
  const E& error() const { return *error_; }

 private:
  std::optional<E> error_;
};

using Status = Result<void>;

}  // namespace vexa
