#include "cli/transport_failure.h"

#include <curl/curl.h>
#include <fmt/format.h>
#include <grp.h>
#include <openssl/x509_vfy.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>

namespace vexa::cli {
namespace {

std::string OwnAccount() {
  const passwd* const entry = ::getpwuid(::geteuid());
  return entry ? entry->pw_name : fmt::format("uid {}", ::geteuid());
}

// The group whose members may open the socket; "" when it is not the group that decides.
std::string GroupOf(const std::filesystem::path& socket) {
  for (std::filesystem::path path = std::filesystem::absolute(socket); path.has_relative_path();
       path = path.parent_path()) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) continue;  // the reason is a folder above it
    const bool is_folder = S_ISDIR(info.st_mode);
    const mode_t group = is_folder ? S_IXGRP : S_IWGRP;
    const mode_t others = is_folder ? S_IXOTH : S_IWOTH;
    if ((info.st_mode & others) != 0) continue;
    const auto* const entry = (info.st_mode & group) != 0 ? ::getgrgid(info.st_gid) : nullptr;
    return entry ? entry->gr_name : "";
  }
  return "";
}

std::string SocketText(const std::string& socket, const TransportFailure& failure) {
  struct stat info {};
  switch (failure.error_number) {
    case ENOENT:
    case ENOTDIR:
      return "the socket does not exist, so no vexad runs here. Start it with 'sudo systemctl start vexad', or name a "
             "server with --server, --socket, $VEXA_SERVER or $VEXA_SOCKET";
    case ECONNREFUSED:
      if (::stat(socket.c_str(), &info) == 0 && !S_ISSOCK(info.st_mode)) {
        return "the file is not a socket. Name the socket of vexad with --socket or $VEXA_SOCKET";
      }
      return "vexad has ended. Start it with 'sudo systemctl start vexad'; 'journalctl -u vexad' shows why it ended";
    case EACCES:
    case EPERM: {
      const std::string group = GroupOf(socket);
      return fmt::format("the account '{}' may not open the socket. Run the command with sudo{}", OwnAccount(),
                         group.empty() ? "" : fmt::format(", or as a member of the group '{}'", group));
    }
    default:
      return failure.error_number != 0 ? std::generic_category().message(failure.error_number) : failure.text;
  }
}

// After the connection was made.
std::string SocketReplyText(const TransportFailure& failure) {
  switch (failure.curl_code) {
    case CURLE_OPERATION_TIMEDOUT:
      return fmt::format(
          "{}. vexad is there and does not answer: 'systemctl status vexad' and 'journalctl -u vexad' show what it "
          "does, --timeout waits longer, and 'sudo systemctl restart vexad' starts it again",
          failure.text);
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      return fmt::format(
          "{}. vexad has ended or closed the connection: 'systemctl status vexad' shows whether it runs, and "
          "'journalctl -u vexad' what it did",
          failure.text);
    default:
      return failure.text;
  }
}

std::string UrlPart(const std::string& url, CURLUPart part) {
  CURLU* const parsed = curl_url();
  char* text = nullptr;
  std::string result;
  if (curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
      curl_url_get(parsed, part, &text, CURLU_DEFAULT_PORT) == CURLUE_OK) {
    result = text;
    curl_free(text);
  }
  curl_url_cleanup(parsed);
  return result;
}

std::string CertificateText(const std::string& host, const TransportFailure& failure) {
  // libcurl compares the name itself, after the certificate was verified.
  if (failure.text.find("subject name") != std::string::npos) {
    return fmt::format("its certificate is not for the name '{}'. Use a name that is in the certificate", host);
  }
  switch (failure.certificate_problem) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return "its certificate has expired. The administrator of the server has to renew it, unless the clock of this "
             "machine is wrong";
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return "its certificate is not valid yet. Check the clocks of the server and of this machine";
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return "its certificate is not signed by an authority that this machine trusts. Name the file with the "
             "authority's certificate with --ca-file";
    default:
      return fmt::format("its certificate is not accepted ({}). The administrator of the server has to replace it",
                         failure.text);
  }
}

std::string ServerText(const HttpClientOptions& options, const TransportFailure& failure) {
  const std::string& url = options.endpoint.url;
  const std::string host = UrlPart(url, CURLUPART_HOST);
  switch (failure.curl_code) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return fmt::format("the name '{}' is unknown to this machine. Check its spelling, or use the address", host);
    case CURLE_COULDNT_CONNECT:
      if (failure.error_number == ECONNREFUSED) {
        return fmt::format(
            "nothing listens on its port {}. Check the port, and that vexad runs there with the setting "
            "'listen'",
            UrlPart(url, CURLUPART_PORT));
      }
      return fmt::format(
          "{}. Check the network, and that the machine is on",
          failure.error_number != 0 ? std::generic_category().message(failure.error_number) : failure.text);
    case CURLE_OPERATION_TIMEDOUT:
      return fmt::format("{}. Check the network and the load of the server; --timeout waits longer", failure.text);
    case CURLE_PEER_FAILED_VERIFICATION:
      return CertificateText(host, failure);
    case CURLE_SSL_CONNECT_ERROR:
      return fmt::format("no encrypted connection is possible ({}). Check the port, and whether the server uses https",
                         failure.text);
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_WEIRD_SERVER_REPLY:
      return fmt::format("what answers there is not VEXA ({}). Check the server's name and port", failure.text);
    case CURLE_GOT_NOTHING:
      return fmt::format("the connection was closed without a reply. Check the port{}",
                         url.starts_with("https:") ? "" : ", and whether the server needs https");
    default:
      return failure.text;
  }
}

}  // namespace

Error TransportError(const HttpClientOptions& options, const TransportFailure& failure) {
  const Endpoint& endpoint = options.endpoint;
  if (failure.curl_code == CURLE_SSL_CACERT_BADFILE) {
    return Error(ErrorCode::kInvalid,
                 fmt::format("The file '{}' of --ca-file cannot be read, or contains no certificate", options.ca_file));
  }
  const bool is_socket_refused = failure.curl_code == CURLE_COULDNT_CONNECT && !endpoint.unix_socket.empty();
  return Error(ErrorCode::kUnavailable, fmt::format("No reply from {}", endpoint.Name()),
               is_socket_refused              ? SocketText(endpoint.unix_socket, failure)
               : endpoint.unix_socket.empty() ? ServerText(options, failure)
                                              : SocketReplyText(failure));
}

std::string NotVexaHint(const Endpoint& endpoint) {
  return fmt::format("What answers at {} may not be VEXA. Check {}.", endpoint.Name(),
                     endpoint.unix_socket.empty() ? "the server's name and port" : "the path of the socket");
}

}  // namespace vexa::cli
