// https: which certificates the client trusts.
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
  EXPECT_THAT(result.errors, HasSubstr("certificate"));
}

TEST_F(Tls, Connect_AuthorityGiven_IsTrusted) {
  const auto result = HealthOf("IP:127.0.0.1", TrustingServer());
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("ready"));
}

TEST_F(Tls, Connect_CertificateOfOtherHost_IsUnreachable) {
  const auto result = HealthOf("DNS:other.example", TrustingServer());
  EXPECT_EQ(result.exit_code, 3);
}

}  // namespace
}  // namespace vexa::test
