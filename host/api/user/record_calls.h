// Shared by the methods about images, networks and repositories: they list, add and change named records.
#pragma once

#include <string>
#include <string_view>

#include "host/api/api_table.h"
#include "host/api/user/outcome_log.h"
#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::api {

// Whether `text` can be the id of a record. Ids of records may have been given by other programs.
bool IsId(const std::string& text);

// Responds that `what` cannot be listed. The reason is written to the system log, and returned to administrators.
void RespondListError(const Call& call, std::string_view what, const Error& error);

// Responds with the result of adding a record: {`id_member`: id}, or the refusal.
void RespondToAddition(const Call& call, const Result<void, Refusal>& done, const char* id_member,
                       const std::string& id);

// Changes one record and logs the outcome. `change` gets the id in the parameter `id_parameter`, and sets the record's
// name, or "" when that is unknown. `log` gets the name or, without one, the id.
void ChangeRecord(store::Store& store, const Call& call, const char* id_parameter,
                  Result<void, Refusal> change(store::Store& store, const std::string& id, std::string& name),
                  void log(const Call& call, Outcome outcome, const std::string& name));

struct RenamedKind {
  const char* category;
  const char* kind;  // for sentences: "image"
  const char* id_parameter;
};

// Gives the record in the parameter `id_parameter` the name in "name", and logs the outcome.
void RenameObject(store::Store& store, const Call& call, const RenamedKind& kind);

}  // namespace vexa::api
