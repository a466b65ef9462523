// The user's editor, on a text that nobody else can read.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::cli {

inline constexpr std::size_t kMaxEditedBytes = std::size_t{1} << 20;

struct Edited {
  enum class End {
    kSaved,        // the editor ended well
    kGivenUp,      // it failed, as editors do when they are told to; nothing is to come of the text
    kInterrupted,  // this process was told to end meanwhile, with `signal`
  };
  End end = End::kSaved;
  int signal = 0;
  std::string text;  // as the editor left it
  std::string why;   // kGivenUp: how it ended
};

// Runs the editor ($VISUAL, else $EDITOR, else sensible-editor, editor or vi) on `text` and waits for it. The file has
// mode 0600 in a folder of mode 0700 in $XDG_RUNTIME_DIR, else $TMPDIR, else /tmp; both are gone when this returns,
// with whatever else the editor has left there. SIGINT and SIGQUIT are the editor's meanwhile; SIGTERM and SIGHUP end
// the editor as well. Errors: there is no editor, or no such folder; the text that comes back is no regular file of at
// most kMaxEditedBytes.
Result<Edited> RunEditor(const std::string& text);

// Writes `text` to a new file of mode 0600 beside those, for the user to find. Its path.
Result<std::string> KeepText(const std::string& text);

// Asks on the terminal whether to edit again: no without one, at "n", at the end of input, and when this process is
// told to end, with `signal` then.
enum class Again { kNo, kYes, kInterrupted };
struct AgainAnswer {
  Again again = Again::kNo;
  int signal = 0;
};
AgainAnswer AskAgain();

}  // namespace vexa::cli
