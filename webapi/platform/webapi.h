// The web-API framework: a parsed request, and the response that a handler sets.
#pragma once

#include <json/value.h>

#include <string>
#include <utility>

#pragma GCC visibility push(default)

namespace VEXA {

// One parameter as read from a request: absent, set, or invalid (it has the wrong type, its validator refused it, or it
// is required but missing).
template <class T>
class APIParameter {
 public:
  enum class State { kAbsent, kSet, kInvalid };

  APIParameter() = default;
  explicit APIParameter(State state) : state_(state) {}
  explicit APIParameter(T value) : state_(State::kSet), value_(std::move(value)) {}

  bool IsInvalid() const { return state_ == State::kInvalid; }
  // Present and valid.
  bool IsSet() const { return state_ == State::kSet; }
  // The value; T's default ("", 0, false, null) when absent or invalid.
  const T& Get() const { return value_; }

 private:
  State state_ = State::kAbsent;
  T value_{};
};

// A request as a handler receives it. Reading never changes it.
// Threads: one handler at a time.
class APIRequest {
 public:
  enum class Privilege { kOrdinary, kAdministrator };

  // `parameters` is an object; anything else counts as an empty object.
  APIRequest(Json::Value parameters, std::string login_user, Privilege privilege);

  // Read a parameter and check it. `necessity` is 0 for required, 1 for optional. Types are strict: a JSON string, an
  // integer that fits int, a JSON boolean, a JSON array. An explicit null is a wrong type; numeric strings are strings.
  // The validator, if given, is called only for values of the right type.
  APIParameter<std::string> GetAndCheckString(const std::string& name, int necessity,
                                              bool (*validator)(const std::string&) = nullptr) const;
  APIParameter<int> GetAndCheckInt(const std::string& name, int necessity,
                                   bool (*validator)(const int&) = nullptr) const;
  APIParameter<bool> GetAndCheckBool(const std::string& name, int necessity,
                                     bool (*validator)(const bool&) = nullptr) const;
  APIParameter<Json::Value> GetAndCheckArray(const std::string& name, int necessity,
                                             bool (*validator)(const Json::Value&) = nullptr) const;

  // The unchecked parameter, or `fallback` when it is absent. An empty name returns the whole parameter object.
  Json::Value GetParam(const std::string& name, const Json::Value& fallback) const;
  // Whether the parameter is present, whatever its type.
  bool HasParam(const std::string& name) const;

  std::string GetLoginUserName() const;
  bool IsAdmin() const;

 private:
  Json::Value parameters_;
  std::string login_user_;
  Privilege privilege_;
};

// A handler's result: not set, success, or error. The last call of a setter wins. If nothing is set, the caller
// receives a generic internal failure.
class APIResponse {
 public:
  void SetSuccess(const Json::Value& data);
  void SetSuccess(Json::Value&& data);
  void SetError(int code, const Json::Value& details);

  bool IsSet() const { return state_ != State::kUnset; }
  bool IsSuccess() const { return state_ == State::kSuccess; }
  // 0 unless an error is set.
  int ErrorCode() const { return code_; }
  // The data of a success or the details of an error; null when nothing is set.
  const Json::Value& Data() const { return data_; }

 private:
  enum class State { kUnset, kSuccess, kError };
  State state_ = State::kUnset;
  int code_ = 0;
  Json::Value data_;
};

}  // namespace VEXA

#pragma GCC visibility pop
