// One request in progress, as libcurl sees it.
#pragma once

#include <curl/curl.h>

#include <array>
#include <memory>
#include <string>

#include "host/transport/http_pool.h"

namespace vexa::transport {

// Threads: one at a time.
class HttpTransfer {
 public:
  HttpTransfer(HttpCall call, HttpPool::Done done) : call_(std::move(call)), done_(std::move(done)) {}
  ~HttpTransfer();
  HttpTransfer(const HttpTransfer&) = delete;
  HttpTransfer& operator=(const HttpTransfer&) = delete;

  // Sets everything up for curl_multi_add_handle. False: no memory, no time left, or an invalid address; call Fail()
  // then. `tls` is null for plain HTTP.
  bool Prepare(std::shared_ptr<const TlsMaterial> tls);
  CURL* handle() const { return handle_; }

  // Each ends the transfer and calls `done`, even when memory runs out. Exactly one of them may be called, once. A
  // reason from Prepare takes precedence over `reason`.
  void Finish(CURLcode code);
  void Fail(const char* reason);

 private:
  template <class Value>
  void Set(CURLoption option, Value value) {
    curl_easy_setopt(handle_, option, value);
  }
  void SetTimeouts(std::chrono::milliseconds left);
  void SetTls(const TlsMaterial& tls);
  void SetBody();
  std::string ReasonOf(CURLcode code) const;

  static std::size_t Read(char* buffer, std::size_t size, std::size_t count, void* self);
  static int Seek(void* self, curl_off_t offset, int origin);
  static std::size_t Write(char* data, std::size_t size, std::size_t count, void* self);
  static CURLcode SetUpContext(CURL* handle, void* context, void* self);

  HttpCall call_;
  HttpPool::Done done_;
  std::shared_ptr<const TlsMaterial> tls_;  // libcurl does not copy it
  CURL* handle_ = nullptr;
  curl_slist* fields_ = nullptr;
  curl_slist* connect_to_ = nullptr;
  std::size_t sent_ = 0;
  HttpOutcome outcome_;
  bool too_large_ = false;
  const char* refusal_ = nullptr;  // why Prepare failed
  std::array<char, CURL_ERROR_SIZE> reason_{};
};

}  // namespace vexa::transport
