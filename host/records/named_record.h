// Records that administrators add under names of their own: images and repositories. No two records of a category have
// the same id or name.
//
//   /dash/<category>/<id>/object   {"name": …, …}
//   /name/<category>/<name>        the id of the record with this name
//
// A scan of the records decides whether a name is taken, because records of older versions have no key of their name.
// The commit that adds a record also writes the key of its name, and compares that nobody else has written it since the
// scan. Of several additions of one name at the same time one commits; the others plan again, and find its record.
//
// An addition writes the missing keys of other names as well, with compares of their records, so that from the first
// addition on each name is protected by its key. A counter of the category would protect them without that, but it
// would make all additions at the same time conflict, whatever their names are.
// Threads: any, at the same time; hosts as well.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/error_table.h"
#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/records/object_edit.h"
#include "host/store/store.h"

namespace vexa::cluster {

// Codes of the reply, beside guests::kUnreadable: there is no such record.
inline constexpr int kRecordExists =
    webapi::kErrorRecordExists;  // another record has the id or the name, or is the same file
inline constexpr int kRecordInUse = webapi::kErrorRecordInUse;    // guests or disks name the record
inline constexpr int kRecordFailed = webapi::kErrorRecordFailed;  // the database could not be read or written

inline constexpr std::size_t kMaxRecordName = 128;

// Whether it can be a name: 1 to kMaxRecordName bytes of UTF-8 without control characters.
bool IsRecordName(std::string_view text);

struct NamedRecord {
  std::string id;
  store::Revision revision = 0;
  Json::Value record{Json::objectValue};  // an empty object when what is stored is not an object
  std::string name;                       // "" when it has none
};

// The record's name, else its id, fit to be shown: one line, and not too long.
std::string ShownName(const NamedRecord& record);

// All of the category, by id. Errors: what the store says.
Result<std::vector<NamedRecord>> ReadNamedRecords(const store::Snapshot& snapshot, std::string_view category);

// Not set: there is no record with this id. Errors: what the store says.
Result<std::optional<NamedRecord>> ReadNamedRecord(const store::Snapshot& snapshot, std::string_view category,
                                                   std::string_view id);

// Adds to `transaction` that `added`, whose name is one (IsRecordName), becomes a record. `all` are the records of the
// same snapshot; none of them has its id or name. Errors: what the store says.
Status AddNamedRecord(const store::Snapshot& snapshot, std::string_view category, const std::vector<NamedRecord>& all,
                      const NamedRecord& added, store::Transaction& transaction);

// Adds to `transaction` that the record is removed with all its keys. Errors: what the store says.
Status RemoveNamedRecord(const store::Snapshot& snapshot, std::string_view category, const NamedRecord& removed,
                         store::Transaction& transaction);

// The members of a sentence's list, of which at most ten are shown: "'a', 'b' and 3 more".
std::string ListOfUsers(const std::vector<std::string>& users);

// Commits what `plan`, a Result<store::Transaction>(const store::Snapshot&, guests::Refused&), makes of the current
// state, and asks it again after a conflict. A plan that refuses returns an empty transaction. Nothing has changed
// after a refusal: the plan's, or kRecordFailed.
template <class Plan>
guests::Refused CommitRecord(store::Store& store, const Plan& plan) {
  RequestScope::ReleaseSnapshot();
  guests::Refused refused;
  const Status committed = CommitPlanned(store, [&]() -> Result<store::Transaction> {
    refused.reset();
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    return plan(**snapshot, refused);
  });
  if (!committed) return guests::Refusal{kRecordFailed, committed.error().ToString()};
  return refused;
}

}  // namespace vexa::cluster
