#include "host/http/http_parser.h"

#include <algorithm>
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>
#include <limits>

#include "host/http/http_rules.h"

namespace vexa::http {
namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;

// "0" and two line ends: between chunks, at least this many bytes must follow. The parser assumes that it sees this
// much of a last chunk in one piece; without this check, a client that sends single bytes would end the process.
constexpr std::size_t kMinChunkEndBytes = 5;

std::string_view View(beast::string_view text) { return {text.data(), text.size()}; }

// Whether `bytes`, from the end of one chunk, contain the complete first line of the next one, and that is not the last
// chunk.
bool HasChunkHeader(std::string_view bytes) {
  if (bytes.starts_with("\r\n")) bytes.remove_prefix(2);
  const std::size_t digit = bytes.find_first_not_of('0');
  return digit != std::string_view::npos &&
         std::string_view("123456789abcdefABCDEF").find(bytes[digit]) != std::string_view::npos &&
         bytes.find("\r\n") != std::string_view::npos;
}

int StatusOf(const beast::error_code& error) {
  if (error == http::error::body_limit) return 413;
  if (error == http::error::bad_version) return 505;
  return 400;
}

}  // namespace

class RequestParser::Impl : public http::basic_parser<true> {
 public:
  HttpRequest request_;
  bool header_done_ = false;
  bool keep_alive_ = false;
  bool http_1_0_ = false;
  bool expects_continue_ = false;
  bool unknown_expectation_ = false;
  bool chunked_ = false;
  std::uint64_t chunk_left_ = 0;
  std::string upgrade_;
  std::string websocket_version_;

 private:
  void on_request_impl(http::verb /*method*/, beast::string_view method, beast::string_view target, int version,
                       beast::error_code& /*error*/) override {
    request_.method = View(method);
    request_.target = OriginForm(View(target));
    http_1_0_ = version == 10;
  }

  void on_response_impl(int /*code*/, beast::string_view /*reason*/, int /*version*/, beast::error_code&) override {}

  void on_field_impl(http::field field, beast::string_view name, beast::string_view value,
                     beast::error_code& /*error*/) override {
    if (header_done_) return;  // a trailer, which must not change the caller's identity
    switch (field) {
      case http::field::accept:
        request_.accept = View(value);
        break;
      case http::field::content_type:
        request_.content_type = View(value);
        break;
      case http::field::authorization:
        request_.authorization = View(value);
        break;
      case http::field::cookie:
        request_.cookie = View(value);
        break;
      case http::field::origin:
        request_.origin = View(value);
        break;
      case http::field::content_range:
        request_.content_range = View(value);
        break;
      case http::field::expect:
        expects_continue_ = EqualsIgnoringCase(View(value), "100-continue");
        unknown_expectation_ = !expects_continue_;
        break;
      case http::field::host:
        request_.host = View(value);
        break;
      case http::field::upgrade:
        upgrade_ = View(value);
        break;
      case http::field::sec_websocket_key:
        request_.websocket_key = View(value);
        break;
      case http::field::sec_websocket_version:
        websocket_version_ = View(value);
        break;
      default:
        SetCustomField(View(name), View(value));
    }
  }

  // Fields that the parser has no constant for.
  void SetCustomField(std::string_view name, std::string_view value) {
    if (EqualsIgnoringCase(name, "X-Vexa-CSRF")) request_.csrf_token = value;
    if (EqualsIgnoringCase(name, "X-Vexa-Acts-For")) request_.acts_for = value;
    if (EqualsIgnoringCase(name, "X-Vexa-Request-Id")) request_.caller_request_id = value;
  }

  void on_header_impl(beast::error_code& /*error*/) override { header_done_ = true; }

  void on_body_init_impl(const boost::optional<std::uint64_t>& length, beast::error_code& error) override {
    // Intentional: nothing is allocated yet, because a client may announce a body and never send it.
    if (length && *length > request_.body_limit) error = http::error::body_limit;
  }

  std::size_t on_body_impl(beast::string_view body, beast::error_code& error) override {
    if (body.size() > request_.body_limit - std::min(request_.body_limit, request_.body.size())) {
      error = http::error::body_limit;
      return 0;
    }
    request_.body.append(body.data(), body.size());
    return body.size();
  }

  // The parser accepts any byte within a quoted string. A bare line feed or NUL could end the line for another reader.
  void on_chunk_header_impl(std::uint64_t size, beast::string_view extensions, beast::error_code& error) override {
    chunk_left_ = size;
    if (!IsFieldValue(View(extensions))) error = http::error::bad_chunk_extension;
  }

  std::size_t on_chunk_body_impl(std::uint64_t /*remain*/, beast::string_view body, beast::error_code& error) override {
    chunk_left_ -= body.size();
    return on_body_impl(body, error);
  }

  void on_finish_impl(beast::error_code& /*error*/) override {}
};

namespace {

// 16 bytes as base64 (RFC 6455, section 4.1).
bool IsWebSocketKey(std::string_view key) {
  const auto is_digit = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
  };
  return key.size() == 24 && key.ends_with("==") && std::all_of(key.begin(), key.end() - 2, is_digit);
}

}  // namespace

RequestParser::RequestParser(std::size_t body_limit) : impl_(std::make_unique<Impl>()) {
  // The caller limits the length of the header, because it has to find its end anyway.
  impl_->header_limit(std::numeric_limits<std::uint32_t>::max());
  impl_->body_limit(body_limit);
}

RequestParser::~RequestParser() = default;

int RequestParser::ParseHeader(std::string_view header) {
  if (const int status = CheckRequestHeader(header); status != 0) return status;
  beast::error_code error;
  const std::size_t consumed = impl_->put({header.data(), header.size()}, error);
  if (error) return StatusOf(error);
  if (consumed != header.size() || !impl_->is_header_done()) return 400;
  impl_->keep_alive_ = impl_->keep_alive();
  impl_->chunked_ = impl_->chunked();
  impl_->eager(true);
  impl_->request_.announced_body_bytes = impl_->chunked_
                                             ? std::numeric_limits<std::size_t>::max()
                                             : static_cast<std::size_t>(impl_->content_length().value_or(0));
  impl_->request_.upgrade = RequestedUpgrade();
  return impl_->unknown_expectation_ ? 417 : 0;
}

std::string RequestParser::RequestedUpgrade() const {
  const HttpRequest& request = impl_->request_;
  if (request.method != "GET" || impl_->http_1_0_ || !impl_->upgrade() || !impl_->is_done()) return {};
  if (EqualsIgnoringCase(impl_->upgrade_, kRawTunnel)) return std::string(kRawTunnel);
  const bool is_websocket = EqualsIgnoringCase(impl_->upgrade_, kWebSocket) && impl_->websocket_version_ == "13" &&
                            IsWebSocketKey(request.websocket_key);
  return is_websocket ? std::string(kWebSocket) : std::string();
}

bool RequestParser::expects_body() const { return !impl_->is_done(); }
// HTTP/1.0 has no interim responses.
bool RequestParser::expects_continue() const { return impl_->expects_continue_ && !impl_->http_1_0_; }
bool RequestParser::keep_alive() const { return impl_->keep_alive_; }
bool RequestParser::is_http_1_0() const { return impl_->http_1_0_; }

RequestParser::Progress RequestParser::ParseBody(std::string_view bytes) {
  Progress progress;
  const bool between_chunks = impl_->chunked_ && impl_->chunk_left_ == 0;
  if (bytes.size() >= (between_chunks ? kMinChunkEndBytes : 1) && !impl_->is_done()) {
    beast::error_code error;
    progress.consumed = impl_->put({bytes.data(), bytes.size()}, error);
    if (error && error != http::error::need_more) progress.status = StatusOf(error);
    // An extension with an open quote: the parser would wait for the rest of a line that has already ended, and
    // subtract the chunk's size from the body limit on each attempt.
    if (error == http::error::need_more && impl_->chunked_ && impl_->chunk_left_ == 0 &&
        HasChunkHeader(bytes.substr(progress.consumed))) {
      progress.status = 400;
    }
  }
  progress.done = progress.status == 0 && impl_->is_done();
  return progress;
}

HttpRequest& RequestParser::request() { return impl_->request_; }

}  // namespace vexa::http
