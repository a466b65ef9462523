// Reads the account file of older versions, whose accounts are migrated into the store.
#pragma once

#include <string>

#include "host/accounts/account_document.h"
#include "host/base/result.h"

namespace vexa::accounts {

struct AccountFile {
  AccountDocument document;
  std::string fingerprint;  // identifies the file's content: a UUID derived from it
};

// Errors: kNotFound when the file does not exist; kDenied when it is not private (others may read or write it, neither
// this process's user nor root owns it, or it is a symbolic link); kCorrupt when it is damaged; kInvalid when it is not
// a regular file or is larger than 16 MiB; kBusy when it kept changing while it was read.
Result<AccountFile> ReadAccountFile(const std::string& path);

}  // namespace vexa::accounts
