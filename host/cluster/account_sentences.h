// Sentences for the logs about changes of accounts.
#pragma once

#include <string>

#include "host/cluster/account_store.h"

namespace vexa::cluster {

// That the user has been added: with all rights, never with the password.
std::string UserAddedSentence(const AccountStore::NewUser& user);

}  // namespace vexa::cluster
