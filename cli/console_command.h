// vexa guest console, viewer, screenshot and type: the console of a guest.
#pragma once

#include <string>
#include <string_view>

#include "cli/client_options.h"

namespace vexa::cli {

struct ScreenshotOptions {
  std::string guest;  // an id or a name, as in all of these
  std::string file;
};

struct TypeOptions {
  std::string guest;
  std::string text;
  bool enter = false;  // also presses Enter
};

struct ViewerOptions {
  std::string guest;
  std::string program = "remote-viewer";
};

// The serial line on this terminal, until "~." at the start of a line, the end of the input, or the end of the line.
ExitCode RunConsole(const GlobalOptions& global, const std::string& guest);
// Starts `program` with the URL of a port of this machine that only this user can use, for one connection.
ExitCode RunViewer(const GlobalOptions& global, const ViewerOptions& options);
ExitCode RunScreenshot(const GlobalOptions& global, const ScreenshotOptions& options);
ExitCode RunType(const GlobalOptions& global, const TypeOptions& options);

// Finds "~." at the start of a line of the input; "~~" there stands for one "~".
class EscapeFilter {
 public:
  // What is sent for `input`. When it contains "~.", only what comes before, and has_left() is true then.
  std::string Filter(std::string_view input);
  bool has_left() const { return has_left_; }

 private:
  enum class At { kLineStart, kTilde, kWithinLine };
  At at_ = At::kLineStart;
  bool has_left_ = false;
};

}  // namespace vexa::cli
