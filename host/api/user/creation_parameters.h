// The parameters with which users create a guest, and what they are between hosts: names become ids.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "host/api/api_table.h"
#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::api {

// Of the row of "create" for users.
std::vector<Parameter> CreationParameters();

// Those members of `parameters` that CreationParameters() has.
Json::Value KnownCreationParameters(const Json::Value& parameters);

struct HostCreation {
  Json::Value parameters{Json::objectValue};  // of "create" between hosts, but for grants and the request's number
  std::string repository_host_id;             // where the guest is to be created
  bool chooses_host = false;                  // the caller left the host open; so far it is that of the repository
};

// `parameters` is an object. `own_host_id` is this host, whose repositories come first. Refusals, as users get them:
// 401 with the parameter's name; 403 (no such repository, host, image or network, or it cannot be read); 919; 934.
Result<HostCreation, Refusal> TranslateCreation(const store::Snapshot& snapshot, const Json::Value& parameters,
                                                const std::string& own_host_id);

}  // namespace vexa::api
