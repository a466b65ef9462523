// https: which certificates the client trusts.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

class Tls : public CliTest {
 protected:
  // A certificate that signs itself, in <name>.pem and <name>.key.
  void MakeCertificate(const std::string& name, const std::string& subject) {
    const auto made =
        RunProcess({.argv = {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                             "-nodes", "-days", "2", "-subj", "/CN=test", "-addext", "subjectAltName=" + subject,
                             "-keyout", folder_.File(name + ".key"), "-out", folder_.File(name + ".pem")}});
    ASSERT_EQ(made.exit_code, 0) << made.errors;
  }

  // Serves the test's folder; its file "healthz" is what /healthz answers.
  std::unique_ptr<Process> Serve(const std::string& name, std::string& url) {
    WriteFile(folder_.File("healthz"), "{\"store\":\"ready\"}");
    auto server = std::make_unique<Process>(
        ProcessOptions{.argv = {"openssl", "s_server", "-accept", "127.0.0.1:0", "-WWW", "-cert",
                                folder_.File(name + ".pem"), "-key", folder_.File(name + ".key")},
                       .working_directory = folder_.path()});
    EXPECT_TRUE(server->WaitForText("ACCEPT 127.0.0.1:", std::chrono::seconds(30)));
    std::string shown = server->output();
    while (server->IsRunning() && shown.find('\n', shown.find("ACCEPT ")) == std::string::npos) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));  // the rest of the line is on its way
      shown = server->output();
    }
    const std::size_t at = shown.find("ACCEPT ") + 7;
    url = "https://" + shown.substr(at, shown.find('\n', at) - at);
    return server;
  }

  // What 'vexa health' answers about a server whose certificate is for `subject`. `trust` are the client's flags.
  ProcessResult HealthOf(const std::string& subject, const std::vector<std::string>& trust) {
    MakeCertificate("server", subject);
    std::string url;
    const auto server = Serve("server", url);
    std::vector<std::string> arguments{"health", "--server", url};
    arguments.insert(arguments.end(), trust.begin(), trust.end());
    return Run(arguments);
  }
  std::vector<std::string> TrustingServer() const { return {"--ca-file", folder_.File("server.pem")}; }
};

TEST_F(Tls, Connect_CertificateNotTrusted_IsUnreachable) {
  const auto result = HealthOf("IP:127.0.0.1", {"--insecure-http"});
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_THAT(
      result.errors,
      HasSubstr(": its certificate is not signed by an authority that this machine trusts. Name the file with the "
                "authority's certificate with --ca-file\n"));
}

TEST_F(Tls, Connect_AuthorityGiven_IsTrusted) {
  const auto result = HealthOf("IP:127.0.0.1", TrustingServer());
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("ready"));
}

TEST_F(Tls, Connect_CertificateOfOtherHost_IsUnreachable) {
  const auto result = HealthOf("DNS:other.example", TrustingServer());
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_THAT(result.errors, HasSubstr(": its certificate is not for the name '127.0.0.1'. Use a name that is in the "
                                       "certificate\n"));
}

// A password is typed only for a server whose name has been verified.
TEST_F(Tls, Login_CertificateOfOtherHost_SendsNoPassword) {
  MakeCertificate("server", "DNS:other.example");
  std::string url;
  const auto server = Serve("server", url);
  const auto result =
      Run({"login", "--server", url, "--ca-file", folder_.File("server.pem"), "--password-stdin", "alice"},
          "secret-word\n");
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_THAT(result.errors, HasSubstr("its certificate is not for the name '127.0.0.1'"));
  EXPECT_THAT(server->output() + server->errors(), Not(HasSubstr("secret-word")));
  EXPECT_FALSE(std::filesystem::exists(LoginFile()));
}

TEST_F(Tls, Connect_CertificateExpired_IsReportedAsExpired) {
  MakeCertificate("authority", "DNS:authority");
  const auto run = [&](std::vector<std::string> words) {
    words.insert(words.begin(), "openssl");
    const auto made = RunProcess({.argv = words});
    EXPECT_EQ(made.exit_code, 0) << made.errors;
  };
  run({"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=server", "-keyout",
       folder_.File("server.key"), "-out", folder_.File("server.csr")});
  run({"x509", "-req", "-in", folder_.File("server.csr"), "-CA", folder_.File("authority.pem"), "-CAkey",
       folder_.File("authority.key"), "-CAcreateserial", "-days", "-1", "-out", folder_.File("server.pem")});
  std::string url;
  const auto server = Serve("server", url);
  const auto result = Run({"health", "--server", url, "--ca-file", folder_.File("authority.pem")});
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_EQ(result.errors, "vexa: No reply from " + url +
                               ": its certificate has expired. The administrator of the server has to renew it, unless "
                               "the clock of this machine is wrong\n");
}

TEST_F(Tls, Connect_AuthorityFileMissing_IsUsageError) {
  const auto result = Run({"health", "--server", "https://127.0.0.1:1", "--ca-file", folder_.File("none.pem")});
  EXPECT_EQ(result.exit_code, 3);  // nothing listens: the file is read after the connection is made
  const auto missing = HealthOf("IP:127.0.0.1", {"--ca-file", folder_.File("none.pem")});
  EXPECT_EQ(missing.exit_code, 2);
  EXPECT_EQ(missing.errors, "vexa: The file '" + folder_.File("none.pem") +
                                "' of --ca-file cannot be read, or contains no certificate\n");
}

TEST_F(Tls, Connect_ServerWithoutTls_IsReported) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), size), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
  std::thread server([listener] {
    const int connection = ::accept(listener, nullptr, nullptr);
    const std::string reply = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";
    EXPECT_EQ(::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL), static_cast<ssize_t>(reply.size()));
    std::array<char, 4096> rest{};
    while (::recv(connection, rest.data(), rest.size(), 0) > 0) {
    }
    ::close(connection);
  });
  const auto result = Run({"health", "--server", "https://127.0.0.1:" + std::to_string(ntohs(address.sin_port))});
  server.join();
  ::close(listener);
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_THAT(result.errors, AllOf(HasSubstr(": no encrypted connection is possible ("),
                                   HasSubstr("). Check the port, and whether the server uses https\n")));
}

}  // namespace
}  // namespace vexa::test
