// Requests to hosts and their replies.
#pragma once

#include <json/value.h>

#include <string>

#pragma GCC visibility push(default)

namespace VexaDRCore {

// Remembers the last error of what derives from it; 0 when there is none.
class ErrRecorder {
 public:
  virtual int GetErr() const;

 protected:
  ~ErrRecorder() = default;
};

// A request to one or several hosts. Version 1 unless set.
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
  // Seconds for the whole call, connecting included. Never called, or not positive: the transport's default, 30 s.
  void setTimeout(int seconds);
  // As newly constructed, the time-out too.
  void clear();

  // {"api", "method", "version", and the parameters}; for log lines.
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

// One host's reply. Whatever the host sent, no member throws. Default-constructed: no reply, which is not a success.
// Threads: any number may read concurrently.
class Response {
 public:
  Response();
  // `reply` is the whole reply as the host sent it; anything but an object is kept unchanged and is not a success.
  explicit Response(Json::Value reply);

  bool isSuccess() const;
  // False for null.
  bool hasData() const;
  Json::Value getData() const;
  // False when the data is not an object; true for a present null.
  bool hasDataField(const char* name) const;
  Json::Value getDataField(const char* name) const;
  // Top-level members of the reply, "has_fail" for one.
  bool hasField(const char* name) const;
  Json::Value getField(const char* name) const;
  // 0 on success. A failure without a readable code is 100.
  int getErrCode() const;
  // The error's details when it has some, else its message; text or structure, as the host sent it.
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
