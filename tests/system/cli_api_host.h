// A server for client tests whose replies depend on the request. It serves several requests concurrently.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/system/transport_test_support.h"

namespace vexa::test {

// Threads: any, at the same time.
class ApiHost {
 public:
  struct Reply {
    int status = 200;
    std::string body;
  };
  // Nothing: the request is held until Release.
  using Answer = std::function<std::optional<Reply>(const std::string& method, const Json::Value& parameters)>;

  explicit ApiHost(Answer answer)
      : answer_(std::move(answer)),
        host_([this](auto&& request, auto responder) { Take(request, std::move(responder)); }) {}

  std::string url() const { return "http://" + host_.address(); }

  static Reply Success(const std::string& data = "null") { return {200, R"({"success":true,"data":)" + data + "}"}; }
  static Reply Failure(int code, const std::string& message, const std::string& more = "") {
    return {409, R"({"success":false,"error":{"code":)" + std::to_string(code) + R"(,"message":")" + message + "\"" +
                     more + R"(},"request_id":"0123456789abcdef"})"};
  }

  // "<method> <parameters>" of the requests so far.
  std::vector<std::string> calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
  }
  // The last request for the method; "" without one.
  std::string Last(const std::string& method) const {
    std::string last;
    for (const std::string& call : calls()) last = call.starts_with(method + " ") ? call : last;
    return last;
  }
  int Count(const std::string& method) const {
    int count = 0;
    for (const std::string& call : calls()) count += call.starts_with(method + " ") ? 1 : 0;
    return count;
  }
  std::size_t held() const {
    const std::lock_guard lock(mutex_);
    return held_.size();
  }
  // Answers what is held with a success.
  void Release() {
    std::vector<http::Responder> held;
    {
      const std::lock_guard lock(mutex_);
      held.swap(held_);
    }
    for (const http::Responder& responder : held) Send(responder, Success());
  }

 private:
  static void Send(const http::Responder& responder, Reply reply) {
    http::HttpResponse response;
    response.status = reply.status;
    response.body = std::move(reply.body);
    responder.Send(std::move(response));
  }

  void Take(const http::HttpRequest& request, http::Responder responder) {
    const std::string method = request.target.substr(request.target.rfind('/') + 1);
    const std::lock_guard lock(mutex_);
    calls_.push_back(method + " " + request.body);
    // A piece of an upload is not JSON.
    std::optional<Reply> reply = answer_(method, request.method == "PUT" ? Json::Value() : Parse(request.body));
    if (reply) return Send(responder, *std::move(reply));
    held_.push_back(std::move(responder));
  }

  const Answer answer_;
  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
  std::vector<http::Responder> held_;
  JsonHost host_;  // the last: it answers from now on
};

}  // namespace vexa::test
