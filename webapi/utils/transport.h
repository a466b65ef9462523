// How requests to hosts are built, and how errors in replies are reported. For this library only.
#pragma once

#include <json/value.h>

#include <initializer_list>

#include "webapi/platform/ccc_senders.h"
#include "webapi/platform/dr.h"

namespace VexaVirtualization::transport {

// A request without parameters, version 1.
VexaDRCore::Request NewRequest(const char* api, const char* method);

// An item of a compound request, version 1; the API's own parameters are more members.
Json::Value NewItem(const char* api, const char* method);
// The same with the parameter "resource", an array of names.
Json::Value NewItem(const char* api, const char* method, std::initializer_list<const char*> resources);

// Asks for all `items`, an array, in one request. The data of the reply has one entry per item, in the same order.
VexaDRCore::Request NewCompoundRequest(const Json::Value& items);

// The payload of the item at `index` in the data of a reply to a compound request; null when there is none. Whether the
// item succeeded is not looked at. The reference lives as long as `data`.
const Json::Value& ItemData(const Json::Value& data, Json::ArrayIndex index);

// Whether one of the replies of a multi-send can be read: it succeeded, no part of it failed, and it has data.
bool IsWholeReply(const VexaDRCore::Response& response);

// Writes "Bad response" with the reply and the request to the system log. `position` is the caller's __LINE__, or what
// log watchers know the line by; `unit` is the caller's source unit.
void LogBadResponse(int priority, int position, const VexaDRCore::Response& response,
                    const VexaDRCore::Request& request, const char* unit = "utils");

}  // namespace VexaVirtualization::transport
