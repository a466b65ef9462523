// Finds, shows and adds objects on the server, to which users refer by id or name. The functions that take
// GlobalOptions or a client print failures.
#pragma once

#include <json/value.h>

#include <functional>
#include <optional>
#include <string>

#include "cli/api_paths.h"
#include "cli/client_options.h"
#include "host/base/result.h"

namespace vexa::cli {

struct ObjectKind {
  const char* singular;      // "host"
  const char* plural;        // "hosts": also the member with the array in the reply to `list_path`
  const char* list_path;     // the method that lists them
  const char* id;            // the member of an object that contains its id
  const char* name;          // the member that contains its name
  const char* list_command;  // the command that lists them, without "vexa"
};

inline constexpr ObjectKind kGuests{"guest", "guests", kGuestList, "guest_id", "guest_name", "guest list"};
inline constexpr ObjectKind kHosts{"host", "hosts", kHostList, "host_id", "name", "host list"};
inline constexpr ObjectKind kImages{"image", "images", kImageList, "image_id", "name", "image list"};
inline constexpr ObjectKind kNetworks{"network", "networks", kNetworkList, "network_id", "name", "network list"};
inline constexpr ObjectKind kRepositories{"repository",    "repositories", kRepositoryList,
                                          "repository_id", "name",         "repository list"};
inline constexpr ObjectKind kUploads{"upload", "uploads", kUploadList, "upload_id", "name", "image uploads"};

// Calls the method at `list_path`. When the exit code is kOk, the member `plural` of the data is an array.
CallOutcome ListObjects(HttpClient& client, const ObjectKind& kind);
CallOutcome ListObjects(const GlobalOptions& global, const ObjectKind& kind);

// The id of the one object in `list` with this id, in any case of its letters, otherwise with this name. A UUID that is
// not in the list is returned unchanged, because the server reports the reason. kNotFound; kConflict, with the ids,
// when several have the name.
Result<std::string> FindByIdOrName(const Json::Value& list, const ObjectKind& kind, const std::string& id_or_name);

// Writes the id of the object with this id, otherwise with this name, to `id`, as FindByIdOrName finds it.
ExitCode FindId(HttpClient& client, const ObjectKind& kind, const std::string& id_or_name, std::string& id);

// Calls the method at `path` for the object with this id or name. Its id is written to `id`. A UUID is taken for
// an id first; the server is asked for names only when it refuses that.
CallOutcome GetObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                      const std::string& id_or_name, std::string& id);

// Calls the method at `path` for the object with this id or name, or without parameters when it is not set, and passes
// the data, an object, to `print`. With --json the data is printed instead.
ExitCode ShowObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                    const std::optional<std::string>& id_or_name,
                    const std::function<void(const Json::Value& data)>& print);

// Calls the method at `path`, which adds an object, and prints the id that the server has assigned.
ExitCode AddObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                   const Json::Value& parameters);

// Calls the method at `path` for the object with this id or name. Its id is written to `id`.
ExitCode CallForObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                       const std::string& id_or_name, std::string& id);

// The same with more parameters.
ExitCode CallForObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                       const std::string& id_or_name, const Json::Value& parameters);

// The same, and returns the reply's data.
CallOutcome CallForListedObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                                const std::string& id_or_name);

// Calls the method at `path`, which gives the object with this id or name another name.
ExitCode RenameObject(const GlobalOptions& global, const ObjectKind& kind, const char* path,
                      const std::string& id_or_name, const std::string& name);

}  // namespace vexa::cli
