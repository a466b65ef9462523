// Serial lines of guests and viewers that take nothing, through a real host: with embedded guests, and with those of a
// libvirt daemon.
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>

#include "host/base/descriptor.h"
#include "tests/support/console_guest.h"
#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

constexpr const char* kDeaf = "11111111-2222-4333-8444-000000000082";
constexpr const char* kEcho = "11111111-2222-4333-8444-000000000083";

enum class Driver { kEmbedded, kDaemon };

// A serial line as `vexa guest console` opens it.
class RawLine {
 public:
  RawLine(const std::string& path, const std::string& guest) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un server{};
    server.sun_family = AF_UNIX;
    std::strncpy(server.sun_path, path.c_str(), sizeof server.sun_path - 1);
    if (::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) return;
    const std::string request = "GET /console/" + guest +
                                "?type=serial HTTP/1.1\r\nHost: nas\r\nConnection: Upgrade\r\n"
                                "Upgrade: vexa-tunnel\r\n\r\n";
    (void)::send(fd_.get(), request.data(), request.size(), MSG_NOSIGNAL);
    std::string header;
    for (char byte = 0; !header.ends_with("\r\n\r\n") && ReceiveByte(byte);) header += byte;
    if (header.size() > 12) status_ = std::stoi(header.substr(9, 3));
  }

  int status() const { return status_; }
  int fd() const { return fd_.get(); }
  bool Send(const std::string& text) const {
    return ::send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
  }
  // As much of `bytes` as is taken, until nothing is for a second.
  std::size_t SendWhatIsTaken(std::size_t bytes) const {
    const std::string text(bytes, 't');
    std::size_t sent = 0;
    while (sent < bytes) {
      pollfd writable{fd_.get(), POLLOUT, 0};
      if (::poll(&writable, 1, 1000) != 1) break;
      const ssize_t step = ::send(fd_.get(), text.data() + sent, bytes - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (step <= 0) break;
      sent += static_cast<std::size_t>(step);
    }
    return sent;
  }
  bool ReceiveByte(char& byte) const {
    pollfd readable{fd_.get(), POLLIN, 0};
    return ::poll(&readable, 1, 30'000) == 1 && ::recv(fd_.get(), &byte, 1, 0) == 1;
  }
  bool IsOpen() const {
    pollfd state{fd_.get(), POLLRDHUP, 0};
    return ::poll(&state, 1, 0) == 0;
  }
  void Close() { fd_ = Descriptor(); }

 private:
  Descriptor fd_;
  int status_ = 0;
};

// The memory that the process has in use, in MiB.
std::size_t MemoryMib(pid_t pid) {
  std::istringstream status(Content("/proc/" + std::to_string(pid) + "/status"));
  for (std::string word; status >> word;) {
    std::size_t kib = 0;
    if (word == "VmRSS:" && status >> kib) return kib / 1024;
  }
  return 0;
}

class QemuSerial : public LibvirtHostTest, public testing::WithParamInterface<Driver> {
 protected:
  std::string UnavailableReason() override {
    return GetParam() == Driver::kDaemon ? LibvirtdUnavailableReason() : QemuUnavailableReason();
  }
  void MakeHost() override {
    GetParam() == Driver::kDaemon ? LibvirtHostTest::MakeHost() : EmbeddedHostTest::MakeHost();
  }

  void PutGuest(const std::string& id, const std::string& name, const std::string& boot_sector) {
    HostGuest guest;
    guest.id = id;
    guest.name = name;
    guest.disks = 0;
    guest.has_drive = false;
    host_->PutGuest(guest);
    std::ofstream(host_->DiskFolder() + "/" + QemuHost::DiskId(id, 99) + ".img", std::ios::binary | std::ios::trunc)
        << boot_sector;
  }
  void StartGuests(SerialOutput output) {
    PutGuest(kDeaf, "deaf", DeafBootSector(output));
    PutGuest(kEcho, "echo", ConsoleBootSector());
    host_->Start();
    for (const char* guest : {kDeaf, kEcho}) ASSERT_EQ(host_->Power(guest, "poweron"), 0) << host_->Log();
  }
  RawLine Open(const std::string& guest) const { return RawLine(host_->Socket(), guest); }
  // The line, once it is not in use.
  RawLine OpenFree(const std::string& guest) const {
    std::optional<RawLine> line;
    (void)Await(
        [&] {
          line.reset();
          line.emplace(Open(guest));
          return line->status() == 101;
        },
        kStateTimeout);
    return std::move(*line);
  }
  // The line of the guest that answers, once it does.
  RawLine OpenEcho() const {
    std::optional<RawLine> line;
    EXPECT_TRUE(Await([&] {
      line.reset();
      line.emplace(Open(kEcho));
      pollfd readable{line->fd(), POLLIN, 0};
      return line->status() == 101 && line->Send("!") && ::poll(&readable, 1, 500) == 1;
    }));
    return std::move(*line);
  }
};

TEST_P(QemuSerial, GuestThatReadsNoInput_DoesNotDelayOtherCalls) {
  StartGuests(SerialOutput::kNone);
  const RawLine echo = OpenEcho();
  const RawLine deaf = OpenFree(kDeaf);
  ASSERT_EQ(deaf.status(), 101);
  EXPECT_GT(deaf.SendWhatIsTaken(1'000'000), 100'000U);
  char byte = 0;
  for (int i = 0; i < 20; ++i) {
    const char letter = static_cast<char>('a' + i);
    ASSERT_TRUE(echo.Send(std::string(1, letter)));
    // Answers to OpenEcho come first.
    while (byte != letter - 'a' + 'A') ASSERT_TRUE(echo.ReceiveByte(byte)) << letter;
  }
  EXPECT_EQ(host_->Code("VEXA.Virtualization.Guest/screenshot", kDeaf), 0);
  EXPECT_TRUE(deaf.IsOpen()) << "what the guest did not take has held up the others until the line ended";
}

TEST_P(QemuSerial, ViewerThatLeavesWhileGuestTakesNoInput_FreesLine) {
  StartGuests(SerialOutput::kNone);
  for (const std::size_t typed : {1, 100'000, 1'000'000}) {
    RawLine line = OpenFree(kDeaf);
    ASSERT_EQ(line.status(), 101) << host_->Log();
    (void)line.SendWhatIsTaken(typed);
    line.Close();
    EXPECT_EQ(OpenFree(kDeaf).status(), 101) << "still in use after " << typed << " bytes";
  }
}

TEST_P(QemuSerial, ViewerThatReadsNothing_TakesBoundedMemory) {
  StartGuests(SerialOutput::kEndless);
  const RawLine line = OpenFree(kDeaf);
  ASSERT_EQ(line.status(), 101);
  char byte = 0;
  ASSERT_TRUE(line.ReceiveByte(byte));
  const std::size_t before = MemoryMib(host_->pid());
  if (GetParam() == Driver::kDaemon) {
    // libvirt takes what the guest sends, so the line must end.
    EXPECT_EQ(OpenFree(kDeaf).status(), 101) << "it still belongs to the viewer that reads nothing";
  } else {
    EXPECT_FALSE(Await([&] { return Open(kDeaf).status() == 101; }, std::chrono::seconds(3))) << "the guest is held up";
  }
  EXPECT_LT(MemoryMib(host_->pid()), before + 24);
}

INSTANTIATE_TEST_SUITE_P(Drivers, QemuSerial, testing::Values(Driver::kEmbedded, Driver::kDaemon),
                         [](const auto& test) { return test.param == Driver::kDaemon ? "Daemon" : "Embedded"; });

}  // namespace
}  // namespace vexa::test
