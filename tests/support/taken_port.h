// A port that another program would use: this process listens on it while the object lives.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "host/base/descriptor.h"

namespace vexa::test {

class TakenPort {
 public:
  TakenPort() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(fd_.get(), plain, size), 0);
    EXPECT_EQ(::listen(fd_.get(), 1), 0);
    EXPECT_EQ(::getsockname(fd_.get(), plain, &size), 0);
    port_ = ntohs(address.sin_port);
  }
  int port() const { return port_; }

 private:
  Descriptor fd_;
  int port_ = 0;
};

}  // namespace vexa::test
