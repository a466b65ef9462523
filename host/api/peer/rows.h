// The functions that make the rows of ServiceRows, and helpers that their handlers share. For host/api/peer only.
#pragma once

#include <string_view>
#include <vector>

#include "host/api/peer/services.h"
#include "host/api/rows.h"

namespace vexa::api {

// The requester of a call by another host. guest_power_api.cpp
guests::Requester RequesterOf(const Call& call);

// Refuses operations on guests while the cluster database cannot be read, because their results could not be stored.
// Success when it can be read, and without a store.
Result<void, Refusal> CheckDatabaseReadable(const store::Store* store);  // guest_power_api.cpp

std::vector<ApiRow> UtilizationRows(const ServiceParts& parts);    // utilization_api.cpp
std::vector<ApiRow> SystemRows(const ServiceParts& parts);         // system_api.cpp
std::vector<ApiRow> VolumeRows(const ServiceParts& parts);         // volume_api.cpp
std::vector<ApiRow> NetworkRows(const ServiceParts& parts);        // network_api.cpp
std::vector<ApiRow> GuestReportRows(const ServiceParts& parts);    // guest_report_api.cpp
std::vector<ApiRow> GuestPowerRows(const ServiceParts& parts);     // guest_power_api.cpp
std::vector<ApiRow> GuestConsoleRows(const ServiceParts& parts);   // guest_console_api.cpp
std::vector<ApiRow> GuestCreationRows(const ServiceParts& parts);  // guest_creation_api.cpp
std::vector<ApiRow> GuestImportRows(const ServiceParts& parts);    // guest_import_api.cpp
std::vector<ApiRow> GuestSetRows(const ServiceParts& parts);       // guest_set_api.cpp
std::vector<ApiRow> GuestLiveRows(const ServiceParts& parts);      // guest_live_api.cpp
std::vector<ApiRow> PollTaskRows(const ServiceParts& parts);       // poll_task_api.cpp
std::vector<ApiRow> CertificateRows(const ServiceParts& parts);    // certificate_api.cpp

}  // namespace vexa::api
