// Runs the user's editor on a text that no other user can read.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::cli {

inline constexpr std::size_t kMaxEditedBytes = std::size_t{1} << 20;

struct EditorResult {
  enum class Outcome {
    kSaved,        // the editor succeeded
    kAborted,      // it failed, as editors do on request; the text must not be used
    kInterrupted,  // this process received `signal`, which asks it to end
  };
  Outcome outcome = Outcome::kSaved;
  int signal = 0;      // kInterrupted: SIGTERM or SIGHUP
  std::string text;    // as the editor left it
  std::string reason;  // kAborted: "ended with exit code 1"
};

// Runs the editor ($VISUAL, otherwise $EDITOR, otherwise sensible-editor, editor or vi) on `text` and waits for it. The
// file has mode 0600 in a folder of mode 0700 in $XDG_RUNTIME_DIR, otherwise $TMPDIR, otherwise /tmp. Both are removed
// when this returns, with everything else that the editor left there. Meanwhile SIGINT and SIGQUIT belong to the
// editor; SIGTERM and SIGHUP also end the editor. Errors: kNotFound when there is no editor; kUnavailable when the
// folder cannot be created or the result is not a regular file of at most kMaxEditedBytes.
Result<EditorResult> RunEditor(const std::string& text);

// Writes `text` to a new file of mode 0600 in $XDG_RUNTIME_DIR, $TMPDIR or /tmp, which is kept for the user. Returns
// its path.
Result<std::string> SaveForUser(const std::string& text);

enum class EditAgain { kNo, kYes, kInterrupted };
struct EditAgainChoice {
  EditAgain again = EditAgain::kNo;
  int signal = 0;  // kInterrupted: the signal that asked this process to end
};
// Asks on the terminal whether to edit again. kNo without a terminal, on "n" and at the end of input.
EditAgainChoice AskToEditAgain();

}  // namespace vexa::cli
