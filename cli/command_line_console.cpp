// vexa guest console, viewer, screenshot and type.
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/console_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kRightFooter = R"(
For administrators, and users to whom the guest was granted with its console ('vexa user grant --console'). Each use is
in the cluster log.)";

constexpr const char* kGuestHelp = "Its id or name";

}  // namespace

void AddConsoleCommands(const Command& app) {
  const Command guest = app.Group("guest");

  const Command console = guest.AddCommand("console", "Connect this terminal to the serial line of a guest");
  const auto name = std::make_shared<std::string>();
  console.AddOption("GUEST", *name, kGuestHelp).Required();
  console.Footer(std::string("\n~. at the start of a line leaves, and ~~ sends one ~. One person at a time can have a "
                             "serial line.\n") +
                 kRightFooter);
  console.OnRun(name, RunConsole);

  const Command viewer = guest.AddCommand("viewer", "Open the screen of a guest in a viewer");
  const auto viewer_options = std::make_shared<ViewerOptions>();
  viewer.AddOption("GUEST", viewer_options->guest, kGuestHelp).Required();
  viewer
      .AddOption("--program", viewer_options->program,
                 "The viewer, which gets a URL such as vnc://127.0.0.1:40123 (default: remote-viewer)")
      .Placeholder("PROGRAM");
  viewer.Footer(std::string("\nThe port is on this machine, for one connection of a program of yours. The command ends "
                            "with the viewer.\n") +
                kRightFooter);
  viewer.OnRun(viewer_options, RunViewer);

  const Command screenshot = guest.AddCommand("screenshot", "Write a picture of the screen of a guest to a file");
  const auto screenshot_options = std::make_shared<ScreenshotOptions>();
  screenshot.AddOption("GUEST", screenshot_options->guest, kGuestHelp).Required();
  screenshot.AddOption("FILE", screenshot_options->file, "The file, as PNG; an existing one is replaced").Required();
  screenshot.Footer(kRightFooter);
  screenshot.OnRun(screenshot_options, RunScreenshot);

  const Command type = guest.AddCommand("type", "Type a text on the keyboard of a guest");
  const auto type_options = std::make_shared<TypeOptions>();
  type.AddOption("GUEST", type_options->guest, kGuestHelp).Required();
  type.AddOption("TEXT", type_options->text, "Up to 1024 characters that a US keyboard has").Required();
  type.AddFlag("--enter", type_options->enter, "Press Enter at the end");
  type.Footer(
      std::string("\nThe guest must expect a US keyboard. The text is in no log of the cluster, but in the "
                  "history of your shell.\nCtrl-C ends the command, and not the typing: a long text takes up to "
                  "45 s.\n") +
      kRightFooter);
  type.OnRun(type_options, RunType);
}

}  // namespace vexa::cli
