// Records that administrators add under names of their own: images and repositories. No two records of a category have
// the same id or name.
//
//   /dash/<category>/<id>/object   {"name": …, …}
//   /name/<category>/<name>        the id of the record with this name
//
// A scan of the records decides whether a name is taken, because records of older versions have no key of their name.
// The commit that adds a record also writes the key of its name, and compares that no other writer has written the key
// since the scan. Of several concurrent additions of one name, one commits; the others plan again and find its record.
//
// An addition also writes the missing keys of other records' names, with compares of these records, so that from the
// first addition on every name is protected by its key. A counter of the category would not need that, but would make
// all concurrent additions conflict, whatever their names are.
// Threads and hosts: any, at the same time.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/records/object_edit.h"
#include "host/store/store.h"
#include "webapi/error_codes.h"

namespace vexa::records {

// Error codes of replies about these records, beside host_error::kNotFoundOrUnreadable (there is no such record).
using user_error::kRecordExists;
using user_error::kRecordFailed;
using user_error::kRecordInUse;

inline constexpr std::size_t kMaxRecordName = 128;

// Whether `text` can be a record's name: 1 to kMaxRecordName bytes of UTF-8 without control characters.
bool IsRecordName(std::string_view text);

struct NamedRecord {
  std::string id;
  store::Revision revision = 0;
  Json::Value record{Json::objectValue};  // an empty object when what is stored is not an object
  std::string name;                       // "" when it has none
};

// The record's name, or its id without one, for messages: one line of at most kMaxRecordName bytes.
std::string DisplayName(const NamedRecord& record);

// All records of the category, in the order of their ids. Errors: those of the store.
Result<std::vector<NamedRecord>> ReadNamedRecords(const store::Snapshot& snapshot, std::string_view category);

// Not set: there is no record with this id. Errors: those of the store.
Result<std::optional<NamedRecord>> ReadNamedRecord(const store::Snapshot& snapshot, std::string_view category,
                                                   std::string_view id);

// Adds to `transaction` the operations and compares that create the record `added`. Its name must satisfy IsRecordName.
// `all` are the records in the same snapshot, none of which may have its id or name. Errors: those of the store.
Status AddNamedRecord(const store::Snapshot& snapshot, std::string_view category, const std::vector<NamedRecord>& all,
                      const NamedRecord& added, store::Transaction& transaction);

// Adds to `transaction` the operations and compares that remove the record with all its keys. Errors: those of the
// store.
Status RemoveNamedRecord(const store::Snapshot& snapshot, std::string_view category, const NamedRecord& removed,
                         store::Transaction& transaction);

// Gives the record with this id another name, which satisfies IsRecordName and no other record of the category has.
// Sets `old_name` to its display name before, or to "" when there is no such record. `kind` is for messages: "image".
// Refusals: kBadParameter (not a name), kNotFoundOrUnreadable, kRecordExists, kRecordFailed (also: it is damaged).
Result<void, Refusal> RenameRecord(store::Store& store, std::string_view category, std::string_view kind,
                                   const std::string& id, const std::string& new_name, std::string& old_name);

// A list for messages: at most ten of `users`, separated by commas, then how many more there are: "'a', 'b' and 3
// more".
std::string FormatReferrers(const std::vector<std::string>& users);

// Commits the result of `plan`, a Result<store::Transaction>(const Reader&, std::optional<Refusal>&), for the
// latest state, and calls it again after a conflict. To refuse, the plan sets its second argument and returns an empty
// transaction. Returns the plan's refusal, or kRecordFailed when the plan or the store fails; nothing has changed then.
template <class Plan>
Result<void, Refusal> CommitRecord(store::Store& store, const Plan& plan) {
  std::optional<Refusal> refused;
  const Status committed = CommitWithRetry(store, [&](const Reader& reader) {
    refused.reset();
    return plan(reader, refused);
  });
  if (!committed) return Refusal{kRecordFailed, committed.error().ToString()};
  return OkUnless(std::move(refused));
}

}  // namespace vexa::records
