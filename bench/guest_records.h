// Records of the size that an import writes.
#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

#include "host/store/store.h"

namespace vexa::bench {

// `kind` keeps the ids of guests (0), disks (1) and network interfaces (2) apart.
std::string Id(unsigned kind, int number);

// Without disks and network interfaces; shut down.
Json::Value GuestRecord(int number);
Json::Value DiskRecord(const std::string& guest_id, int number);
Json::Value NicRecord(const std::string& guest_id);

store::Operation Put(std::string_view category, const std::string& id, const Json::Value& record);

}  // namespace vexa::bench
