// The public interface of the shared layer: states, look-ups, permissions, high availability, requests to hosts.
//
// Threads: every function may be called from any number of threads concurrently.
#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "webapi/platform/ccc.h"
#include "webapi/platform/dr.h"
#include "webapi/platform/webapi.h"
#include "webapi/utils/export.h"

namespace VexaVirtualization {

// States. The platform reports an object's state as one of the constants in VexaCCC::State. The user interface displays
// a state name of its own and a severity: "healthy", "warning" or "error".

// The kind of object whose state is looked up.
enum STATE_CATE : int {
  STATE_CATE_NONE = 0,  // ends a table
  STATE_CATE_HOST = 1,
  STATE_CATE_VERSION = 2,  // of a host
  STATE_CATE_REPOSITORY = 3,
  STATE_CATE_GUEST = 4,
  STATE_CATE_VDISK = 5,
  STATE_CATE_HA_GROUP = 7,
};

struct VirtualizationState {
  STATE_CATE cate;
  std::string state;
  std::string ui_state;
  std::string type;    // the severity
  std::string detail;  // returned by the five-argument GetStateType unless empty
};

// Which of a host's two states determines how the host is displayed.
struct HostState {
  std::string host_state;
  std::string version_state;
  STATE_CATE cate;
};

// The state of one object as the user interface displays it.
struct UIState {
  std::string state;
  std::string type;  // the severity
};

// Initialized when the library is loaded, then constant. The first two end with a row of STATE_CATE_NONE.
VEXA_EXPORT extern const VirtualizationState StateTable[46];
VEXA_EXPORT extern const HostState HostStateTable[23];
VEXA_EXPORT extern const std::string VersionStatePriorityTable[5];  // lowest priority first

// The category that determines how a host in these states is displayed: 1 (host) or 2 (version), or 0 when the pair of
// states is unknown.
VEXA_EXPORT int GetHostStateCate(const std::string& host_state, const std::string& version_state);

// Returns -1, 0 or 1 when the priority of `a` is lower than, equal to or higher than that of `b`. Unknown states have
// the lowest priority.
VEXA_EXPORT int CompareVersionStatePriority(const std::string& a, const std::string& b);

// Maps a platform state to what is displayed for it. An unknown state is displayed unchanged, with the severity
// "error". `detail` is changed only if the table has one.
VEXA_EXPORT void GetStateType(const STATE_CATE& cate, const std::string& state, std::string& ui_state,
                              std::string& type, std::string& detail);
VEXA_EXPORT void GetStateType(const STATE_CATE& cate, const std::string& state, std::string& ui_state,
                              std::string& type);
VEXA_EXPORT void GetStateType(const STATE_CATE& cate, const std::string& state, UIState& ui);

// States of guests. `record` is the guest's record; `connected` comes from GetGuestsConnectedMap.

// Whether the cluster database is usable. It counts as usable when its status cannot be loaded.
VEXA_EXPORT bool IsDashboardReady();

// The state of a guest while the cluster is frozen: only a guest whose repository and host are both this host keeps its
// live state.
VEXA_EXPORT void GetGuestStateFreeze(const Json::Value& record, const std::string& guest_id, std::string& state);

// The state of a host while the cluster is frozen: running if it is reachable, otherwise inaccessible.
VEXA_EXPORT std::string GetHostFreezeState(const std::string& host_id);

// What is displayed for a guest. `state` is its raw state, and is replaced when the cluster is frozen or the guest's
// repository is lost. `reason` is set when there is one and never cleared.
VEXA_EXPORT void GetGuestStateType(const Json::Value& record, const std::map<std::string, int>& connected,
                                   const std::string& guest_id, std::string& state, std::string& ui_state,
                                   std::string& type, std::string& reason);
VEXA_EXPORT void GetGuestStateType(const Json::Value& record, const std::map<std::string, int>& connected,
                                   const std::string& guest_id, std::string& state, std::string& ui_state,
                                   std::string& type);
// As above, with the raw state from the record.
VEXA_EXPORT void GetGuestStateType(const Json::Value& record, const std::map<std::string, int>& connected,
                                   const std::string& guest_id, std::string& ui_state, std::string& type);

// Maps every guest of the cluster to a bit mask of its network interfaces that have a link. Bit i is the interface at
// position i of the guest's list, modulo 32. Returns false, with `connected` empty, when the hosts, guests or
// interfaces cannot be listed. Queries every host.
VEXA_EXPORT bool GetGuestsConnectedMap(std::map<std::string, int>& connected);

// Names, ids and lists.

// Returns 0 when the name is free, 406 when it is in use, 403 when this cannot be determined. Logs one line unless the
// name is free.
VEXA_EXPORT int CheckNameConflict(const std::string& name, const VexaCCC::DB::DashCate& cate);

// Replaces `names` with an array of one name per id, in the same order; "unknown" for an unknown host.
VEXA_EXPORT void GetHostNamesByIds(const std::vector<std::string>& ids, Json::Value& names);

// Return false, with `name` unchanged, when there is no such object or its name cannot be read.
VEXA_EXPORT bool GetRepoNameById(const std::string& id, std::string& name);
VEXA_EXPORT bool GetGuestNameById(const std::string& id, std::string& name);

// Whether the array or vector contains the string `s`.
VEXA_EXPORT bool IsContain(const Json::Value& array, const std::string& s);
VEXA_EXPORT bool IsContain(const std::vector<std::string>& v, const std::string& s);

// Joins the strings with `sep`. No separator is added while the result is still empty, so leading empty strings leave
// no separator. JoinJsArray returns "" unless all elements are strings.
VEXA_EXPORT std::string JoinJsArray(const Json::Value& array, const std::string& sep);
VEXA_EXPORT std::string JoinVecString(const std::vector<std::string>& v, const std::string& sep);

// `a` followed by the elements of `b`.
VEXA_EXPORT Json::Value ConcatJsonArray(const Json::Value& a, const Json::Value& b);

// Appends {"host_id"} for every host. Returns 0, or 403 when the hosts cannot be listed; `hosts` is unchanged then.
VEXA_EXPORT int GetAllHosts(Json::Value& hosts);

// Maps the names of a category's objects to their ids. If several objects have the same name, the last one wins.
// Returns 0, or the result of a failed listing. The map is empty when the listing fails, and also when the names cannot
// be read, which is not reported as a failure.
VEXA_EXPORT int GetCateNameToIdMap(const VexaCCC::DB::DashCate& cate, std::map<std::string, std::string>& name_to_id);

// Returns 0, -1 when the objects cannot be listed, or -2 when no object has that name; `id` is set only on 0.
VEXA_EXPORT int GetIdByName(const VexaCCC::DB::DashCate& cate, const std::string& name, std::string& id);

// High availability.

// Evaluates the hosts of a group. `ha`["hosts"] is the list of hosts and `warn` the group's warnings. `reason` becomes
// the keyword of the first warning, or "". One record per host is appended to `hosts`, which must be an array;
// otherwise nothing changes and one line is logged.
VEXA_EXPORT void GetHAWarnReason(const Json::Value& ha, const Json::Value& warn, std::string& reason,
                                 Json::Value& hosts);

// What is displayed for a guest's high-availability group. `guest` is the guest's record; `info`["ha"] is the `ha`
// argument of GetHAWarnReason, and is removed from `info`. Nothing else changes when the guest is not in a group, or
// the group's state cannot be read.
VEXA_EXPORT void GetGuestHAStateType(const Json::Value& guest, Json::Value& info, std::string& ui_state,
                                     std::string& type, std::string& reason);

// Permissions.

// Whether the caller is a system administrator or an advanced user of the cluster. Returns false when the platform
// fails.
VEXA_EXPORT bool IsAdminOrAdvancedUser(VEXA::APIRequest* request);

// Whether the caller may access the guest. Administrators may access any id. Other users need a grant of exactly this
// id, given to them or to one of their groups; being an advanced user is not enough. Returns false when the platform
// fails.
VEXA_EXPORT bool IsGuestPermitted(VEXA::APIRequest* request, const std::string& guest_id);

// Grants a guest to an advanced user: to the user's own record if it is advanced, otherwise to that of the first of
// their groups that is. Returns 0, or -1 with one line logged; nothing has changed then.
VEXA_EXPORT int AdvancedUserAddGuest(const std::string& user, const std::string& guest_id);

// The number of advanced users and groups that have the guest, or -1 with one line logged.
VEXA_EXPORT int GetGuestAdvUserCount(const std::string& guest_id);

// Requests to hosts. Every call waits for the reply. Unless noted otherwise, when a single queried host fails or its
// reply is incomplete, the output is unchanged and one line is logged.

// Whether a reply has a true "has_fail" at its top level: an item of a compound request failed.
VEXA_EXPORT bool HasFail(const VexaDRCore::Response& response);

// A host's load: its reply for the resources in `params`["resource"], with "memory" (KiB) replaced by the value that
// the host reports as a member of the cluster.
VEXA_EXPORT bool GetSysUtilization(const std::string& host, const Json::Value& params, Json::Value& out);

// A host's model, serial number, processor, memory, uptime and version.
VEXA_EXPORT bool GetSysInfo(const std::string& host, Json::Value& out);

// A volume of a host. Every member of `params` becomes a parameter of the request.
VEXA_EXPORT bool GetVolumeInfo(const std::string& host, const Json::Value& params, Json::Value& out);

// The disks of a guest: {"size", "used"} for each disk id, and "total_size" and "total_used", in bytes as the host
// reports them. On failure both totals are 0, and the failure is logged with debug priority.
VEXA_EXPORT void GetVdiskUsage(const std::string& guest_id, const std::string& host, Json::Value& out);

// "speed" (Mb/s) and "status" of a network interface. An interface with "bond" in its name is queried as a bond. Logs
// nothing.
VEXA_EXPORT bool GetNetStat(std::string host, std::string ifname, Json::Value& out);

// Adds to `out`, an object keyed by host id, the addresses of each reachable host and, with `with_usage`, its free
// resources. Unreachable hosts are skipped silently. Returns 0, or 403 when a host's record cannot be read; earlier
// additions stay.
VEXA_EXPORT int GetHostResourceInfo(bool with_usage, Json::Value& out);

// Percent of the processor in use, or -1 when the load is missing.
VEXA_EXPORT int GetCpuUsage(const Json::Value& utilization);

// Free memory in the unit of `utilization`. The sum wraps around at 32 bits.
VEXA_EXPORT int GetFreeRamSize(const Json::Value& utilization);

// The memory in the host's record, or 0.
VEXA_EXPORT int GetHostTotalMemory(const std::string& host_id);

// Appends to `out` the network interfaces of all reachable hosts, each with "interface_id" and "host_id". Interfaces
// that are not in the host's record are skipped.
VEXA_EXPORT void GetAllInterfaceInfo(Json::Value& out);

// The name of a host's network interface, without the virtual switch's prefix. Returns false, with `name` unchanged,
// when there is no such interface.
VEXA_EXPORT bool GetInterfaceNameById(const std::string& host_id, const std::string& interface_id, std::string& name);

// Returns 0, with `err` unchanged, when no guest uses `mac`. Otherwise returns -1, and `err` becomes {"mac_addr", and
// "guest_name" if it is known}.
VEXA_EXPORT int MacAddrCheck(const std::string& mac, Json::Value& err);

// Appends a network interface with a newly generated MAC address to `vnics`. Returns 0, or -1 when no address could be
// generated.
VEXA_EXPORT int GetDefaultVnic(Json::Value& vnics);

// Result of a check before a power-on. May have any value that a host sends.
enum VMCHECK : int {
  VMCHECK_USABLE = 100,
  VMCHECK_NO_CPU_THREADS = 301,
  VMCHECK_NO_RAM = 302,
  VMCHECK_NO_NETWORK = 305,
  VMCHECK_HOST_OFFLINE = 307,
  VMCHECK_NO_CPU_THREADS_FOR_RESERVATION = 310,
  VMCHECK_EFI_ENABLED = 311,
  VMCHECK_CPU_COMPATIBLE_MODE_REQUIRED = 312,
  VMCHECK_HARDWARE_INCOMPATIBLE = 401,
  VMCHECK_SRIOV_ENABLED = 402,
};

// The keyword of a check result; "unknown[<number>]" for values without one.
VEXA_EXPORT std::string GetVMCheckText(const VMCHECK& check);

// Adds a message to `errors`, an object keyed by error code: {"<code>": ["<messages>"]}. Messages with the same code
// are joined by ", ". The second form keeps two texts per code; an empty one is not appended to an existing text.
// Changes nothing and logs one line when `errors` is neither an object nor null, or the code's member is not an array.
VEXA_EXPORT void AppendError(const std::string& message, int code, Json::Value& errors);
VEXA_EXPORT void AppendError(const std::string& message, const std::string& second, int code, Json::Value& errors);

// Asks the local host whether the guest's repository can be used. Returns 0 with `check` set, 407 when the host runs a
// version that does not support this check, or 404 on any other failure.
VEXA_EXPORT int CheckGuestRepoCap(const std::string& guest_id, VMCHECK& check);

// Asks a host to forget a polling task. Returns 0 or -1.
VEXA_EXPORT int ClearPollTaskOnHost(const std::string& host_id, const std::string& task_id);

}  // namespace VexaVirtualization
