// The parameters of a creation, parsed and checked as far as that is possible without records.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/base/refusal.h"
#include "host/cluster/grants.h"
#include "host/guests/creation/request_record.h"
#include "host/guests/edit/edit_request.h"

namespace vexa::guests {

inline constexpr std::size_t kMaxNewGrants = 256;

// The member of a guest's record with its numbered request, {"owner", "id"}, while the guest is being created.
inline constexpr char kCreationRequest[] = "creation_request";

struct CreationRequest {
  EditRequest edit;  // of the new guest
  std::string name;
  std::string repository_id;
  std::string host_id;  // "": the guest gets no host
  std::vector<cluster::GrantPrincipal> grants;
  std::optional<NumberedRequest> number;  // not set: the client did not number the request
};

// `parameters` has those of the method "create" between hosts (docs/services.md). Refusals: those of ParseEdit, each
// with the name of the parameter.
std::variant<CreationRequest, Refusal> ParseCreation(const Json::Value& parameters);

}  // namespace vexa::guests
