#include "host/accounts/account_file.h"

#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <utility>

#include "host/base/private_file.h"

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
  const boost::uuids::name_generator_sha1 generate(boost::uuids::uuid{});
  return AccountFile{std::move(*document), to_string(generate(file->content))};
}

}  // namespace vexa::base
