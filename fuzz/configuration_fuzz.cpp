// The configuration file: whatever it contains, it is refused with a sentence, or the daemon would listen on nothing
// that it should not.
#include <sstream>
#include <string>

#include "fuzz/check.h"
#include "fuzz/printed_text.h"
#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "host/daemon/config.h"
#include "host/daemon/configured_paths.h"
#include "tests/support/temp_dir.h"

namespace {

using vexa::fuzz::Check;
using vexa::fuzz::PrintedText;
using vexa::http::ListenerOptions;

void CheckPrinted(const std::string& text) {
  Check(vexa::IsValidUtf8(text), "the output is UTF-8");
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    Check(vexa::fuzz::IsOneLine(line), "nothing in the output controls a terminal");
}

void CheckUsable(const vexa::daemon::Config& config) {
  const auto listeners = vexa::daemon::ListenersOf(config);
  Check(listeners.ok() && !listeners->empty(), "a valid configuration has listeners");
  for (const ListenerOptions& listener : *listeners) {
    if (listener.kind == ListenerOptions::Kind::kUnix) continue;
    const bool is_loopback = listener.address.starts_with("127.") || listener.address == "::1";
    Check(is_loopback || (!listener.certificate_file.empty() && !listener.key_file.empty()),
          "other machines are served over TLS only");
  }
  Check(config.cluster_listen.empty() || !ClusterFilesOf(config).authority.empty(),
        "hosts are known by their certificates");
  Check(!config.new_store && !config.take_host_id, "flags of one start are not in a file");
  Check(config.io_threads >= 1 && config.long_threads >= 1 && config.calls_per_user >= 1, "there are threads");
  Check(config.max_connections >= 1 && config.max_connections_per_peer >= 1, "connections are accepted");
  Check(config.sessions.idle.count() > 0 && config.sessions.absolute.count() > 0, "sessions end, but not immediately");
  for (const std::string& root : config.image_roots) Check(root.starts_with('/'), "image folders are absolute");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const vexa::test::TempDir folder;
  static const std::string path = folder.File("vexad.conf");
  Check(vexa::WriteFileAtomically(path, std::string(vexa::fuzz::Text(data, size)), 0600).ok(), "the file is written");
  const PrintedText printed;
  const char* const arguments[] = {"vexad", "--config", path.c_str()};
  const vexa::daemon::CommandLine command = vexa::daemon::ParseCommandLine(3, arguments);
  if (command.action == vexa::daemon::CommandLine::Action::kExit) {
    Check(command.exit_status == 2, "a file cannot ask for the help or the version");
    Check(!printed.text().empty(), "a refusal is printed");
    CheckPrinted(printed.text());
  } else {
    Check(command.action == vexa::daemon::CommandLine::Action::kRun, "a file cannot ask for a check");
    Check(!command.config.take_host_id, "a file cannot take the host id over");
    if (vexa::daemon::CheckConfig(command.config).empty()) CheckUsable(command.config);
  }
  const auto paths = vexa::daemon::ReadConfiguredPaths(path);
  Check(!paths.ok() || !paths->data_directory.empty(), "there is a data folder");
  const bool is_refused = command.action == vexa::daemon::CommandLine::Action::kExit;
  Check(!is_refused || !paths.ok(), "what the daemon refuses, the commands refuse");
  return 0;
}
