// The well-known names of record members, interned so that they take no memory in each record.
#pragma once

#include <string_view>

namespace vexa::cluster {

// `name` as a text that is never freed, if it is a common name in records; otherwise null. For ParseJson: records
// become smaller and are copied faster.
const char* SharedName(std::string_view name);

}  // namespace vexa::cluster
