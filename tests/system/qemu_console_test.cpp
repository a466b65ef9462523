// Consoles of a real guest through a real host, as users and their programs open them.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>

#include "json/readers.h"
#include "tests/support/console_guest.h"
#include "tests/support/process.h"
#include "tests/support/qemu_host_test.h"
#include "tests/support/websocket_client.h"
#include "tests/system/cli_terminal.h"
#include "tests/system/transport_test_support.h"

namespace vexa::test {
namespace {

using ::testing::HasSubstr;

constexpr const char* kGuest = "11111111-2222-4333-8444-000000000081";

class QemuConsole : public EmbeddedHostTest {
 protected:
  void SetUp() override {
    EmbeddedHostTest::SetUp();
    if (IsSkipped()) return;
    PutConsoleGuest();
    host_->Start();
    ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
    AwaitGuest();
  }
  std::string UnavailableReason() override { return QemuUnavailableReason(); }

  void PutConsoleGuest() {
    HostGuest guest;
    guest.id = kGuest;
    guest.name = "console";
    guest.disks = 0;
    guest.has_drive = false;
    host_->PutGuest(guest);
    // In the place of the image that PutGuest has copied.
    std::ofstream(host_->DiskFolder() + "/" + QemuHost::DiskId(kGuest, 99) + ".img", std::ios::binary | std::ios::trunc)
        << ConsoleBootSector();
  }

  WebSocketClient Open(const std::string& type) {
    WebSocketClient client = WebSocketClient::Unix(host_->Socket());
    status_ = client.Upgrade(std::string("/console/") + kGuest + "?type=" + type);
    return client;
  }
  // The guest listens on the serial line once it has shown its text.
  void AwaitGuest() {
    ASSERT_TRUE(Await([&] {
      WebSocketClient line = Open("serial");
      if (status_ != 101) return false;
      pollfd readable{line.fd(), POLLIN, 0};
      return line.Send("x") && ::poll(&readable, 1, 500) == 1;
    }));
  }
  // The serial line. It is in use until the host has noticed that AwaitGuest has closed it.
  WebSocketClient OpenFreeLine(const std::function<WebSocketClient()>& open) {
    std::optional<WebSocketClient> line;
    EXPECT_TRUE(Await([&] {
      line.reset();
      line.emplace(open());
      return status_ != 409;
    }));
    return std::move(*line);
  }
  WebSocketClient OpenFreeLine() {
    return OpenFreeLine([this] { return Open("serial"); });
  }
  Picture Screen() {
    const std::string file = environment_->folder() + "/screen.png";
    host_->Vexa({"guest", "screenshot", "console", file, "--socket", host_->Socket()});
    struct stat status {};
    EXPECT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    return DecodePng(Content(file));
  }
  std::string Log() { return host_->Vexa({"log", "--all", "--socket", host_->Socket()}); }

  int status_ = 0;
};

TEST_F(QemuConsole, TypedText_IsOnScreenshotAndNotInLogs) {
  const std::size_t columns = kShownText.size();
  const Picture before = Screen();
  ASSERT_EQ(before.width, 720U);
  EXPECT_FALSE(IsBlank(TextLine(before, 0, columns)));
  EXPECT_NE(TextLine(before, 0, columns), TextLine(before, 1, columns));
  host_->Vexa({"guest", "type", "console", std::string(kShownText), "--socket", host_->Socket()});
  EXPECT_TRUE(Await([&] {
    const Picture screen = Screen();
    return TextLine(screen, 0, columns) == TextLine(screen, 1, columns);
  }));
  const std::string log = Log();
  EXPECT_THAT(log, HasSubstr("A text has been typed on the keyboard of the virtual machine [console]."));
  EXPECT_THAT(log, HasSubstr("A picture of the screen of the virtual machine [console] has been taken."));
  EXPECT_EQ(log.find(kShownText), std::string::npos);
  EXPECT_EQ(host_->Log().find(kShownText), std::string::npos);
}

TEST_F(QemuConsole, Screen_SpeaksVncThroughWebSocketWithTicket) {
  Json::Value type(Json::objectValue);
  type["type"] = "vnc";
  const Json::Value reply = host_->Ask("VEXA.Virtualization.Guest/console_ticket", kGuest, type);
  const std::string path = json::String(json::Member(json::Member(reply, "data"), "path"));
  WebSocketClient client = WebSocketClient::Unix(host_->Socket());
  ASSERT_EQ(client.Upgrade(path), 101) << client.body();
  EXPECT_EQ(client.Receive(12), "RFB 003.008\n");
  ASSERT_TRUE(client.Send("RFB 003.008\n"));
  EXPECT_EQ(client.Receive(2), "\x01\x01");  // no other security than this connection's
  ASSERT_TRUE(client.Send("\x01"));
  EXPECT_EQ(client.Receive(4), std::string(4, '\0'));
  ASSERT_TRUE(client.Send("\x01"));  // others may watch, too
  const std::string server_init = client.Receive(24);
  ASSERT_GE(server_init.size(), 24U);
  EXPECT_EQ(server_init.substr(0, 4), std::string("\x02\xd0\x01\x90", 4)) << "720 by 400";
  // A full update of the screen, uncompressed.
  ASSERT_TRUE(client.Send(std::string("\x02\0\0\x01\0\0\0\0", 8) + std::string("\x03\0\0\0\0\0\x02\xd0\x01\x90", 10)));
  const std::string update = client.Receive(720 * 400 * 4);
  EXPECT_GE(update.size(), 720U * 400 * 4);
  // The ticket was good once.
  WebSocketClient second = WebSocketClient::Unix(host_->Socket());
  EXPECT_EQ(second.Upgrade(path), 401);
  EXPECT_THAT(Log(), HasSubstr("The screen of the virtual machine [console] has been opened."));
}

TEST_F(QemuConsole, Qemu_ListensOnSocketOnly) {
  const std::vector<int> qemus = QemusOf(environment_->folder(), kGuest);
  ASSERT_EQ(qemus.size(), 1U);
  std::string arguments = Content("/proc/" + std::to_string(qemus[0]) + "/cmdline");
  std::ranges::replace(arguments, '\0', ' ');
  EXPECT_THAT(arguments, HasSubstr(" -vnc vnc=unix:"));
  EXPECT_EQ(arguments.find("-spice"), std::string::npos);
}

TEST_F(QemuConsole, SerialLine_AnswersOnePersonAtATime) {
  WebSocketClient line = OpenFreeLine();
  ASSERT_EQ(status_, 101) << line.body();
  ASSERT_TRUE(line.Send("hello\x01"));
  EXPECT_THAT(line.ReceiveUntil("HELLO!"), HasSubstr("HELLO!"));
  const WebSocketClient second = Open("serial");
  EXPECT_EQ(status_, 409);
  EXPECT_THAT(second.body(), HasSubstr("Somebody else uses it"));
  const ProcessResult command =
      RunProcess({.argv = {environment_->Program("vexa"), "guest", "console", "console", "--socket", host_->Socket()},
                  .environment = {{"LD_LIBRARY_PATH", environment_->LibraryFolder()}}});
  EXPECT_EQ(command.exit_code, 1);
  EXPECT_THAT(command.errors, HasSubstr("The console cannot be opened"));
  EXPECT_THAT(command.errors, HasSubstr("Somebody else uses it"));
  line.Close();
  EXPECT_TRUE(Await([&] {
    (void)Open("serial");
    return status_ == 101;
  }));
}

TEST_F(QemuConsole, ConsoleCommand_IsTerminalOfGuestUntilTildeDot) {
  ProcessOptions options;
  options.argv = {environment_->Program("vexa"), "guest", "console", "console", "--socket", host_->Socket()};
  options.environment = {{"LD_LIBRARY_PATH", environment_->LibraryFolder()}};
  std::optional<OnTerminal> terminal;
  ASSERT_TRUE(Await([&] {
    terminal.emplace(options);
    return terminal->WaitFor("Leave with ~.");
  }));
  terminal->Type("hello");
  EXPECT_TRUE(terminal->WaitFor("HELLO"));
  terminal->Type("\r~.");
  EXPECT_TRUE(terminal->WaitFor("The connection is closed."));
}

TEST_F(QemuConsole, ViewerCommand_GivesViewerAPortWithScreen) {
  const std::string seen = environment_->folder() + "/seen";
  const std::string viewer = environment_->folder() + "/viewer";
  std::ofstream(viewer) << "#!/bin/bash\nport=${1##*:}\nexec 3<>/dev/tcp/127.0.0.1/$port\nhead -c 12 <&3 >" << seen
                        << "\n";
  std::filesystem::permissions(viewer, std::filesystem::perms::owner_all);
  host_->Vexa({"guest", "viewer", "console", "--program", viewer, "--socket", host_->Socket()});
  EXPECT_EQ(Content(seen), "RFB 003.008\n");
}

// Connections that have ended stay in the system's table for a minute, and belong to root there.
TEST_F(QemuConsole, Viewer_OnRecentlyUsedLocalPort_IsAccepted) {
  const std::string seen = environment_->folder() + "/seen";
  const std::string viewer = environment_->folder() + "/viewer";
  std::ofstream(viewer) << R"(#!/usr/bin/python3
import socket, sys
own = 0
def connection(port):
    made = socket.socket()
    made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    made.bind(("127.0.0.1", own))
    made.connect(("127.0.0.1", port))
    return made
for i in range(30):
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen()
    client = connection(listener.getsockname()[1])
    own = client.getsockname()[1]
    server = listener.accept()[0]
    client.close()
    server.recv(1)
    server.close()
viewer = connection(int(sys.argv[1].rsplit(":", 1)[1]))
open(")" << seen << R"(", "wb").write(viewer.recv(12))
)";
  std::filesystem::permissions(viewer, std::filesystem::perms::owner_all);
  host_->Vexa({"guest", "viewer", "console", "--program", viewer, "--socket", host_->Socket()});
  EXPECT_EQ(Content(seen), "RFB 003.008\n");
}

// A VNC client of Debian's, started as the viewer, sees what `vexa guest screenshot` shows.
TEST_F(QemuConsole, ForeignVncClient_ReceivesSamePixelsAsScreenshot) {
  for (const char* program : {"vncsnapshot", "djpeg"}) {
    if (!FileExists(std::string("/usr/bin/") + program)) {
      GTEST_SKIP() << SkipNotice(std::string("there is no ") + program + ": install vncsnapshot, libjpeg-turbo-progs");
    }
  }
  const std::size_t columns = kShownText.size();
  host_->Vexa({"guest", "type", "console", std::string(kShownText), "--socket", host_->Socket()});
  Picture screenshot;
  ASSERT_TRUE(Await([&] {
    screenshot = Screen();
    return TextLine(screenshot, 0, columns) == TextLine(screenshot, 1, columns);
  }));
  const std::string folder = environment_->folder();
  const std::string viewer = folder + "/viewer";
  std::ofstream(viewer) << "#!/bin/bash\n"
                        << "vncsnapshot -allowblank 127.0.0.1:$((${1##*:} - 5900)) " << folder << "/seen.jpeg >"
                        << folder << "/seen.log 2>&1 && djpeg -grayscale " << folder << "/seen.jpeg >" << folder
                        << "/seen.pgm\n";
  std::filesystem::permissions(viewer, std::filesystem::perms::owner_all);
  host_->Vexa({"guest", "viewer", "console", "--program", viewer, "--socket", host_->Socket()});
  const Picture seen = DecodePgm(Content(folder + "/seen.pgm"));
  ASSERT_EQ(seen.width, screenshot.width) << Content(folder + "/seen.log");
  ASSERT_EQ(seen.height, screenshot.height);
  // JPEG changes shades a little. The cursor behind the second line blinks.
  for (const std::size_t line : {0, 1, 2, 24}) {
    EXPECT_EQ(Dark(TextLine(seen, line, columns)), Dark(TextLine(screenshot, line, columns))) << line;
  }
  EXPECT_FALSE(IsBlank(TextLine(screenshot, 0, columns)));
}

TEST_F(QemuConsole, PowerOff_EndsConsoles) {
  WebSocketClient screen = Open("vnc");
  ASSERT_EQ(status_, 101);
  WebSocketClient line = OpenFreeLine();
  ASSERT_EQ(status_, 101);
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_EQ(screen.ReceiveClose(), 1000);
  EXPECT_EQ(line.ReceiveClose(), 1000);
  EXPECT_EQ(host_->Code("VEXA.Virtualization.Guest/screenshot", kGuest), 911);
  (void)Open("vnc");
  EXPECT_EQ(status_, 409);
}

TEST_F(QemuConsole, Stop_EndsConsolesAndGuestGoesOn) {
  WebSocketClient screen = Open("vnc");
  ASSERT_EQ(status_, 101);
  WebSocketClient line = OpenFreeLine();
  ASSERT_EQ(status_, 101);
  EXPECT_TRUE(host_->Stop(kGuestTimeout).has_value()) << host_->Log();
  EXPECT_EQ(screen.ReceiveClose(), 1001);
  EXPECT_EQ(line.ReceiveClose(), 1001);
  EXPECT_EQ(host_->Qemus(kGuest), 1);
}

TEST_F(QemuConsole, Stop_WhileLongTextIsTyped_ReportsTypedCharacters) {
  ProcessOptions options;
  options.argv = {environment_->Program("vexa"), "guest",    "type",         "console",
                  std::string(1024, 'w'),        "--socket", host_->Socket()};
  options.environment = {{"LD_LIBRARY_PATH", environment_->LibraryFolder()}};
  Process typing(options);
  EXPECT_TRUE(Await([&] { return !IsBlank(TextLine(Screen(), 1, 1)); }));
  EXPECT_TRUE(host_->Stop(kGuestTimeout).has_value()) << host_->Log();
  const auto status = typing.Wait(kGuestTimeout);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->code, 1);
  EXPECT_THAT(typing.errors(), HasSubstr("This host is stopping. Typed the first "));
  EXPECT_THAT(typing.errors(), HasSubstr(" of 1024 characters."));
}

// A second host of the cluster, which runs no guests, and through which the consoles are opened.
class QemuRemoteConsole : public QemuConsole {
 protected:
  void MakeHost() override {
    authority_ = std::make_unique<TestAuthority>(environment_->folder() + "/authority");
    QemuHostOptions options;
    options.store = environment_->folder() + "/store";
    options.suffix = "-b";
    options.hypervisor = "test";
    other_ = std::make_unique<QemuHost>(*environment_, options);
    other_->options().command = CommandOf(*other_);
    options.suffix = "";
    options.hypervisor = "embed";
    host_ = std::make_unique<QemuHost>(*environment_, options);
    host_->options().command = CommandOf(*host_);
  }
  void SetUp() override {
    QemuConsole::SetUp();
    if (!IsSkipped()) other_->Start();
  }
  void TearDown() override {
    other_.reset();
    QemuConsole::TearDown();
  }

  std::vector<std::string> CommandOf(const QemuHost& host) const {
    const transport::TlsFiles files = authority_->FilesOf(host.id());
    return {environment_->Program("vexad"),
            "--cluster-listen",
            "127.0.0.1:0",
            "--cluster-certificate",
            files.certificate,
            "--cluster-key",
            files.key,
            "--cluster-authority",
            files.authority};
  }
  WebSocketClient OpenRemotely(const std::string& type) {
    WebSocketClient client = WebSocketClient::Unix(other_->Socket());
    status_ = client.Upgrade(std::string("/console/") + kGuest + "?type=" + type);
    return client;
  }

  std::unique_ptr<TestAuthority> authority_;
  std::unique_ptr<QemuHost> other_;
};

TEST_F(QemuRemoteConsole, Consoles_AreOpenedThroughOtherHost) {
  WebSocketClient line = OpenFreeLine([this] { return OpenRemotely("serial"); });
  ASSERT_EQ(status_, 101) << line.body() << other_->Log();
  ASSERT_TRUE(line.Send("hello\x01"));
  EXPECT_THAT(line.ReceiveUntil("HELLO!"), HasSubstr("HELLO!"));
  WebSocketClient screen = OpenRemotely("vnc");
  ASSERT_EQ(status_, 101) << screen.body();
  EXPECT_EQ(screen.Receive(12), "RFB 003.008\n");
  const WebSocketClient second = OpenRemotely("serial");
  EXPECT_EQ(status_, 409) << "the refusal of the guest's host";
  EXPECT_THAT(second.body(), HasSubstr("Somebody else uses it"));
  // Pictures and typing go there as well.
  const std::string file = environment_->folder() + "/remote.png";
  other_->Vexa({"guest", "type", "console", "x", "--socket", other_->Socket()});
  other_->Vexa({"guest", "screenshot", "console", file, "--socket", other_->Socket()});
  EXPECT_EQ(DecodePng(Content(file)).width, 720U);
  EXPECT_THAT(host_->Log(), HasSubstr("was opened for the host " + other_->id()));
  // The end of a viewer frees the line, and the end of the guest ends its consoles.
  line.Close();
  WebSocketClient again = OpenRemotely("serial");
  EXPECT_TRUE(Await([&] {
    if (status_ == 101) return true;
    again.Close();
    return (void)OpenRemotely("serial"), status_ == 101;
  }));
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_EQ(screen.ReceiveClose(), 1000);
}

TEST_F(QemuRemoteConsole, ThroughSlowViewer_GuestsHostServesOthers) {
  WebSocketClient screen = OpenRemotely("vnc");
  ASSERT_EQ(status_, 101) << screen.body();
  ASSERT_TRUE(screen.Send("RFB 003.008\n\x01\x01"));
  // Many full updates that are never read.
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(screen.Send(std::string("\x03\0\0\0\0\0\x02\xd0\x01\x90", 10)));
  }
  EXPECT_EQ(host_->Code("VEXA.Virtualization.Guest/status", kGuest), 0);
  EXPECT_EQ(other_->Code("VEXA.Virtualization.Guest/status", kGuest), 0);
  WebSocketClient other = Open("vnc");
  EXPECT_EQ(other.Receive(12), "RFB 003.008\n");
}

TEST_F(QemuRemoteConsole, GuestsHostKilled_EndsConsole) {
  WebSocketClient screen = OpenRemotely("vnc");
  ASSERT_EQ(status_, 101) << screen.body();
  EXPECT_EQ(screen.Receive(12), "RFB 003.008\n");
  host_->Kill();
  EXPECT_EQ(screen.ReceiveClose(), 1000);
  (void)OpenRemotely("vnc");
  EXPECT_EQ(status_, 502) << "it cannot be reached";
}

}  // namespace
}  // namespace vexa::test
