// Account files of older versions, which are migrated into the store.
#pragma once

#include <string>

#include "host/accounts/account_document.h"
#include "host/base/result.h"

namespace vexa::base {

struct AccountFile {
  AccountDocument document;
  std::string fingerprint;  // of the file's content
};

// kNotFound: the file does not exist. kDenied: it is not private (others may read or write it, neither this process's
// user nor root owns it, it is a symbolic link). kCorrupt: it cannot be parsed. kInvalid: it is not a regular file or
// is larger than 16 MiB. kBusy: it kept changing while it was read.
Result<AccountFile> ReadAccountFile(const std::string& path);

}  // namespace vexa::base
