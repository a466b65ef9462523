// The well-known names of records' members, so that they take no memory in each record.
#pragma once

#include <string_view>

namespace vexa::cluster {

// `name` as a text that is never freed, when records usually have it; else null. For ParseJson: records are smaller and
// copied faster.
const char* SharedName(std::string_view name);

}  // namespace vexa::cluster
