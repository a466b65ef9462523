// The well-known names of record members, interned so that records share them instead of each holding a copy.
#pragma once

#include <string_view>

namespace vexa::records {

// `name` as a string that is never freed, if it is a well-known name; otherwise null. For ParseJson: records become
// smaller and are copied faster. Threads: any, at the same time.
const char* InternedName(std::string_view name);

}  // namespace vexa::records
