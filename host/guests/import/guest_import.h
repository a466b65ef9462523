// Imports guests that libvirt's domain XML describes. Each becomes the records of a guest, its disks and its network
// interfaces in one commit, completely or not at all.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/domain_xml/domain_xml.h"
#include "host/records/named_record.h"
#include "host/store/store.h"

namespace vexa::guests {

enum class OnExisting { kRefuse, kReplace };
enum class ImportMode { kWrite, kCheck };

struct ImportRequest {
  std::string xml;
  bool autostart = false;     // whether libvirt was set to start it
  bool has_variables = true;  // false: the file that <nvram> names is not there yet
  std::string expected_id;    // refused when the XML has another id; "" accepts any
  std::string repository_id;  // "": that of an embedded cluster, as is the host's
  std::string host_id;
  std::map<std::string, std::uint64_t> disk_sizes_mib;  // of disks whose image cannot be read, by target name
  // The virtual sizes of images by path, in bytes; nothing for one that is there and cannot be read. Images are not
  // read here: they may be on another machine.
  std::map<std::string, std::optional<std::uint64_t>> image_sizes;
  std::map<std::string, std::string> networks;  // ids by the name of the network or bridge
};

// Codes of a refused guest, as users get them, beside those of host/records/named_record.h.
inline constexpr int kBadDefinition = 401;  // the XML, or an option for it
inline constexpr int kImportBusy = 912;     // something is being done with the guest

struct ImportedGuest {
  std::string id;    // "" when the XML cannot be understood
  std::string name;  // likewise
  bool is_replacement = false;
  Json::Value records;  // {"id", "guest", "disks", "nics", "notes"}; see hypervisor::ToJson
};

// Threads: one at a time.
class GuestImport {
 public:
  struct Options {
    OnExisting on_existing = OnExisting::kRefuse;
    ImportMode mode = ImportMode::kWrite;
    // With kCheck: names by id of the guests that were accepted before, and that count as if they had been written.
    std::map<std::string, std::string> planned{};
  };
  GuestImport(store::Store& store, Options options) : store_(store), options_(std::move(options)) {}

  // Imports one guest, or only checks whether that is possible; then it counts as planned. `imported` also has what is
  // known of a guest that is refused.
  // Refusals: kBadDefinition; cluster::kRecordExists (the guest exists and is not to be replaced, or another one has
  // the name); kRunsAlready (the guest is not shut down, or a host has it); kImportBusy (the guest is being deleted or
  // edited, or somebody else has changed it meanwhile); cluster::kRecordFailed. Nothing has changed then.
  Refused Import(const ImportRequest& request, ImportedGuest& imported);

 private:
  struct Attempt;
  Refused Commit(Attempt& attempt);
  Refused Check(Attempt& attempt);
  Result<store::Transaction> Plan(const store::Snapshot& snapshot, Attempt& attempt, Refused& refused) const;
  Result<Refused> FindConflict(const store::Snapshot& snapshot, const Attempt& attempt) const;
  Result<std::string> FindOtherByName(const store::Snapshot& snapshot, const std::string& name,
                                      const std::string& id) const;

  store::Store& store_;
  Options options_;
};

}  // namespace vexa::guests
