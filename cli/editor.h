// Runs the user's editor on a text that no other user can read.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::cli {

inline constexpr std::size_t kMaxEditedBytes = std::size_t{1} << 20;

struct Edited {
  enum class End {
    kSaved,        // the editor ended well
    kGivenUp,      // it failed, as editors do on request; the text must not be used
    kInterrupted,  // this process was asked to end meanwhile, by `signal`
  };
  End end = End::kSaved;
  int signal = 0;
  std::string text;  // as the editor left it
  std::string why;   // kGivenUp: the exit status
};

// Runs the editor ($VISUAL, otherwise $EDITOR, otherwise sensible-editor, editor or vi) on `text` and waits for it. The
// file has mode 0600 in a folder of mode 0700 in $XDG_RUNTIME_DIR, otherwise $TMPDIR, otherwise /tmp. Both are removed
// when this returns, with everything else that the editor left there. Meanwhile SIGINT and SIGQUIT belong to the
// editor; SIGTERM and SIGHUP also end the editor. Errors: there is no editor, or no such folder; the result is not a
// regular file of at most kMaxEditedBytes.
Result<Edited> RunEditor(const std::string& text);

// Writes `text` to a new file of mode 0600 next to those, for the user to find. Returns its path.
Result<std::string> KeepText(const std::string& text);

// Asks on the terminal whether to edit again. No without a terminal, on "n", at the end of input, and when this process
// is asked to end; `signal` is then set.
enum class Again { kNo, kYes, kInterrupted };
struct AgainAnswer {
  Again again = Again::kNo;
  int signal = 0;
};
AgainAnswer AskAgain();

}  // namespace vexa::cli
