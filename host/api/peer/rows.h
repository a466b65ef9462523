// The parts of ServiceRows, and helpers that their handlers share. For host/api/peer only.
#pragma once

#include <string_view>
#include <vector>

#include "host/api/peer/services.h"
#include "host/api/rows.h"
#include "host/base/error_table.h"

namespace vexa::services {

// A row for other hosts, version 1; `errors` are its own codes, in addition to the common ones.
webapi::ApiRow HostRow(std::string_view api, std::string_view method, webapi::LaneKind lane, webapi::Handler handler,
                       std::string_view summary, std::vector<webapi::Parameter> parameters = {},
                       std::vector<int> errors = {});

// The requester, in a call by another host. guest_power_api.cpp
guests::Requester RequesterOf(const webapi::Call& call);

// Nothing is started on a guest while the cluster database cannot be read, because it could not be stored. Empty when
// it can be read, and without a store.
guests::Refused RefusedByDatabase(const store::Store* store);  // guest_power_api.cpp

std::vector<webapi::ApiRow> UtilizationRows(const ServiceParts& parts);  // utilization_api.cpp
std::vector<webapi::ApiRow> SystemRows(const ServiceParts& parts);       // system_api.cpp
std::vector<webapi::ApiRow> VolumeRows(const ServiceParts& parts);       // volume_api.cpp
std::vector<webapi::ApiRow> NetworkRows(const ServiceParts& parts);      // network_api.cpp
std::vector<webapi::ApiRow> GuestReportRows(const ServiceParts& parts);  // guest_report_api.cpp
std::vector<webapi::ApiRow> GuestPowerRows(const ServiceParts& parts);   // guest_power_api.cpp
std::vector<webapi::ApiRow> GuestSetRows(const ServiceParts& parts);     // guest_set_api.cpp
std::vector<webapi::ApiRow> PollTaskRows(const ServiceParts& parts);     // poll_task_api.cpp

}  // namespace vexa::services
