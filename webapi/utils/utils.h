// The shared layer's exported interface.
//
// Threads: every function may be called from any number of threads at once.
#pragma once

#include <json/value.h>

#include <string>

#include "webapi/platform/dr.h"
#include "webapi/platform/webapi.h"
#include "webapi/utils/export.h"

namespace VexaVirtualization {

// Whether the caller is a system administrator or an advanced user of the cluster. A platform failure is a plain no.
VEXA_EXPORT bool IsAdminOrAdvancedUser(VEXA::APIRequest* request);

// Whether the caller is an administrator, for any identifier, or has been granted the guest of exactly this identifier,
// themselves or by a group. Being advanced grants nothing by itself. A platform failure is a plain no.
VEXA_EXPORT bool IsGuestPermitted(VEXA::APIRequest* request, const std::string& guest_id);

// Requests to hosts. A host that is asked alone and answers with a failure, or without what is needed, leaves the
// output untouched and one line in the system log unless it says otherwise here. Every call waits for the host.

// Whether a host's reply says in its top-level "has_fail" that a part of a compound request failed.
VEXA_EXPORT bool HasFail(const VexaDRCore::Response& response);

// A host's load: the host's answer for `params`["resource"], with "memory" (KiB) as the cluster's member tells it.
VEXA_EXPORT bool GetSysUtilization(const std::string& host, const Json::Value& params, Json::Value& out);

// A host's model, serial number, processor, memory, uptime and version.
VEXA_EXPORT bool GetSysInfo(const std::string& host, Json::Value& out);

// A volume of a host; every member of `params` is a parameter.
VEXA_EXPORT bool GetVolumeInfo(const std::string& host, const Json::Value& params, Json::Value& out);

// The disks of a guest: per disk id {"size", "used"}, and "total_size" and "total_used", as the host reports them
// (bytes). On failure both totals are 0, and the line has debug priority.
VEXA_EXPORT void GetVdiskUsage(const std::string& guest_id, const std::string& host, Json::Value& out);

// "speed" (Mb/s) and "status" of a network interface. Names that contain "bond" are asked for as bonds. Logs nothing.
VEXA_EXPORT bool GetNetStat(std::string host, std::string ifname, Json::Value& out);

// Adds to `out` (an object keyed by host id, not emptied) how each answering host is reached and, with usage, what it
// has free. 0, or 403 when a host's record cannot be read: what was added before stays. Hosts that fail are left out
// silently.
VEXA_EXPORT int GetHostResourceInfo(bool with_usage, Json::Value& out);

// Percent of the processor in use, or -1 when the figures are missing.
VEXA_EXPORT int GetCpuUsage(const Json::Value& utilization);

// Free memory in the unit of `utilization`, in 32 bits: it wraps around.
VEXA_EXPORT int GetFreeRamSize(const Json::Value& utilization);

// The memory in the host's record, or 0.
VEXA_EXPORT int GetHostTotalMemory(const std::string& host_id);

// Appends to `out` every interface of every answering host that has a record, with "interface_id" and "host_id".
VEXA_EXPORT void GetAllInterfaceInfo(Json::Value& out);

// The name of a host's network interface, without the virtual switch's prefix. False, and `name` untouched: not found.
VEXA_EXPORT bool GetInterfaceNameById(const std::string& host_id, const std::string& interface_id, std::string& name);

// 0: no guest uses `mac`, and `err` is untouched. -1: `err` becomes {"mac_addr", "guest_name" when it is known}.
VEXA_EXPORT int MacAddrCheck(const std::string& mac, Json::Value& err);

// Appends a network interface with a new address to `vnics`. 0, or -1 when there is no address.
VEXA_EXPORT int GetDefaultVnic(Json::Value& vnics);

// What a check before a power-on found: 100 usable, others a reason. May hold any value that a host sends.
enum VMCHECK : int {
  VMCHECK_USABLE = 100,
};

// Whether the guest's repository can be used, as the local host tells. 0: `check` is set. 407: the host runs a version
// that does not know the question; 404: any other failure. `check` is untouched then.
VEXA_EXPORT int CheckGuestRepoCap(const std::string& guest_id, VMCHECK& check);

// Asks a host to forget a polling task. 0, or -1.
VEXA_EXPORT int ClearPollTaskOnHost(const std::string& host_id, const std::string& task_id);

}  // namespace VexaVirtualization
