#include "host/accounts/current_accounts.h"

#include <utility>

namespace vexa::accounts {
namespace {

std::shared_ptr<const AccountProvider> installed;

}  // namespace

void InstallAccounts(std::shared_ptr<const AccountProvider> accounts) { installed = std::move(accounts); }

const AccountProvider* CurrentAccounts() { return installed.get(); }

}  // namespace vexa::accounts
