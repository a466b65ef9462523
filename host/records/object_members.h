// The members of an object of the dashboard: "/dash/<category>/<id>/<key…>". A record is stored under the key "object";
// a member that is written separately has a key of its own, which overrides the record's member. States are returned
// as they are in effect: a guest's live state, and "inaccessible" when the responsible host is gone (host_liveness.h).
// Threads: any, with a reader each.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/records/reader.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {

// The value of `key`; the whole record for "object". Not set: absent. Errors: those of the store, and kCorrupt.
Result<std::optional<Json::Value>> ReadMember(const Reader& reader, const VexaCCC::DB::DashCate& category,
                                              const std::string& id, const std::string& key);

// The same for a string; a value of another type counts as absent.
Result<std::optional<std::string>> ReadText(const Reader& reader, const VexaCCC::DB::DashCate& category,
                                            const std::string& id, const std::string& key);

// The same; "" when it is absent or cannot be read.
std::string ReadStringOrEmpty(const Reader& reader, const VexaCCC::DB::DashCate& category, const std::string& id,
                              const std::string& key);

}  // namespace vexa::records
