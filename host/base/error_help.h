// What helps after a failure, for every code of error_table.h: the hint of replies, and the pages about codes.
// Threads: the table never changes.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "host/base/error_table.h"

namespace vexa {

struct ErrorHelp {
  int code;
  std::string_view hint;    // one sentence: the command, method or setting that helps
  std::string_view causes;  // sentences: what usually leads to the code, and what distinguishes the causes
};

// One row for each code of ErrorTable(), in ascending order.
std::span<const ErrorHelp> ErrorHelpTable();

// The hint and the causes of `code`; "" for an unknown code.
std::string_view HintFor(int code);
std::string_view CausesOf(int code);

// Where the cause of failures with this HTTP status lies, as the end of a sentence.
std::string_view WhereCauseLies(int http_status);

// What `vexa error CODE` prints: the message, the status, where the cause lies, the usual causes and the hint.
std::string ErrorPage(const ErrorRow& row);

// The page about all codes, docs/errors.md, in Markdown.
std::string ErrorPagesAsMarkdown();

}  // namespace vexa
