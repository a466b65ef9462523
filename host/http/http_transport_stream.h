// A connection's transport as an asynchronous stream, for the WebSocket protocol of Boost.Beast.
#pragma once

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/compose.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/role.hpp>
#include <boost/system/error_code.hpp>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "host/http/http_shared.h"
#include "host/http/http_transport.h"

namespace vexa::http {

// Threads: the connection's I/O thread. Closing the socket ends the operations under way.
class TransportStream {
 public:
  using executor_type = Executor;

  // `owner`: of socket and transport. `received`: what has been read already, before everything else.
  TransportStream(std::shared_ptr<void> owner, StreamSocket& socket, Transport& transport, std::string received)
      : owner_(std::move(owner)), socket_(socket), transport_(transport), received_(std::move(received)) {}

  executor_type get_executor() const { return socket_.get_executor(); }
  StreamSocket& socket() { return socket_; }
  Transport& transport() { return transport_; }

  template <class Buffers, class Handler>
  auto async_read_some(const Buffers& buffers, Handler&& handler) {
    return boost::asio::async_compose<Handler, void(boost::system::error_code, std::size_t)>(
        Operation<Buffers, kReads>{*this, buffers}, handler, socket_);
  }

  template <class Buffers, class Handler>
  auto async_write_some(const Buffers& buffers, Handler&& handler) {
    return boost::asio::async_compose<Handler, void(boost::system::error_code, std::size_t)>(
        Operation<Buffers, kWrites>{*this, buffers}, handler, socket_);
  }

 private:
  static constexpr bool kReads = true;
  static constexpr bool kWrites = false;

  IoResult TryRead(char* bytes, std::size_t size);

  template <class Buffers, bool reads>
  struct Operation {
    TransportStream& stream;
    Buffers buffers;
    IoResult result{IoState::kWantRead};
    bool has_result = false;

    template <class Self>
    void operator()(Self& self, boost::system::error_code error = {}) {
      if (error) return self.complete(error, 0);
      if (has_result) return Complete(self);
      if (!stream.socket_.is_open()) {
        result = {IoState::kFailed};
      } else {
        result = reads ? Read() : Write();
      }
      if (result.state == IoState::kWantRead) {
        return stream.socket_.async_wait(StreamSocket::wait_read, std::move(self));
      }
      if (result.state == IoState::kWantWrite) {
        return stream.socket_.async_wait(StreamSocket::wait_write, std::move(self));
      }
      // Through the event loop: an operation must not end within the call that began it, and other connections get
      // their turn.
      has_result = true;
      boost::asio::post(stream.get_executor(), std::move(self));
    }

    template <class Self>
    void Complete(Self& self) {
      if (result.state == IoState::kDone) return self.complete({}, result.bytes);
      const boost::system::error_code error = result.state == IoState::kEnd
                                                  ? boost::system::error_code(boost::asio::error::eof)
                                                  : boost::system::error_code(boost::asio::error::connection_reset);
      self.complete(error, 0);
    }

    IoResult Read() {
      if constexpr (reads) {
        for (auto part = boost::asio::buffer_sequence_begin(buffers); part != boost::asio::buffer_sequence_end(buffers);
             ++part) {
          const boost::asio::mutable_buffer buffer(*part);
          if (buffer.size() != 0) return stream.TryRead(static_cast<char*>(buffer.data()), buffer.size());
        }
      }
      return {IoState::kDone};
    }

    IoResult Write() {
      std::array<std::string_view, 2> parts;
      std::size_t count = 0;
      for (auto part = boost::asio::buffer_sequence_begin(buffers);
           part != boost::asio::buffer_sequence_end(buffers) && count < parts.size(); ++part) {
        const boost::asio::const_buffer buffer(*part);
        if (buffer.size() != 0) parts[count++] = {static_cast<const char*>(buffer.data()), buffer.size()};
      }
      return count == 0 ? IoResult{IoState::kDone} : stream.transport_.Write(parts[0], parts[1]);
    }
  };

  const std::shared_ptr<void> owner_;
  StreamSocket& socket_;
  Transport& transport_;
  std::string received_;
};

// Found by Boost.Beast by their names.
void beast_close_socket(TransportStream& stream);
void teardown(boost::beast::role_type role, TransportStream& stream, boost::system::error_code& error);

template <class Handler>
void async_teardown(boost::beast::role_type role, TransportStream& stream, Handler&& handler) {
  boost::system::error_code error;
  teardown(role, stream, error);
  boost::asio::post(stream.get_executor(),
                    [error, handler = std::forward<Handler>(handler)]() mutable { handler(error); });
}

}  // namespace vexa::http
