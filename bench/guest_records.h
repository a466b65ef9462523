// Records of guests, disks and network interfaces, with the size that an import writes.
#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

#include "host/store/store.h"

namespace vexa::bench {

// A valid id; `kind` makes the ids of guests (0), disks (1), network interfaces (2) and others different.
std::string Id(unsigned kind, int number);

// A guest that is shut down, without disks and network interfaces.
Json::Value GuestRecord(int number);
Json::Value DiskRecord(const std::string& guest_id, int number);
Json::Value NicRecord(const std::string& guest_id);

// The operation that stores the record of an object, such as "guest".
store::Operation Put(std::string_view category, const std::string& id, const Json::Value& record);

}  // namespace vexa::bench
