// Building requests to hosts, reading compound replies, and logging failed ones. Internal to this library.
#pragma once

#include <json/value.h>

#include <initializer_list>

#include "webapi/platform/ccc_senders.h"
#include "webapi/platform/dr.h"

namespace VexaVirtualization::transport {

// Returns a request without parameters, version 1.
VexaDRCore::Request NewRequest(const char* api, const char* method);

// Returns an item of a compound request, version 1. The caller adds the API's own parameters as members.
Json::Value NewItem(const char* api, const char* method);
// As above, with the parameter "resource", an array of names.
Json::Value NewItem(const char* api, const char* method, std::initializer_list<const char*> resources);

// Returns one request for all `items`, an array. The data of the reply has one entry per item, in the same order.
VexaDRCore::Request NewCompoundRequest(const Json::Value& items);

// The data of the item at `index` in the data of a reply to a compound request; null when the reply does not have the
// item. Whether the item succeeded is not checked. The reference is valid as long as `data`.
const Json::Value& ItemData(const Json::Value& data, Json::ArrayIndex index);

// Whether a reply is complete: it succeeded, no item of a compound request failed, and it has data.
bool IsCompleteReply(const VexaDRCore::Response& response);

// Writes "Bad response" with the reply and the request to the system log. `position` is the caller's __LINE__ or a
// fixed position that log monitors match; `unit` is the caller's source unit.
void LogBadResponse(int priority, int position, const VexaDRCore::Response& response,
                    const VexaDRCore::Request& request, const char* unit = "utils");

}  // namespace VexaVirtualization::transport
