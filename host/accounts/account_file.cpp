#include "host/accounts/account_file.h"

#include <utility>

#include "host/base/private_file.h"
#include "host/base/uuid.h"

namespace vexa::base {
namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{16} << 20;

}  // namespace

Result<AccountFile> ReadAccountFile(const std::string& path) {
  if (path.find('\0') != std::string::npos) return Error(ErrorCode::kInvalid, "The path of a file contains a NUL");
  const auto file = ReadPrivateFile(path, kMaxFileBytes);
  if (!file) return file.error();
  auto document = ParseAccounts(file->content);
  if (!document) return Error(document.error().code(), "'" + path + "': " + document.error().ToString());
  constexpr char kNoNameSpace[16] = {};
  return AccountFile{std::move(*document), NameBasedUuid({kNoNameSpace, sizeof kNoNameSpace}, file->content)};
}

}  // namespace vexa::base
