#include "host/cluster/account_sentences.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace vexa::cluster {

std::string UserAddedSentence(const AccountStore::NewUser& user) {
  std::string sentence = fmt::format("The user [{}] has been added", user.name);
  if (!user.groups.empty()) sentence += fmt::format(", with the groups [{}]", fmt::join(user.groups, ", "));
  if (user.level == AccountStore::Level::kAdvanced) sentence += ", as an advanced user";
  return sentence + ".";
}

}  // namespace vexa::cluster
