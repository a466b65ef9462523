// The account file: in an accepted one, all referenced groups exist, and names and ids are unique.
#include <set>
#include <string>

#include "fuzz/check.h"
#include "host/accounts/account_document.h"

namespace {

using vexa::accounts::AccountDocument;
using vexa::fuzz::Check;

void CheckParsed(const AccountDocument& document) {
  std::set<std::string> groups;
  std::set<std::uint32_t> gids;
  const auto check_id = [&](std::uint32_t id) {
    const bool is_assigned_id = id >= vexa::accounts::kFirstAssignedId && id <= vexa::accounts::kLastAssignedId;
    Check(!is_assigned_id || id < document.next_id, "the next id is greater than all assigned ones");
  };
  for (const vexa::accounts::Group& group : document.groups) {
    Check(vexa::accounts::IsValidAccountName(group.name), "a group's name is valid");
    Check(groups.insert(group.name).second, "names of groups are unique");
    Check(gids.insert(group.gid).second, "ids of groups are unique");
    check_id(group.gid);
  }
  std::set<std::string> names;
  std::set<std::uint32_t> uids;
  for (const vexa::accounts::AccountRecord& user : document.users) {
    Check(vexa::accounts::IsValidAccountName(user.name), "a user's name is valid");
    Check(names.insert(user.name).second, "names of users are unique");
    Check(uids.insert(user.uid).second, "ids of users are unique");
    Check(gids.contains(user.gid), "a user's primary group exists");
    for (const std::string& group : user.groups) Check(groups.contains(group), "a user's groups exist");
    check_id(user.uid);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto document = vexa::accounts::ParseAccounts(vexa::fuzz::Text(data, size));
  if (document.ok()) {
    CheckParsed(*document);
    return 0;
  }
  Check(document.error().code() == vexa::ErrorCode::kCorrupt, "an unreadable document is kCorrupt");
  Check(!document.error().cause().empty(), "an error has a reason");
  return 0;
}
