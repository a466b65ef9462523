// The daemon as a program: flags, start, log lines, signals, restarts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <thread>

#include "host/accounts/account_password.h"
#include "host/base/files.h"
#include "host/daemon/host_id.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/support/vexad_client.h"
#include "tests/support/waiting.h"

namespace {

using vexa::test::HttpClient;
using vexa::test::HttpReply;
using vexa::test::Process;
using vexa::test::RunProcess;

constexpr std::chrono::seconds kTimeout{60};
const std::string kGetPath = "/webapi/VEXA.Virtualization.Guest/get";

class Vexad : public testing::Test {
 protected:
  void SetUp() override {
    const auto hash = vexa::accounts::HashPassword("correct horse");
    ASSERT_TRUE(hash.ok());
    const std::string accounts = R"({"version":1,"groups":[{"name":"administrators","gid":1900000000}],"users":[
        {"name":"admin","uid":1900000001,"gid":1900000000,"password":")" +
                                 *hash + R"(","groups":[]}]})";
    ASSERT_TRUE(vexa::WriteFileAtomically(folder_.File("accounts.json"), accounts, 0600).ok());
  }

  std::vector<std::string> Arguments(const std::vector<std::string>& extra_members = {}) const {
    std::vector<std::string> arguments{
        VEXAD_PROGRAM, "--data",          folder_.File("data"), "--account-file", folder_.File("accounts.json"),
        "--socket",    folder_.File("s"), "--listen",           "127.0.0.1:0",    "--log",
        "stderr"};
    arguments.insert(arguments.end(), extra_members.begin(), extra_members.end());
    return arguments;
  }

  std::unique_ptr<Process> Start(const std::vector<std::string>& extra_members = {},
                                 const std::map<std::string, std::optional<std::string>>& environment = {}) const {
    auto process = std::make_unique<Process>(
        vexa::test::ProcessOptions{.argv = Arguments(extra_members), .environment = environment});
    EXPECT_TRUE(process->WaitForText("Ready.", kTimeout)) << process->errors();
    return process;
  }

  static HttpClient Tcp(const Process& process) { return HttpClient(vexa::test::NetworkOf(process)); }
  HttpClient Unix() const { return HttpClient(vexa::test::UnixSocket(folder_.File("s"))); }

  static void ExpectCode(const std::optional<vexa::test::ExitStatus>& status, int code) {
    ASSERT_TRUE(status.has_value()) << "it still runs";
    EXPECT_EQ(status->code, code);
  }

  vexa::test::TempDir folder_;
};

TEST_F(Vexad, LogLines_OfRequest_HaveIdOfItsReply) {
  const auto process = Start();
  HttpClient client = Unix();
  const HttpReply reply = client.PostJson(kGetPath, "{\"guest_id\":\"a\\nb\"}");
  EXPECT_EQ(reply.status, 400);
  const std::string line =
      "Bad parameters, request: {\"guest_id\":\"a\\nb\"} [request " + reply.headers.at("x-request-id") + "]\n";
  EXPECT_TRUE(process->WaitForText(line, kTimeout)) << process->errors();
  EXPECT_TRUE(std::regex_search(process->errors(), std::regex("vexad: guest:[0-9]+ Bad parameters")))
      << process->errors();
}

// Longer writes to a pipe can be mixed with those of others.
TEST_F(Vexad, LogLines_LongText_AreCutWithAMark) {
  const auto process = Start();
  HttpClient client = Unix();
  const HttpReply reply = client.PostJson(kGetPath, "{\"guest_id\":\"" + std::string(12'000, 'x') + "\"}");
  const std::string end = "xxx… [request " + reply.headers.at("x-request-id") + "]\n";
  EXPECT_TRUE(process->WaitForText(end, kTimeout)) << process->errors();
  const std::string log = process->errors();
  const std::size_t last = log.find(end) + end.size();
  const std::size_t first = log.rfind('\n', last - 2) + 1;
  EXPECT_EQ(log.substr(first, 13), "vexad: guest:");
  EXPECT_LE(last - first, std::size_t{4096});
  EXPECT_GT(last - first, std::size_t{4090});
}

TEST_F(Vexad, LogReader_Stopped_RequestsAndStopDoNotHang) {
  const std::string pipe = folder_.File("log");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  // Open at both ends, and never read.
  const int reader = ::open(pipe.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(::fcntl(reader, F_SETPIPE_SZ, 4096), 4096);
  std::vector<std::string> arguments{"/bin/sh", "-c", "exec \"$@\" 2>'" + pipe + "'", "sh"};
  for (const std::string& argument : Arguments()) arguments.push_back(argument);
  Process process(vexa::test::ProcessOptions{.argv = arguments});
  ASSERT_TRUE(vexa::test::Eventually([&] { return std::ifstream(folder_.File("data/store/data.mdb")).good(); }));
  const auto answers = [&] {
    try {
      return Unix().Get("/healthz").status == 200;
    } catch (const std::exception&) {
      return false;
    }
  };
  ASSERT_TRUE(vexa::test::Eventually(answers));
  for (int i = 0; i < 50; ++i) {
    HttpClient client = Unix();
    const HttpReply reply = client.PostJson(kGetPath, "{\"guest_id\":\"" + std::string(1000, 'x') + "\"}");
    EXPECT_EQ(reply.status, 400) << "each leaves a line";
  }
  int unread = 0;
  EXPECT_EQ(::ioctl(reader, FIONREAD, &unread), 0);
  EXPECT_GT(unread, 2000) << "the pipe is full";
  HttpClient client = Unix();
  const HttpReply login =
      client.PostJson("/webapi/VEXA.Core.Session/login", R"({"user":"admin","password":"correct horse"})");
  EXPECT_EQ(login.status, 200) << login.body;
  process.Signal(SIGTERM);
  ExpectCode(process.Wait(kTimeout), 0);
  ::close(reader);
}

TEST_F(Vexad, Vexad_Terminated_ExitsWithZeroAndRemovesSocket) {
  const auto process = Start();
  EXPECT_EQ(Unix().Get("/healthz").status, 200);
  process->Signal(SIGTERM);
  ExpectCode(process->Wait(kTimeout), 0);
  EXPECT_FALSE(std::ifstream(folder_.File("s")).good());
  struct stat info {};
  EXPECT_NE(::stat(folder_.File("s").c_str(), &info), 0);
}

TEST_F(Vexad, Vexad_SecondSignal_EndsImmediately) {
  const auto process = Start();
  // A request that has begun and does not end: its body does not come.
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  folder_.File("s").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const std::string header = "POST " + kGetPath +
                             " HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nContent-Length: 9\r\n"
                             "Expect: 100-continue\r\n\r\n";
  ASSERT_EQ(::send(fd, header.data(), header.size(), MSG_NOSIGNAL), static_cast<ssize_t>(header.size()));
  char buffer[64];
  ASSERT_GT(::recv(fd, buffer, sizeof buffer, 0), 0) << "100 Continue: the request has begun";
  process->Signal(SIGTERM);
  EXPECT_TRUE(process->WaitForText("Stopping.", kTimeout));
  EXPECT_FALSE(process->Wait(std::chrono::milliseconds(500)).has_value()) << "it waits for the request";
  process->Signal(SIGTERM);
  ExpectCode(process->Wait(std::chrono::seconds(10)), 128 + SIGTERM);
  ::close(fd);
}

// A commit that hangs must neither hold up other requests nor the stop.
TEST_F(Vexad, CommitHangs_HealthReportsItAndTheStopEndsInTime) {
  const auto process = Start({"--stop-timeout", "3"});
  Process holder({.argv = {STORE_TEST_WORKER_PROGRAM, "stop_in_commit", folder_.File("data/store")}});
  ASSERT_TRUE(holder.WaitForText("holds", kTimeout)) << holder.errors();
  HttpReply health;
  for (const auto end = std::chrono::steady_clock::now() + kTimeout; std::chrono::steady_clock::now() < end;) {
    health = Unix().Get("/healthz");
    if (health.status != 200) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(health.status, 503) << health.transport_error;
  EXPECT_EQ(Unix().Get("/openapi.json").status, 200);
  process->Signal(SIGTERM);
  ExpectCode(process->Wait(kTimeout), 0);
  EXPECT_THAT(process->errors(),
              testing::HasSubstr("The claim of this host's id could not be released: The database is held"));
  EXPECT_TRUE(holder.IsRunning());
  holder.Signal(SIGKILL);
}

TEST_F(Vexad, Restart_KeepsSessionsAndTheHostId) {
  std::string token;
  {
    const auto process = Start();
    HttpClient client = Tcp(*process);
    const HttpReply reply =
        client.PostJson("/webapi/VEXA.Core.Session/login", R"({"user":"admin","password":"correct horse"})");
    std::smatch match;
    ASSERT_TRUE(std::regex_search(reply.body, match, std::regex(R"re("token":"([^"]+)")re"))) << reply.body;
    token = match[1];
    // No chance to write anything.
    process->Signal(SIGKILL);
    ASSERT_TRUE(process->Wait(kTimeout).has_value());
  }
  const auto host_id = vexa::daemon::LoadHostId(folder_.File("data"));
  ASSERT_TRUE(host_id.ok());
  const auto process = Start();  // over the stale Unix socket as well
  HttpClient client = Tcp(*process);
  client.SetHeader("Authorization", "Bearer " + token);
  EXPECT_EQ(client.PostJson("/webapi/VEXA.Core.Session/info", "").status, 200);
  EXPECT_EQ(*vexa::daemon::LoadHostId(folder_.File("data")), *host_id);
}

TEST_F(Vexad, DataFiles_Created_AreReadableByOwnerOnly) {
  const auto process = Start();
  HttpClient client = Tcp(*process);
  (void)client.PostJson("/webapi/VEXA.Core.Session/login", R"({"user":"admin","password":"correct horse"})");
  for (const char* name : {"data/host-id", "data/sessions.json", "data/store", "data/store/data.mdb", "data",
                           "accounts.json.taken-over"}) {
    struct stat info {};
    ASSERT_EQ(::stat(folder_.File(name).c_str(), &info), 0) << name;
    EXPECT_EQ(info.st_mode & 077, 0u) << name;
  }
}

TEST_F(Vexad, Vexad_SocketInUse_ReportsAndExitsWithOne) {
  const auto process = Start();
  const auto second = RunProcess({.argv = Arguments({"--data", folder_.File("other")})});
  EXPECT_EQ(second.exit_code, 2) << "a flag given twice";
  std::vector<std::string> arguments = Arguments();
  arguments[2] = folder_.File("other");
  const auto other = RunProcess({.argv = arguments});
  EXPECT_EQ(other.exit_code, 1);
  EXPECT_NE(other.errors.find(folder_.File("s")), std::string::npos) << other.errors;
}

TEST_F(Vexad, Vexad_DamagedSessionsFile_IsRefusedByName) {
  Start()->Signal(SIGTERM);
  std::ofstream(folder_.File("data/sessions.json"), std::ios::trunc) << "{";
  const auto result = RunProcess({.argv = Arguments()});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_NE(result.errors.find("sessions.json"), std::string::npos) << result.errors;
}

TEST_F(Vexad, Vexad_NotifiesReadyAndStopping) {
  const std::string path = folder_.File("notify");
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const timeval timeout{.tv_sec = 60, .tv_usec = 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  const auto process = Start({}, {{"NOTIFY_SOCKET", path}});
  char buffer[32] = {};
  ASSERT_GT(::recv(fd, buffer, sizeof buffer - 1, 0), 0);
  EXPECT_STREQ(buffer, "READY=1");
  process->Signal(SIGINT);
  char stopping[32] = {};
  ASSERT_GT(::recv(fd, stopping, sizeof stopping - 1, 0), 0);
  EXPECT_STREQ(stopping, "STOPPING=1");
  ExpectCode(process->Wait(kTimeout), 0);
  ::close(fd);
}

TEST_F(Vexad, Vexad_Watched_ReportsThatItServes) {
  const std::string path = folder_.File("notify");
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const timeval timeout{.tv_sec = 60, .tv_usec = 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  const auto process = Start({}, {{"NOTIFY_SOCKET", path}, {"WATCHDOG_USEC", "2000000"}});
  for (const char* const expected : {"READY=1", "WATCHDOG=1", "WATCHDOG=1"}) {
    char report[32] = {};
    ASSERT_GT(::recv(fd, report, sizeof report - 1, 0), 0);
    EXPECT_STREQ(report, expected);
  }
  process->Signal(SIGTERM);
  ExpectCode(process->Wait(kTimeout), 0);
  ::close(fd);
}

TEST_F(Vexad, Vexad_CheckConfig_ReportsWithoutStarting) {
  const auto good = RunProcess({.argv = Arguments({"--check-config"})});
  EXPECT_EQ(good.exit_code, 0);
  EXPECT_EQ(good.output, "The configuration is valid.\n");
  struct stat info {};
  EXPECT_NE(::stat(folder_.File("data").c_str(), &info), 0) << "nothing may be made";
  const auto bad = RunProcess({.argv = {VEXAD_PROGRAM, "--listen", "0.0.0.0:1", "--check-config"}});
  EXPECT_EQ(bad.exit_code, 2);
  EXPECT_NE(bad.errors.find("can be reached by other machines"), std::string::npos) << bad.errors;
}

TEST_F(Vexad, Vexad_ConfigWithControlCharacters_IsRefusedInVisibleText) {
  for (const char* const line : {"\x1b[2J = 1\n", "image-roots = \"\x1b[2J\"\n", "\xff\xfe\xff = 1\n"}) {
    std::ofstream(folder_.File("conf"), std::ios::trunc) << line;
    const auto result = RunProcess({.argv = {VEXAD_PROGRAM, "--config", folder_.File("conf"), "--check-config"}});
    EXPECT_EQ(result.exit_code, 2) << line;
    EXPECT_FALSE(result.errors.empty());
    EXPECT_EQ(result.errors.find_first_of("\x1b\xff\xfe"), std::string::npos) << result.errors;
  }
}

TEST_F(Vexad, HelpAndVersion_ArePrinted) {
  const auto help = RunProcess({.argv = {VEXAD_PROGRAM, "--help"}});
  EXPECT_EQ(help.exit_code, 0);
  for (const char* text : {"--listen", "--check-config", "a second signal"}) {
    EXPECT_NE(help.output.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(RunProcess({.argv = {VEXAD_PROGRAM, "--version"}}).exit_code, 0);
}

TEST_F(Vexad, CommandLine_ReadsAGuestOverTheUnixSocket) {
  const std::string manifest = std::string(VEXA_SOURCE_DIR) + "/examples/cluster.json";
  const auto process = Start();
  const auto import =
      RunProcess({.argv = {VEXA_PROGRAM, "--socket", folder_.File("s"), "import", "--manifest", manifest}});
  ASSERT_EQ(import.exit_code, 0) << import.errors;
  const auto get = RunProcess({.argv = {VEXA_PROGRAM, "--socket", folder_.File("s"), "--json", "guest", "get",
                                        "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211"}});
  EXPECT_EQ(get.exit_code, 0) << get.errors;
  EXPECT_NE(get.output.find("\"web-1\""), std::string::npos) << get.output;
  const auto again = RunProcess(
      {.argv = {VEXA_PROGRAM, "--socket", folder_.File("s"), "import", "--replace", "--manifest", manifest}});
  EXPECT_EQ(again.exit_code, 0) << again.errors;
  EXPECT_EQ(RunProcess({.argv = {VEXA_PROGRAM, "--socket", folder_.File("s"), "health"}}).exit_code, 0);
}

}  // namespace
