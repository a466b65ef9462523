// Records whose well-known member names take no memory of their own.
#pragma once

#include <json/value.h>

namespace vexa::cluster {

// An equal value. Names that records usually have, at its root, are shared by all copies and never freed, so that a
// record takes less memory and is copied faster.
Json::Value WithSharedNames(Json::Value&& record);

}  // namespace vexa::cluster
