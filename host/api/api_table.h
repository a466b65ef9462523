// The table of all methods of this host. The dispatcher, the API description, the command line's help and
// the permission matrix of the tests are all generated from it.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/api/schema.h"
#include "host/base/error_table.h"
#include "webapi/platform/webapi.h"

namespace vexa::api {

// Who may call a method.
enum class Access {
  kAnyone,         // also without a login
  kUser,           // any login; the handler decides what the user may do
  kAdministrator,  // administrators only
  kHost,           // only other hosts of the cluster, identified by their certificate
};

// The audience for which the method's error messages are worded.
constexpr Audience AudienceOf(Access access) { return access == Access::kHost ? Audience::kHosts : Audience::kUsers; }

enum class LaneKind {
  kQuick,  // only reads, from memory and the store
  kLong,   // may wait: for a commit, other hosts, the hypervisor, a password check
};

// A value without a default: a row that leaves it out does not compile.
template <class T>
struct Required {
  constexpr Required(T given) : value(given) {}  // NOLINT(google-explicit-constructor): reads as the value in a row
  Required() = delete;
  T value;
};

using ParameterType = ValueType;

struct Parameter {
  std::string_view name;
  ParameterType type;
  Necessity necessity;
  std::string_view description;
  std::size_t max_items = 0;  // of an array: one with more is a bad parameter; 0: what the body's limits allow
  Schema schema{};            // ranges, elements and members; type and description are those above (method_schema.h)
};

// The whole shape of a parameter.
Schema SchemaOf(const Parameter& parameter);

// The caller, as determined by the dispatcher.
struct Caller {
  enum class Kind { kAnonymous, kUser, kHost };
  Kind kind = Kind::kAnonymous;
  accounts::User user;        // kUser only
  std::string session_token;  // kUser with a session only
  std::string host_id;        // kHost only
  // kHost only. The epoch in calls of this host to itself, also when they are items of another host's request.
  std::chrono::system_clock::time_point certificate_issued;
  // kHost only: a member of the cluster as far as is known without asking the store; otherwise the limits of strangers
  // apply to the call, until LookUpCaller accepts it.
  bool is_known_host = false;
  std::string acts_for;  // kHost only: the user on whose behalf the host asks; empty when it did not name one
  std::string peer;      // the address of the caller: an IP address, or "unix:<uid>"
  bool tls = false;
};

struct Call {
  VEXA::APIRequest* request;
  VEXA::APIResponse* response;
  const Caller& caller;
  std::vector<std::pair<std::string, std::string>>* headers;  // of the HTTP response, for what JSON cannot express
  // An object: more members for the reply, beside "success", "data", "error" and "request_id", which it cannot
  // change. Never null in a call by the daemon.
  Json::Value* extra_members = nullptr;
};

using Handler = std::function<void(const Call&)>;

// The maximum body of a request unless the method's row allows more, and the highest maximum that a row may set.
inline constexpr std::size_t kDefaultBodyBytes = std::size_t{1} << 20;
inline constexpr std::size_t kMaxBodyBytes = std::size_t{9} << 20;

// The same for the JSON values in a body (json_values.h).
inline constexpr std::size_t kDefaultBodyValues = 2048;
inline constexpr std::size_t kMaxBodyValues = 200'000;

struct ApiRow {
  std::string_view api;
  std::string_view method;
  int version;
  Required<Access> access;
  Required<LaneKind> lane;
  Handler handler;
  std::string_view summary;
  std::vector<Parameter> parameters;
  std::vector<int> errors;  // its own codes, in addition to the common ones
  // Longer bodies are refused. More than kDefaultBodyBytes only for administrators: bodies are parsed after the caller
  // is known to be one.
  std::size_t body_bytes = kDefaultBodyBytes;
  // Bodies with more values are refused before they are parsed. More than kDefaultBodyValues only for administrators
  // and hosts.
  std::size_t body_values = kDefaultBodyValues;
  // The shape of the reply's data; not set for methods that only hosts call (method_schema.h).
  std::optional<Schema> reply{};
  // The shape of the request's body, which the table makes from the parameters.
  Schema request{};
};

class ApiTable {
 public:
  // Two rows with the same API, method and version, a row whose bodies may be larger than allowed, and a row with an
  // error code that has no sentence for its callers in error_table.cpp, are programming errors: std::logic_error.
  explicit ApiTable(std::vector<ApiRow> rows);

  // Null when there is no such API, method or version.
  const ApiRow* Find(std::string_view api, std::string_view method, int version) const;
  std::span<const ApiRow> rows() const { return rows_; }

 private:
  std::vector<ApiRow> rows_;  // sorted by API, method, version
};

// The handler of a method that needs only request and response.
Handler RequestResponseHandler(void (*handler)(VEXA::APIRequest*, VEXA::APIResponse*));

std::string_view AccessName(Access access);
std::string_view LaneName(LaneKind lane);

}  // namespace vexa::api
