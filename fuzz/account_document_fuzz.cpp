// The text of the account file: what is understood refers to nothing missing, and is the same when it is written and
// read again.
#include <set>
#include <string>

#include "fuzz/check.h"
#include "host/base/account_document.h"

namespace {

using vexa::base::AccountDocument;
using vexa::fuzz::Check;

void CheckUnderstood(AccountDocument& document) {
  std::set<std::uint32_t> uids;
  for (const vexa::base::AccountRecord& user : document.users) {
    Check(vexa::base::IsValidAccountName(user.name), "a user's name can be one");
    Check(document.FindUser(user.name) == &user, "a user has the name alone");
    Check(uids.insert(user.uid).second && document.HasUid(user.uid), "a user has the id alone");
    Check(document.FindGroupByGid(user.gid) != nullptr, "a user's primary group exists");
    for (const std::string& group : user.groups) Check(document.FindGroup(group) != nullptr, "a user's groups exist");
  }
  for (const vexa::base::Group& group : document.groups) {
    Check(document.FindGroup(group.name) == &group, "a group has the name alone");
    Check(document.FindGroupByGid(group.gid) == &group, "a group has the id alone");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto document = vexa::base::ParseAccounts(vexa::fuzz::Text(data, size));
  if (!document.ok()) {
    Check(document.error().code() == vexa::ErrorCode::kCorrupt, "what is not understood is kCorrupt");
    Check(!document.error().cause().empty(), "there is a reason");
    return 0;
  }
  CheckUnderstood(*document);
  const std::string text = vexa::base::RenderAccounts(*document);
  const auto again = vexa::base::ParseAccounts(text);
  Check(again.ok(), "what is written is understood");
  Check(vexa::base::RenderAccounts(*again) == text, "what is written means the same");
  if (const auto id = document->TakeId(); id.ok()) {
    Check(!document->HasUid(*id) && document->FindGroupByGid(*id) == nullptr, "a new id is nobody's");
  }
  return 0;
}
