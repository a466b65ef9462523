// The daemon's parts that need no socket: configuration, log lines, cookies, metrics, the service manager, the host's
// id.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "host/api/identity.h"
#include "host/api/metrics.h"
#include "host/base/files.h"
#include "host/daemon/config.h"
#include "host/daemon/host_id.h"
#include "host/daemon/notify.h"
#include "tests/support/temp_dir.h"
#include "webapi/platform/ccc.h"

namespace {

using namespace vexa::daemon;

vexa::daemon::CommandLine Parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "vexad");
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  vexa::daemon::CommandLine result =
      vexa::daemon::ParseCommandLine(static_cast<int>(arguments.size()), arguments.data());
  (void)testing::internal::GetCapturedStdout();
  (void)testing::internal::GetCapturedStderr();
  return result;
}

std::string LinesOf(const ConfigProblems& problems) {
  std::string lines;
  for (const ConfigProblem& problem : problems) lines += ToLine(problem) + "\n";
  return lines;
}

// What a refused command line prints.
std::string ErrorsOf(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "vexad");
  testing::internal::CaptureStderr();
  const CommandLine command = ParseCommandLine(static_cast<int>(arguments.size()), arguments.data());
  std::string errors = testing::internal::GetCapturedStderr();
  EXPECT_EQ(command.exit_status, 2) << errors;
  return errors;
}

TEST(Config, File_WithManyMistakes_ReportsEachOnOneLine) {
  const vexa::test::TempDir folder;
  const std::string path = folder.File("vexad.conf");
  std::ofstream(path)
      << "lisen = \"127.0.0.1:1\"\nio-threads = 65\nstop-timeout = \"soon\"\naccounts = \"ldap\"\n"
         "data = \"relative\"\nnew-store = true\nqwertyuiop = 1\nhypervisor = \"\"\n[network]\nsocket = \"\"\n";
  EXPECT_EQ(
      ErrorsOf({"--config", path.c_str()}),
      "vexad: lisen = \"127.0.0.1:1\": There is no setting 'lisen'. Did you mean 'listen'?\n"
      "vexad: io-threads = \"65\": Value 65 not in range 1 to 64. 'vexad --help' explains 'io-threads'.\n"
      "vexad: stop-timeout = \"soon\": Value soon not in range 1 to 31536000. 'vexad --help' explains 'stop-timeout'.\n"
      "vexad: accounts = \"ldap\": ldap not in {store,pam,file}. 'vexad --help' explains 'accounts'.\n"
      "vexad: data = \"relative\": 'relative' is not an absolute path. Begin it with '/'.\n"
      "vexad: new-store = \"true\": 'new-store' is a flag for one start. Remove it here, and use 'vexad --new-store' "
      "once.\n"
      "vexad: qwertyuiop = \"1\": There is no setting 'qwertyuiop'. 'vexad --help' lists the settings.\n"
      "vexad: [network] = \"\": The file has no sections. Remove this line and the settings below it that do not "
      "exist.\n"
      "vexad: hypervisor = \"\": 'hypervisor' is empty. Set \"test\", \"embed\", \"none\" or a libvirt URI.\n");
}

TEST(Config, Flags_WithMistakes_ReportEachOnOneLine) {
  EXPECT_EQ(ErrorsOf({"--lisen", "127.0.0.1:1", "--io-threads=0", "--config", "/no/such/file", "--tls-key", "k"}),
            "vexad: --lisen = \"127.0.0.1:1\": There is no setting 'lisen'. Did you mean 'listen'?\n"
            "vexad: --io-threads = \"0\": Value 0 not in range 1 to 64. 'vexad --help' explains 'io-threads'.\n"
            "vexad: --config = \"/no/such/file\": The file cannot be read: No such file or directory. Name a file that "
            "exists, and that this account may read.\n"
            "vexad: tls-certificate = \"\": 'tls-certificate' and 'tls-key' go together. Set both or none.\n");
}

// A mistyped setting is missing under its right name: what follows from that would only distract.
TEST(Config, Name_Mistyped_HidesWhatFollowsFromIt) {
  EXPECT_EQ(
      ErrorsOf({"--tls-certficate", "c", "--tls-key", "k", "--listen", "8642"}),
      "vexad: --tls-certficate = \"c\": There is no setting 'tls-certficate'. Did you mean 'tls-certificate'?\n"
      "vexad: listen = \"8642\": '8642' is not an address to listen on. Use a numeric address and a port, such as "
      "127.0.0.1:8642 or [::1]:8642.\n");
}

TEST(Config, Contradictions_AreReportedTogether) {
  Config config;
  config.listen = {"0.0.0.0:1", "127.0.0.1:2", "127.0.0.1:2", "x"};
  config.cluster_key = "k";
  config.authority_key = "a";
  config.data_directory = "";
  EXPECT_EQ(
      LinesOf(CheckConfig(config)),
      "data = \"\": 'data' is empty. Set it to a folder.\n"
      "cluster-certificate = \"\": 'cluster-certificate' and 'cluster-key' go together. Set both or none.\n"
      "authority-key = \"a\": 'authority-key' needs 'cluster-listen'. Set 'cluster-listen' to the address and port "
      "where other hosts call this one, or remove this setting.\n"
      "listen = \"0.0.0.0:1\": '0.0.0.0' can be reached by other machines. Set 'tls-certificate' and 'tls-key', so "
      "that passwords are not sent in the clear.\n"
      "listen = \"127.0.0.1:2\": '127.0.0.1:2' is named twice, in 'listen' or 'cluster-listen'. Give each its own "
      "port.\n"
      "listen = \"x\": 'x' is not an address to listen on. Use a numeric address and a port, such as "
      "127.0.0.1:8642 or [::1]:8642.\n");
}

TEST(Config, NoFlags_ListensOnLoopbackOnly) {
  const vexa::daemon::CommandLine command = Parse({});
  ASSERT_EQ(command.action, vexa::daemon::CommandLine::Action::kRun);
  EXPECT_TRUE(vexa::daemon::CheckConfig(command.config).empty());
  const auto listeners = vexa::daemon::ListenersOf(command.config);
  ASSERT_TRUE(listeners.ok());
  ASSERT_EQ(listeners->size(), 2u);
  EXPECT_EQ((*listeners)[0].path, "/run/vexad/vexad.sock");
  EXPECT_EQ((*listeners)[1].address, "127.0.0.1");
  EXPECT_EQ((*listeners)[1].port, 8642);
  EXPECT_EQ(command.config.accounts, "store");
  EXPECT_EQ(command.config.account_file, "/var/lib/vexa/accounts.json");
}

TEST(Config, Flags_AreRead) {
  const vexa::daemon::CommandLine command = Parse(
      {"--data", "/d", "--listen", "127.0.0.1:1", "[::1]:2", "--socket", "/s", "--accounts", "pam", "--session-idle",
       "60", "--session-lifetime", "3600", "--stop-timeout", "5", "--log", "stderr", "--io-threads", "3"});
  ASSERT_EQ(command.action, vexa::daemon::CommandLine::Action::kRun);
  EXPECT_EQ(command.config.data_directory, "/d");
  EXPECT_EQ(command.config.listen, (std::vector<std::string>{"127.0.0.1:1", "[::1]:2"}));
  EXPECT_EQ(command.config.socket, "/s");
  EXPECT_EQ(command.config.accounts, "pam");
  EXPECT_EQ(command.config.sessions.idle.count(), 60);
  EXPECT_EQ(command.config.sessions.absolute.count(), 3600);
  EXPECT_EQ(command.config.stop_timeout.count(), 5);
  EXPECT_EQ(command.config.log, vexa::daemon::LogTarget::kStderr);
  EXPECT_EQ(command.config.io_threads, 3);
  EXPECT_TRUE(vexa::daemon::CheckConfig(command.config).empty());
}

TEST(Config, File_Read_IsOverriddenByFlags) {
  const vexa::test::TempDir folder;
  const std::string path = folder.File("vexad.conf");
  std::ofstream(path) << "data = \"/from/file\"\nlisten = \"127.0.0.1:7\"\nstop-timeout = 9\nlog = \"both\"\n";
  const vexa::daemon::CommandLine command = Parse({"--config", path.c_str(), "--data", "/from/flag", "--check-config"});
  ASSERT_EQ(command.action, vexa::daemon::CommandLine::Action::kCheckConfig);
  EXPECT_EQ(command.config.data_directory, "/from/flag");
  EXPECT_EQ(command.config.listen, std::vector<std::string>{"127.0.0.1:7"});
  EXPECT_EQ(command.config.stop_timeout.count(), 9);
  EXPECT_EQ(command.config.log, vexa::daemon::LogTarget::kBoth);
}

// Commands that read the same file are started elsewhere.
TEST(Config, File_Folders_MustBeAbsolutePaths) {
  const vexa::test::TempDir folder;
  const std::string path = folder.File("vexad.conf");
  for (const char* line : {"data = \"data\"", "store = \"../store\"", "account-file = \"accounts.json\""}) {
    std::ofstream(path) << line << '\n';
    EXPECT_EQ(Parse({"--config", path.c_str()}).exit_status, 2) << line;
  }
  EXPECT_EQ(Parse({"--data", "data"}).action, vexa::daemon::CommandLine::Action::kRun)
      << "a flag is typed where it counts";
}

TEST(Config, Usage_Invalid_ExitsWithTwo) {
  const vexa::test::TempDir folder;
  const std::string path = folder.File("vexad.conf");
  std::ofstream(path) << "no-such-setting = 5\n";
  const std::vector<std::vector<const char*>> rows = {
      {"--no-such-flag"},        {"--config", path.c_str()}, {"--config", "/no/such/file"},
      {"--io-threads", "0"},     {"--io-threads", "x"},      {"--accounts", "ldap"},
      {"--log", "file"},         {"--stop-timeout", "0"},    {"--session-idle", "-1"},
      {"--max-connections", "0"}};
  for (const auto& row : rows) {
    const vexa::daemon::CommandLine command = Parse(row);
    EXPECT_EQ(command.action, vexa::daemon::CommandLine::Action::kExit) << row[0];
    EXPECT_EQ(command.exit_status, 2) << row[0];
  }
  EXPECT_EQ(Parse({"--help"}).exit_status, 0);
  EXPECT_EQ(Parse({"--version"}).exit_status, 0);
}

TEST(Config, AllowedOrigins_AreExactOrigins) {
  for (const char* origin : {"https://nas.example", "http://127.0.0.1:3000", "http://[::1]:8080", "https://a-b.c"}) {
    EXPECT_TRUE(vexa::daemon::CheckConfig(Parse({"--allowed-origins", origin}).config).empty()) << origin;
  }
  for (const char* origin : {"*", "null", "nas.example", "https://", "https://nas.example/", "https://*.example",
                             "https://NAS.example", "ftp://nas", "https://nas:0", "https://nas:99999",
                             "https://nas:", "https://nas.example https://b", "https://[::1"}) {
    const std::string lines = LinesOf(vexa::daemon::CheckConfig(Parse({"--allowed-origins", origin}).config));
    EXPECT_NE(lines.find("is not an origin. Use the form https://nas.example"), std::string::npos) << origin << lines;
  }
  EXPECT_TRUE(Parse({}).config.allowed_origins.empty());
}

struct BadConfig {
  std::vector<std::string> listen;
  std::string certificate, key, authority;
  std::string message;
};

TEST(Config, Settings_Invalid_AreRefusedWithReason) {
  const BadConfig rows[] = {
      {{"8642"}, "", "", "", "'8642' is not an address to listen on"},
      {{"localhost:80"}, "", "", "", "'localhost:80' is not an address"},
      {{"127.0.0.1:"}, "", "", "", "is not an address"},
      {{"127.0.0.1:65536"}, "", "", "", "is not an address"},
      {{"127.0.0.1:-1"}, "", "", "", "is not an address"},
      {{"127.0.0.1:80x"}, "", "", "", "is not an address"},
      {{"::1:80"}, "", "", "", "is not an address"},
      {{"0.0.0.0:80"}, "", "", "", "'0.0.0.0' can be reached by other machines"},
      {{"[::]:80"}, "", "", "", "'::' can be reached by other machines"},
      {{"127.0.0.1:80"}, "c", "", "", "go together"},
      {{"127.0.0.1:80"}, "", "k", "", "go together"},
      {{"127.0.0.1:80"}, "", "", "a", "'client-authority' needs"},
  };
  for (const BadConfig& row : rows) {
    vexa::daemon::Config config;
    config.listen = row.listen;
    config.tls_certificate = row.certificate;
    config.tls_key = row.key;
    config.client_authority = row.authority;
    const std::string lines = LinesOf(vexa::daemon::CheckConfig(config));
    EXPECT_NE(lines.find(row.message), std::string::npos) << row.message << " is not in: " << lines;
  }
}

TEST(Config, CallsPerHost_AreLessThanThreads) {
  EXPECT_EQ(Parse({}).config.calls_per_host, 512);
  EXPECT_EQ(Parse({"--long-threads", "300"}).config.calls_per_host, 150) << "unless it is set";
  EXPECT_EQ(Parse({"--long-threads", "1"}).config.calls_per_host, 1);
  EXPECT_TRUE(vexa::daemon::CheckConfig(Parse({"--long-threads", "1"}).config).empty());
  const auto set = [](const char* calls) {
    return vexa::daemon::CheckConfig(Parse({"--long-threads", "300", "--calls-per-host", calls}).config);
  };
  EXPECT_TRUE(set("299").empty());
  EXPECT_EQ(
      LinesOf(set("300")),
      "calls-per-host = \"300\": 'calls-per-host' (300) must be less than 'long-threads' (300), or one host could "
      "take all threads from the others. Lower 'calls-per-host', or leave it out.\n");
}

TEST(Config, GuestsFolders_AreAbsolute) {
  const vexa::daemon::Config from_data = Parse({"--data", "some/data"}).config;
  EXPECT_EQ(from_data.image_roots, (std::vector<std::string>{std::filesystem::current_path() / "some/data/images"}));
  EXPECT_EQ(from_data.hypervisor_root, std::filesystem::current_path() / "some/data/embed");
  EXPECT_EQ(from_data.hypervisor, "test");
  const vexa::daemon::Config named =
      Parse({"--image-roots", "/a", "--image-roots", "/b", "--vcpus-per-cpu", "2"}).config;
  EXPECT_EQ(named.image_roots, (std::vector<std::string>{"/a", "/b"}));
  EXPECT_EQ(named.vcpus_per_cpu, 2u);
  EXPECT_TRUE(vexa::daemon::CheckConfig(named).empty());
  for (const std::vector<const char*>& flags : {std::vector<const char*>{"--image-roots", "a"},
                                                {"--hypervisor", "embed", "--hypervisor-root", "a"},
                                                {"--hypervisor", ""},
                                                {"--data", ""}}) {
    EXPECT_FALSE(vexa::daemon::CheckConfig(Parse(flags).config).empty()) << flags[0];
  }
  EXPECT_EQ(Parse({"--vcpus-per-cpu", "0"}).action, vexa::daemon::CommandLine::Action::kExit);
}

TEST(Config, RepositoryLimits_Read_WarnBeforeFull) {
  const vexa::daemon::Config defaults = Parse({}).config;
  EXPECT_EQ(defaults.repository_warning, 90u);
  EXPECT_EQ(defaults.repository_full, 98u);
  EXPECT_EQ(defaults.repository_headroom, 100u);
  vexa::daemon::Config config =
      Parse({"--repository-warning", "70", "--repository-full", "80", "--repository-headroom", "0"}).config;
  EXPECT_EQ(config.repository_warning, 70u);
  EXPECT_EQ(config.repository_full, 80u);
  EXPECT_EQ(config.repository_headroom, 0u);
  EXPECT_TRUE(vexa::daemon::CheckConfig(config).empty());
  config.repository_warning = 81;
  EXPECT_EQ(LinesOf(vexa::daemon::CheckConfig(config)),
            "repository-warning = \"81\": 'repository-warning' is above 'repository-full' (80). Set it to a lower "
            "percentage.\n");
  config.repository_full = 0;
  EXPECT_TRUE(vexa::daemon::CheckConfig(config).empty()) << "never full";
  EXPECT_EQ(Parse({"--repository-full", "101"}).action, vexa::daemon::CommandLine::Action::kExit);
}

TEST(Config, Uploads_LimitsAreRead) {
  const vexa::daemon::Config defaults = Parse({}).config;
  EXPECT_EQ(defaults.upload_count, 8u);
  EXPECT_EQ(defaults.upload_size, 64u);
  EXPECT_EQ(defaults.upload_total, 256u);
  EXPECT_EQ(defaults.upload_reserve, 1024u);
  const vexa::daemon::Config config =
      Parse({"--upload-count", "0", "--upload-size", "1", "--upload-total", "2", "--upload-reserve", "0"}).config;
  EXPECT_EQ(config.upload_count, 0u);
  EXPECT_EQ(config.upload_size, 1u);
  EXPECT_EQ(config.upload_total, 2u);
  EXPECT_EQ(config.upload_reserve, 0u);
  EXPECT_EQ(Parse({"--upload-size", "0"}).action, vexa::daemon::CommandLine::Action::kExit);
}

TEST(Config, NoListener_Configured_IsRefused) {
  vexa::daemon::CommandLine command = Parse({"--listen", "none", "--socket", ""});
  EXPECT_TRUE(command.config.listen.empty());
  EXPECT_FALSE(vexa::daemon::CheckConfig(command.config).empty());
  command = Parse({"--listen", "none"});
  EXPECT_TRUE(vexa::daemon::CheckConfig(command.config).empty());
}

TEST(FindCookie, Headers_AreSearchedByWholeName) {
  EXPECT_EQ(vexa::api::FindCookie("a=1; vexa_session=tok; b=2", "vexa_session"), "tok");
  EXPECT_EQ(vexa::api::FindCookie("vexa_session=tok", "vexa_session"), "tok");
  EXPECT_EQ(vexa::api::FindCookie("a=1;vexa_session=tok ", "vexa_session"), "tok");
  EXPECT_EQ(vexa::api::FindCookie("xvexa_session=tok", "vexa_session"), "");
  EXPECT_EQ(vexa::api::FindCookie("vexa_sessions=tok", "vexa_session"), "");
  EXPECT_EQ(vexa::api::FindCookie("vexa_session", "vexa_session"), "");
  EXPECT_EQ(vexa::api::FindCookie("", "vexa_session"), "");
  EXPECT_EQ(vexa::api::FindCookie(";;;", "vexa_session"), "");
}

TEST(Metrics, Counts_AppearByMethodCodeAndBucket) {
  using namespace vexa::api;
  const ApiTable table({{.api = "VEXA.A",
                         .method = "get",
                         .version = 1,
                         .access = Access::kUser,
                         .lane = LaneKind::kQuick,
                         .handler = {},
                         .summary = "",
                         .parameters = {},
                         .errors = {}}});
  Metrics metrics(table);
  metrics.Count(table.rows()[0], 0, std::chrono::microseconds(90));
  metrics.Count(table.rows()[0], 0, std::chrono::milliseconds(3));
  metrics.Count(table.rows()[0], 403, std::chrono::hours(1));
  Metrics::Gauges gauges;
  gauges.lanes = {{"quick", {.threads = 4, .busy = 1, .queued = 2, .done = 3, .refused = 5, .over_quota = 4}}};
  gauges.server.connections = 7;
  gauges.sessions = 9;
  gauges.consoles = {{"vnc", 3, 4, 50, 60}, {"serial", 1, 2, 7, 8}};
  metrics.CountConsoleRefusal(Metrics::ConsoleCaller::kUser, 912);
  metrics.CountConsoleRefusal(Metrics::ConsoleCaller::kUser, 912);
  metrics.CountConsoleRefusal(Metrics::ConsoleCaller::kHost, 912);
  const std::string text = metrics.ToText(gauges);
  for (const char* line : {"vexa_requests_total{api=\"VEXA.A\",method=\"get\",code=\"0\"} 2\n",
                           "vexa_requests_total{api=\"VEXA.A\",method=\"get\",code=\"403\"} 1\n",
                           "vexa_request_duration_seconds_bucket{api=\"VEXA.A\",method=\"get\",le=\"0.000100\"} 1\n",
                           "vexa_request_duration_seconds_bucket{api=\"VEXA.A\",method=\"get\",le=\"0.002500\"} 1\n",
                           "vexa_request_duration_seconds_bucket{api=\"VEXA.A\",method=\"get\",le=\"0.005000\"} 2\n",
                           "vexa_request_duration_seconds_bucket{api=\"VEXA.A\",method=\"get\",le=\"+Inf\"} 3\n",
                           "vexa_request_duration_seconds_count{api=\"VEXA.A\",method=\"get\"} 3\n",
                           "vexa_request_duration_seconds_sum{api=\"VEXA.A\",method=\"get\"} 3600.003090\n",
                           "vexa_lane_threads{lane=\"quick\"} 4\n",
                           "vexa_lane_busy{lane=\"quick\"} 1\n",
                           "vexa_lane_queued{lane=\"quick\"} 2\n",
                           "vexa_lane_refused_total{lane=\"quick\"} 5\n",
                           "vexa_lane_over_quota_total{lane=\"quick\"} 4\n",
                           "vexa_connections 7\n",
                           "vexa_sessions 9\n",
                           "vexa_consoles{type=\"vnc\"} 3\n",
                           "vexa_consoles{type=\"serial\"} 1\n",
                           "vexa_consoles_opened_total{type=\"vnc\"} 4\n",
                           "vexa_console_bytes_to_guests_total{type=\"vnc\"} 50\n",
                           "vexa_console_bytes_from_guests_total{type=\"serial\"} 8\n",
                           "vexa_consoles_refused_total{caller=\"user\",code=\"912\"} 2\n",
                           "vexa_consoles_refused_total{caller=\"host\",code=\"912\"} 1\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << text;
  }
}

TEST(Config, ConsoleLimits_AreSettings) {
  const auto defaults = Parse({}).config;
  EXPECT_EQ(defaults.max_consoles, 256U);
  EXPECT_EQ(defaults.max_consoles_per_user, 16U);
  EXPECT_EQ(defaults.console_idle, std::chrono::minutes(30));
  const auto config = Parse({"--max-consoles", "7", "--max-consoles-per-user", "3", "--console-idle", "60"}).config;
  EXPECT_EQ(config.max_consoles, 7U);
  EXPECT_EQ(config.max_consoles_per_user, 3U);
  EXPECT_EQ(config.console_idle, std::chrono::minutes(1));
  EXPECT_EQ(Parse({"--console-idle", "0"}).action, vexa::daemon::CommandLine::Action::kExit);
}

TEST(NotifyServiceManager, Socket_GetsTheState) {
  const vexa::test::TempDir folder;
  const std::string path = folder.File("notify");
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  vexa::daemon::NotifyServiceManager("READY=1");
  char buffer[32] = {};
  EXPECT_EQ(::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT), 7);
  EXPECT_STREQ(buffer, "READY=1");
  for (const char* nowhere : {"", "relative", "/no/such/socket"}) {
    ::setenv("NOTIFY_SOCKET", nowhere, 1);
    vexa::daemon::NotifyServiceManager("READY=1");
  }
  ::unsetenv("NOTIFY_SOCKET");
  vexa::daemon::NotifyServiceManager("READY=1");
  EXPECT_LT(::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT), 0);
  ::close(fd);
}

TEST(HostId, HostId_FirstStart_WritesPermanentUuid) {
  const vexa::test::TempDir folder;
  const auto first = vexa::daemon::LoadHostId(folder.path());
  ASSERT_TRUE(first.ok());
  EXPECT_TRUE(VexaCCC::Utils::isUUID(*first));
  EXPECT_EQ(*vexa::daemon::LoadHostId(folder.path()), *first);
  ASSERT_TRUE(vexa::WriteFileAtomically(folder.File("host-id"), "not an id\n", 0600));
  const auto damaged = vexa::daemon::LoadHostId(folder.path());
  ASSERT_FALSE(damaged.ok());
  EXPECT_EQ(damaged.error().code(), vexa::ErrorCode::kCorrupt);
  EXPECT_FALSE(vexa::daemon::LoadHostId(folder.File("missing")).ok());
}

}  // namespace
