#include "host/accounts/account_file.h"

#include <fmt/format.h>

#include <utility>

#include "host/base/private_file.h"
#include "host/base/uuid.h"

namespace vexa::accounts {
namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{16} << 20;

}  // namespace

Result<AccountFile> ReadAccountFile(const std::string& path) {
  const auto file = ReadPrivateFile(path, kMaxFileBytes);
  if (!file) return file.error();
  auto document = ParseAccounts(file->content);
  if (!document) return Error(document.error().code(), fmt::format("'{}': {}", path, document.error().ToString()));
  constexpr char kNilNamespace[16] = {};
  return AccountFile{std::move(*document), NameBasedUuid({kNilNamespace, sizeof kNilNamespace}, file->content)};
}

}  // namespace vexa::accounts
