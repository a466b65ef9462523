// The shared layer's exported interface.
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

// States. The platform reports the state of an object as a constant of VexaCCC::State; the user interface shows a word
// and a severity: "healthy", "warning" or "error".

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
  std::string detail;  // what the five-argument GetStateType hands out when it is not empty
};

// Which of its two states decides how a host is shown.
struct HostState {
  std::string host_state;
  std::string version_state;
  STATE_CATE cate;
};

// What the user interface shows of one object.
struct UIState {
  std::string state;
  std::string type;  // the severity
};

// Filled when the library is loaded and never changed. The first two end with a row of category 0.
VEXA_EXPORT extern const VirtualizationState StateTable[46];
VEXA_EXPORT extern const HostState HostStateTable[23];
VEXA_EXPORT extern const std::string VersionStatePriorityTable[5];  // in rising priority

// 1 (host) or 2 (version): the category that decides how a host in these states is shown; 0: none does.
VEXA_EXPORT int GetHostStateCate(const std::string& host_state, const std::string& version_state);

// -1, 0 or 1: `a` ranks below, with or above `b`. A state that is not in the table ranks below all others.
VEXA_EXPORT int CompareVersionStatePriority(const std::string& a, const std::string& b);

// What is shown for a state. One that the table does not have is shown as it is, with the severity "error". `detail`
// keeps what it holds unless the table has one.
VEXA_EXPORT void GetStateType(const STATE_CATE& cate, const std::string& state, std::string& ui_state,
                              std::string& type, std::string& detail);
VEXA_EXPORT void GetStateType(const STATE_CATE& cate, const std::string& state, std::string& ui_state,
                              std::string& type);
VEXA_EXPORT void GetStateType(const STATE_CATE& cate, const std::string& state, UIState& ui);

// Guests' states. `record` is the guest's record; `connected` is what GetGuestsConnectedMap gives.

// Whether the cluster database can be used. A status that cannot be loaded counts as usable.
VEXA_EXPORT bool IsDashboardReady();

// The state of a guest while the cluster is frozen: only a guest whose repository and host are this very host keeps a
// live one.
VEXA_EXPORT void GetGuestStateFreeze(const Json::Value& record, const std::string& guest_id, std::string& state);

// The state of a host while the cluster is frozen.
VEXA_EXPORT std::string GetHostFreezeState(const std::string& host_id);

// What is shown for a guest. `state` is its raw state and may be replaced; `reason` is set when there is one and never
// cleared.
VEXA_EXPORT void GetGuestStateType(const Json::Value& record, const std::map<std::string, int>& connected,
                                   const std::string& guest_id, std::string& state, std::string& ui_state,
                                   std::string& type, std::string& reason);
VEXA_EXPORT void GetGuestStateType(const Json::Value& record, const std::map<std::string, int>& connected,
                                   const std::string& guest_id, std::string& state, std::string& ui_state,
                                   std::string& type);
// The raw state is the record's.
VEXA_EXPORT void GetGuestStateType(const Json::Value& record, const std::map<std::string, int>& connected,
                                   const std::string& guest_id, std::string& ui_state, std::string& type);

// Every guest of the cluster with a bit for each of its network interfaces that has a link, by position modulo 32.
// False, and `connected` is empty: the hosts, guests or interfaces cannot be listed. Asks every host.
VEXA_EXPORT bool GetGuestsConnectedMap(std::map<std::string, int>& connected);

// Names, ids and lists.

// 0: the name is free. 406: it is taken. 403: unknown. One line in the system log unless it is free.
VEXA_EXPORT int CheckNameConflict(const std::string& name, const VexaCCC::DB::DashCate& cate);

// `names` becomes an array with one name per id; "unknown" where there is none.
VEXA_EXPORT void GetHostNamesByIds(const std::vector<std::string>& ids, Json::Value& names);

VEXA_EXPORT bool GetRepoNameById(const std::string& id, std::string& name);
VEXA_EXPORT bool GetGuestNameById(const std::string& id, std::string& name);

VEXA_EXPORT bool IsContain(const Json::Value& array, const std::string& s);
VEXA_EXPORT bool IsContain(const std::vector<std::string>& v, const std::string& s);

// The strings with `sep` between them. What has been joined decides whether there is a separator, so that leading empty
// strings vanish without one. An array with anything but strings gives "".
VEXA_EXPORT std::string JoinJsArray(const Json::Value& array, const std::string& sep);
VEXA_EXPORT std::string JoinVecString(const std::vector<std::string>& v, const std::string& sep);

VEXA_EXPORT Json::Value ConcatJsonArray(const Json::Value& a, const Json::Value& b);

// Appends {"host_id"} for every host. 0, or 403 and nothing is appended.
VEXA_EXPORT int GetAllHosts(Json::Value& hosts);

// The ids of a category by name; of several objects with one name, the last. 0, or what the listing gave: the map is
// empty then. A failure to read the names gives an empty map and the result of the listing.
VEXA_EXPORT int GetCateNameToIdMap(const VexaCCC::DB::DashCate& cate, std::map<std::string, std::string>& name_to_id);

// 0. -1: the objects cannot be listed; -2: none is called so; `id` is untouched then.
VEXA_EXPORT int GetIdByName(const VexaCCC::DB::DashCate& cate, const std::string& name, std::string& id);

// High availability.

// Judges the hosts of a group. `ha`["hosts"] are the hosts, `warn` the group's warnings; `reason` becomes the first
// warning's keyword or "", and one record per host is appended to `hosts`, an array. When it is not: one line in the
// system log and nothing else.
VEXA_EXPORT void GetHAWarnReason(const Json::Value& ha, const Json::Value& warn, std::string& reason,
                                 Json::Value& hosts);

// What is shown for a guest's group, `guest` being the guest's record and `info`["ha"] the group's hosts as above; that
// member is removed. Nothing else changes for a guest without a group, or when the group cannot be read.
VEXA_EXPORT void GetGuestHAStateType(const Json::Value& guest, Json::Value& info, std::string& ui_state,
                                     std::string& type, std::string& reason);

// Permissions.

// Whether the caller is a system administrator or an advanced user of the cluster. A platform failure is a plain no.
VEXA_EXPORT bool IsAdminOrAdvancedUser(VEXA::APIRequest* request);

// Whether the caller is an administrator, for any identifier, or has been granted the guest of exactly this identifier,
// themselves or by a group. Being advanced grants nothing by itself. A platform failure is a plain no.
VEXA_EXPORT bool IsGuestPermitted(VEXA::APIRequest* request, const std::string& guest_id);

// Grants a guest to the advanced record that covers the user: their own, else that of the first of their groups that is
// advanced. 0, or -1 with one line in the system log: nothing has changed.
VEXA_EXPORT int AdvancedUserAddGuest(const std::string& user, const std::string& guest_id);

// How many advanced records hold the guest, or -1 with one line in the system log.
VEXA_EXPORT int GetGuestAdvUserCount(const std::string& guest_id);

// Requests to hosts. A host that is asked alone and answers with a failure, or without what is needed, leaves the
// output untouched and one line in the system log unless it says otherwise here. Every call waits for the host.

// Whether a host's reply says in its top-level "has_fail" that a part of a compound request failed.
VEXA_EXPORT bool HasFail(const VexaDRCore::Response& response);

// A host's load: the host's answer for `params`["resource"], with "memory" (KiB) as the cluster's member reports it.
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

// What a check before a power-on found. May hold any value that a host sends.
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

// The reason's keyword, "unknown[<number>]" when it has none.
VEXA_EXPORT std::string GetVMCheckText(const VMCHECK& check);

// Adds what happened to some item to `errors`, an object keyed by error code: {"<code>": ["<messages>"]}, messages of
// one code joined by ", ". The second form keeps two lists side by side, and an empty half adds nothing to a list that
// is there. One line in the system log, and no change: `errors` is neither an object nor null, or the code's member is
// not an array.
VEXA_EXPORT void AppendError(const std::string& message, int code, Json::Value& errors);
VEXA_EXPORT void AppendError(const std::string& message, const std::string& second, int code, Json::Value& errors);

// Whether the guest's repository can be used, as the local host reports. 0: `check` is set. 407: the host runs a
// version that does not know the question; 404: any other failure. `check` is untouched then.
VEXA_EXPORT int CheckGuestRepoCap(const std::string& guest_id, VMCHECK& check);

// Asks a host to forget a polling task. 0, or -1.
VEXA_EXPORT int ClearPollTaskOnHost(const std::string& host_id, const std::string& task_id);

}  // namespace VexaVirtualization
