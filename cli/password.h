// Passwords, from a terminal without echo or from standard input. Never from the command line, where other users can
// see them.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::cli {

inline constexpr std::size_t kMaxPasswordBytes = 512;

enum class PasswordSource { kTerminal, kStandardInput };

// Asks on the controlling terminal (/dev/tty) with echo off. The terminal is restored afterwards, even when the program
// is interrupted meanwhile. kUnavailable without a terminal, kInvalid when the password is empty or longer than
// kMaxPasswordBytes.
Result<std::string> AskPassword(const std::string& prompt);

// The first line of standard input, without its line end; the same errors.
Result<std::string> ReadPasswordLine();

// An existing password: asked once.
Result<std::string> GetPassword(PasswordSource source, const std::string& prompt);

// A new password: asked twice on a terminal. kInvalid when the two differ.
Result<std::string> GetNewPassword(PasswordSource source, const std::string& prompt);

}  // namespace vexa::cli
