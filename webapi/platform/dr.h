// Requests to hosts and their replies.
#pragma once

#include <json/value.h>

#include <string>

#pragma GCC visibility push(default)

namespace VexaDRCore {

// Base of classes that record their last error; 0: no error.
class ErrRecorder {
 public:
  virtual int GetErr() const;

 protected:
  ~ErrRecorder() = default;
};

// A request to one or several hosts. The version is 1 unless set.
// Threads: one at a time.
class Request {
 public:
  Request();

  void setAPI(const std::string& api);
  void setMethod(const std::string& method);
  void setVersion(int version);
  // Merges every member of `object` into the parameters; anything but an object adds nothing.
  void addParam(const Json::Value& object);
  void addParam(const std::string& name, const Json::Value& value);
  // The timeout of the whole call, including connecting. If this is not called, or `seconds` is not positive, the
  // transport's default of 30 s applies.
  void setTimeout(int seconds);
  // Resets everything, including the timeout, to the state after construction.
  void clear();

  // {"api", "method", "version", and the parameters}. For log lines.
  Json::Value toJson() const;

  const std::string& api() const { return api_; }
  const std::string& method() const { return method_; }
  int version() const { return version_; }
  const Json::Value& parameters() const { return parameters_; }
  int timeout_s() const { return timeout_s_; }

 private:
  std::string api_;
  std::string method_;
  int version_;
  Json::Value parameters_;
  int timeout_s_;
};

// A reply of one host. No member function throws, whatever the host sent. A default-constructed Response has no reply
// and is not a success. Threads: any number may read concurrently.
class Response {
 public:
  Response();
  // `reply` is the whole reply as the host sent it. Anything but an object is kept unchanged and is not a success.
  explicit Response(Json::Value reply);

  bool isSuccess() const;
  // Whether there is data other than null.
  bool hasData() const;
  Json::Value getData() const;
  // Whether the data is an object with this member; true even if the member is null.
  bool hasDataField(const char* name) const;
  Json::Value getDataField(const char* name) const;
  // Members at the top level of the reply, such as "has_fail".
  bool hasField(const char* name) const;
  Json::Value getField(const char* name) const;
  // 0 on success; 100 for a failure without a readable code.
  int getErrCode() const;
  // The error's details if it has any, otherwise its message; any JSON value, as the host sent it.
  Json::Value getErrMsg() const;
  Json::Value toJson() const;
  void clear();

 private:
  Json::Value reply_;
};

}  // namespace VexaDRCore

namespace VexaDRNode {

class BaseSender : public VexaDRCore::ErrRecorder {
 public:
  virtual ~BaseSender();
};

}  // namespace VexaDRNode

#pragma GCC visibility pop
