// The text of the account file: every reference in an accepted text resolves, and nothing is duplicated.
#include <set>
#include <string>

#include "fuzz/check.h"
#include "host/accounts/account_document.h"

namespace {

using vexa::base::AccountDocument;
using vexa::fuzz::Check;

void CheckUnderstood(const AccountDocument& document) {
  std::set<std::string> groups;
  std::set<std::uint32_t> gids;
  const auto check_id = [&](std::uint32_t id) {
    const bool is_ours = id >= vexa::base::kFirstOwnId && id <= vexa::base::kLastOwnId;
    Check(!is_ours || id < document.next_id, "the next id is above all that were given");
  };
  for (const vexa::base::Group& group : document.groups) {
    Check(vexa::base::IsValidAccountName(group.name), "a group's name can be one");
    Check(groups.insert(group.name).second, "a group has the name alone");
    Check(gids.insert(group.gid).second, "a group has the id alone");
    check_id(group.gid);
  }
  std::set<std::string> names;
  std::set<std::uint32_t> uids;
  for (const vexa::base::AccountRecord& user : document.users) {
    Check(vexa::base::IsValidAccountName(user.name), "a user's name can be one");
    Check(names.insert(user.name).second, "a user has the name alone");
    Check(uids.insert(user.uid).second, "a user has the id alone");
    Check(gids.contains(user.gid), "a user's primary group exists");
    for (const std::string& group : user.groups) Check(groups.contains(group), "a user's groups exist");
    check_id(user.uid);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto document = vexa::base::ParseAccounts(vexa::fuzz::Text(data, size));
  if (document.ok()) {
    CheckUnderstood(*document);
    return 0;
  }
  Check(document.error().code() == vexa::ErrorCode::kCorrupt, "what is not understood is kCorrupt");
  Check(!document.error().cause().empty(), "there is a reason");
  return 0;
}
