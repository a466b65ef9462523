// The screen, keyboard and serial line of a real guest, at the hypervisor.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <fstream>
#include <memory>

#include "host/hypervisor/hypervisor.h"
#include "tests/support/console_guest.h"
#include "tests/support/guest_events.h"
#include "tests/support/matchers.h"
#include "tests/support/qemu_guest.h"
#include "tests/support/waiting.h"

namespace vexa::test {
namespace {

using hypervisor::Failure;
using hypervisor::Hypervisor;

constexpr const char* kGuest = "11111111-2222-4333-8444-000000000071";
constexpr const char* kUnknown = "11111111-2222-4333-8444-000000000072";

template <class T>
std::string Why(const Result<T, Failure>& outcome) {
  return outcome.ok() ? "" : outcome.error().ToString();
}

// Up to this many bytes; less when the other side ends, or sends nothing for 30 s.
std::string ReadBytes(const Descriptor& socket, std::size_t bytes) {
  std::string all;
  while (all.size() < bytes) {
    pollfd readable{socket.get(), POLLIN, 0};
    if (::poll(&readable, 1, 30'000) != 1) break;
    std::string part(bytes - all.size(), '\0');
    const ssize_t got = ::recv(socket.get(), part.data(), part.size(), 0);
    if (got <= 0) break;
    all.append(part, 0, static_cast<std::size_t>(got));
  }
  return all;
}

bool HasEnded(const Descriptor& socket) {
  pollfd readable{socket.get(), POLLIN, 0};
  char byte;
  return ::poll(&readable, 1, 30'000) == 1 && ::recv(socket.get(), &byte, 1, MSG_DONTWAIT) <= 0;
}

class QemuScreen : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    why_not_ = QemuUnavailableReason();
    if (!why_not_.empty()) return;
    environment_ = std::make_unique<QemuEnvironment>();
    const std::string image = environment_->folder() + "/console.img";
    std::ofstream(image, std::ios::binary) << ConsoleBootSector();
    hypervisor::HypervisorOptions options;
    options.mode = "embed";
    options.root = environment_->root();
    Result<std::unique_ptr<Hypervisor>, Failure> opened = Hypervisor::Open(std::move(options));
    ASSERT_TRUE(opened.ok()) << Why(opened);
    hypervisor_ = std::move(*opened);
    domain_xml::BuildOptions build;
    build.domain_type = hypervisor_->DomainType();
    build.cpu_shares = domain_xml::CpuShares::kOmitted;
    const Result<std::string> xml =
        BuildDomainXml(QemuGuestRecords(kGuest, "console", image, BootMedium::kDisk), build);
    ASSERT_TRUE(xml.ok()) << xml.error().ToString();
    const auto defined = hypervisor_->Define(*xml);
    ASSERT_TRUE(defined.ok()) << Why(defined);
    const auto started = hypervisor_->Start(kGuest);
    ASSERT_TRUE(started.ok()) << Why(started);
    AwaitGuest();
  }
  // It listens once it has shown its text; what it is sent before that is lost.
  static void AwaitGuest() {
    const auto line = hypervisor_->OpenSerial(kGuest);
    ASSERT_TRUE(line.ok()) << Why(line);
    ASSERT_TRUE(Eventually([&] {
      (void)!::send(line->get(), "x", 1, MSG_NOSIGNAL);
      pollfd readable{line->get(), POLLIN, 0};
      return ::poll(&readable, 1, 200) == 1;
    }));
  }
  static void TearDownTestSuite() {
    hypervisor_.reset();
    environment_.reset();
  }
  void SetUp() override {
    if (!why_not_.empty()) GTEST_SKIP() << SkipNotice(why_not_);
    ASSERT_NE(hypervisor_, nullptr);
  }

  static Picture Screen() {
    const auto png = hypervisor_->Screenshot(kGuest);
    EXPECT_TRUE(png.ok()) << Why(png);
    return png ? DecodePng(*png) : Picture();
  }

  static inline std::string why_not_;
  static inline std::unique_ptr<QemuEnvironment> environment_;
  static inline std::unique_ptr<Hypervisor> hypervisor_;
};

TEST_F(QemuScreen, Screenshot_ShowsWhatWasTyped) {
  const std::size_t columns = kShownText.size();
  const Picture before = Screen();
  EXPECT_EQ(before.width, 720U);
  EXPECT_EQ(before.height, 400U);
  EXPECT_FALSE(IsBlank(TextLine(before, 0, columns)));
  EXPECT_TRUE(IsBlank(TextLine(before, 2, columns)));
  const auto presses = KeyPressesOf(kShownText);
  ASSERT_TRUE(presses.ok()) << presses.error().ToString();
  const auto pressed = hypervisor_->PressKeys(kGuest, *presses);
  ASSERT_TRUE(pressed.ok()) << Why(pressed);
  // The same glyphs, below the ones of the guest.
  EXPECT_TRUE(Eventually([&] {
    const Picture screen = Screen();
    return TextLine(screen, 1, columns) == TextLine(screen, 0, columns);
  }));
}

TEST_F(QemuScreen, Serial_IsAnsweredByGuest) {
  Result<Descriptor, Failure> line = hypervisor_->OpenSerial(kGuest);
  ASSERT_TRUE(Eventually([&] { return line.ok() || (line = hypervisor_->OpenSerial(kGuest)).ok(); })) << Why(line);
  ASSERT_EQ(::send(line->get(), "!hello\x01", 7, MSG_NOSIGNAL), 7);
  std::string all;
  while (all.find("HELLO!") == std::string::npos) {
    const std::string byte = ReadBytes(*line, 1);
    if (byte.empty()) break;
    all += byte;
  }
  EXPECT_NE(all.find("HELLO!"), std::string::npos) << all;
}

TEST_F(QemuScreen, Serial_OpenedTwice_IsBusyUntilFirstIsClosed) {
  Result<Descriptor, Failure> first = hypervisor_->OpenSerial(kGuest);
  ASSERT_TRUE(Eventually([&] { return first.ok() || (first = hypervisor_->OpenSerial(kGuest)).ok(); })) << Why(first);
  const auto second = hypervisor_->OpenSerial(kGuest);
  EXPECT_EQ(OutcomeName(second), "busy") << Why(second);
  *first = Descriptor();
  EXPECT_TRUE(Eventually([] { return hypervisor_->OpenSerial(kGuest).ok(); }));
}

TEST_F(QemuScreen, Screen_SpeaksVnc) {
  const auto screen = hypervisor_->OpenScreen(kGuest);
  ASSERT_TRUE(screen.ok()) << Why(screen);
  EXPECT_EQ(ReadBytes(*screen, 12), "RFB 003.008\n");
  ASSERT_EQ(::send(screen->get(), "RFB 003.008\n", 12, MSG_NOSIGNAL), 12);
  EXPECT_EQ(ReadBytes(*screen, 2), std::string("\x01\x01"));  // one type of security: none
  // Several viewers may look at one screen.
  const auto other = hypervisor_->OpenScreen(kGuest);
  ASSERT_TRUE(other.ok()) << Why(other);
  EXPECT_EQ(ReadBytes(*other, 12), "RFB 003.008\n");
}

TEST_F(QemuScreen, Screen_HasNoPort) {
  const auto xml = hypervisor_->RunningXmlOf(kGuest);
  ASSERT_TRUE(xml.ok()) << Why(xml);
  EXPECT_NE(xml->find("<listen type='socket' socket='"), std::string::npos) << *xml;
  const std::size_t graphics = xml->find("<graphics");
  ASSERT_NE(graphics, std::string::npos);
  EXPECT_EQ(xml->substr(graphics, xml->find('>', graphics) - graphics).find("port="), std::string::npos) << *xml;
}

TEST_F(QemuScreen, UnknownGuest_IsRefused) {
  EXPECT_EQ(OutcomeName(hypervisor_->OpenScreen(kUnknown)), "no_such_guest");
  EXPECT_EQ(OutcomeName(hypervisor_->OpenSerial(kUnknown)), "no_such_guest");
  EXPECT_EQ(OutcomeName(hypervisor_->Screenshot(kUnknown)), "no_such_guest");
  EXPECT_EQ(OutcomeName(hypervisor_->PressKeys(kUnknown, {{30}})), "no_such_guest");
}

// The last one: it ends the guest.
TEST_F(QemuScreen, ZPowerOff_EndsConnections) {
  const auto screen = hypervisor_->OpenScreen(kGuest);
  Result<Descriptor, Failure> line = hypervisor_->OpenSerial(kGuest);
  ASSERT_TRUE(Eventually([&] { return line.ok() || (line = hypervisor_->OpenSerial(kGuest)).ok(); })) << Why(line);
  ASSERT_TRUE(screen.ok() && line.ok()) << Why(screen) << Why(line);
  (void)ReadBytes(*screen, 12);
  ASSERT_EQ(OutcomeName(hypervisor_->PowerOff(kGuest)), "ok");
  EXPECT_TRUE(HasEnded(*screen));
  EXPECT_TRUE(Eventually([&] { return HasEnded(*line); }));
  EXPECT_EQ(OutcomeName(hypervisor_->OpenScreen(kGuest)), "not_running");
  EXPECT_EQ(OutcomeName(hypervisor_->OpenSerial(kGuest)), "not_running");
  EXPECT_EQ(OutcomeName(hypervisor_->Screenshot(kGuest)), "not_running");
  EXPECT_EQ(OutcomeName(hypervisor_->PressKeys(kGuest, {{30}})), "not_running");
}

}  // namespace
}  // namespace vexa::test
