#include "cli/watch.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <iostream>
#include <sstream>
#include <string>

namespace vexa::cli {
namespace {

bool is_watching = false;

// What is written to a stream during its lifetime.
class Captured {
 public:
  explicit Captured(std::ostream& stream) : stream_(&stream), original_(stream.rdbuf(text_.rdbuf())) {}
  ~Captured() { stream_->rdbuf(original_); }
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;

  std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::ostream* stream_;
  std::streambuf* original_;
};

struct Shown {
  ExitCode exit_code = ExitCode::kOk;
  std::string output;
  std::string errors;
};

Shown RunOnce(const GlobalOptions& global, const RunFunction& run) {
  const Captured output(std::cout);
  const Captured errors(std::cerr);
  const ExitCode exit_code = run(global);
  return {exit_code, output.text(), errors.text()};
}

// Without the lines of JSON and YAML that have ages, which change every time.
std::string WithoutAges(const std::string& text) {
  std::istringstream lines(text);
  std::string result;
  for (std::string line; std::getline(lines, line);) {
    if (line.find("age_s") == std::string::npos) result += line + '\n';
  }
  return result;
}

void Show(const Shown& shown, bool is_terminal, bool is_first) {
  if (is_terminal) {
    std::cout << "\x1b[H\x1b[2J" << shown.output << shown.errors << std::flush;
    return;
  }
  if (!is_first && !shown.output.empty()) std::cout << '\n';
  std::cout << shown.output << std::flush;
  std::cerr << shown.errors;
}

// Waits. Returns whether the program that reads the output has ended, as with "| head", although nothing is written:
// what does not change is not shown again.
bool IsReaderGoneWithin(std::chrono::seconds interval) {
  pollfd output{STDOUT_FILENO, 0, 0};
  return ::poll(&output, 1, static_cast<int>(std::chrono::milliseconds(interval).count())) == 1;
}

}  // namespace

bool IsWatching() { return is_watching; }

ExitCode Watch(const GlobalOptions& global, std::chrono::seconds interval, const RunFunction& run) {
  is_watching = true;
  struct sigaction action {};
  if (::sigaction(SIGINT, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
    action.sa_handler = [](int) { ::_exit(static_cast<int>(ExitCode::kOk)); };
    ::sigaction(SIGINT, &action, nullptr);
  }
  const bool is_terminal = ::isatty(STDOUT_FILENO) == 1;
  std::string before;
  for (bool is_first = true; std::cout; is_first = false) {
    const Shown shown = RunOnce(global, run);
    // 'vexa health' prints the report of a server that is not healthy, and fails.
    const bool was_refused =
        shown.exit_code != ExitCode::kOk && shown.exit_code != ExitCode::kUnreachable && shown.output.empty();
    if (was_refused) {
      std::cerr << shown.errors;
      return shown.exit_code;
    }
    const std::string now = WithoutAges(shown.output) + shown.errors;
    if (is_first || now != before) Show(shown, is_terminal, is_first);
    before = now;
    if (IsReaderGoneWithin(interval)) break;
  }
  return ExitCode::kFailed;
}

}  // namespace vexa::cli
