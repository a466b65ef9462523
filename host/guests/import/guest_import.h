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
#include "host/domain_xml/domain_parse.h"
#include "host/guests/import/import_records.h"
#include "host/records/named_record.h"
#include "host/store/store.h"
#include "webapi/error_codes.h"

namespace vexa::guests {

enum class OnExisting { kRefuse, kReplace };
enum class ImportMode { kWrite, kCheck };

struct ImportRequest {
  std::string xml;
  bool autostart = false;                               // whether libvirt was set to start it
  bool has_variables = true;                            // false: the file in <nvram> does not exist yet
  std::string expected_id;                              // refused when the XML has another id; "" accepts any
  std::string repository_id;                            // "": none
  std::string host_id;                                  // "": none
  std::map<std::string, std::uint64_t> disk_sizes_mib;  // of disks whose image cannot be read, by target name
  // The virtual sizes of images by path, in bytes; not set for one that exists and cannot be read. For guests of other
  // hosts the import does not read images, because they may be on another machine.
  std::map<std::string, std::optional<std::uint64_t>> image_sizes;
  std::map<std::string, std::string> networks;  // ids by the name of the network or bridge
};

// The codes of refusals, as users get them, in addition to those of host/records/named_record.h.
inline constexpr int kBadDefinition = user_error::kBadParameter;  // the XML, or an option for it
inline constexpr int kImportBusy = user_error::kGuestBusy;        // another operation on the guest is in progress

struct ImportedGuest {
  std::string id;    // "" when the XML cannot be parsed
  std::string name;  // likewise
  bool is_replacement = false;
  Json::Value records;  // {"id", "guest", "disks", "nics", "notes", "elements"}; see domain_xml::ToJson
};

// An import in progress.
struct ImportAttempt {
  const ImportRequest& request;
  domain_xml::ImportedGuest guest{};
  std::string name{};
  StoredGuest stored{};
  std::optional<store::Revision> first_revision{};  // of the stored guest when it was read first
};

// Threads: one at a time.
class GuestImport {
 public:
  struct Options {
    OnExisting on_existing = OnExisting::kRefuse;
    ImportMode mode = ImportMode::kWrite;
    // With kCheck: the guests that this object has accepted, names by id. They count as if they had been written.
    std::map<std::string, std::string> planned{};
    // This host: images of its guests are checked as far as they can be read. "": no images are read.
    std::string own_host_id{};
  };
  GuestImport(store::Store& store, Options options) : store_(store), options_(std::move(options)) {}

  // Imports one guest; with kCheck, only checks whether that is possible, and adds it to `planned`. `imported` is
  // filled as far as possible even when the guest is refused. Refusals: kBadDefinition (also for an image that does not
  // stand alone); records::kRecordExists (the
  // guest exists and is not to be replaced, or another one has the name); kAlreadyRunning (the guest is not shut down,
  // or a host holds it); kImportBusy (the guest is being deleted or edited, or it was changed elsewhere meanwhile);
  // records::kRecordFailed. After a refusal, nothing has changed.
  Result<void, Refusal> Import(const ImportRequest& request, ImportedGuest& imported);

  // The parts of Import(), for imports that do more than one commit.
  // Converts the definition of `attempt.request`, and fills `imported` as far as possible. Refusals: kBadDefinition.
  Result<void, Refusal> Convert(ImportAttempt& attempt, ImportedGuest& imported) const;
  // Why the stored records, with `attempt.stored` read from the same snapshot, do not allow the import. Not set: they
  // do. Errors: those of the store.
  Result<std::optional<Refusal>> FindConflict(const store::Snapshot& snapshot, const ImportAttempt& attempt) const;

 private:
  Result<void, Refusal> Commit(ImportAttempt& attempt);
  Result<void, Refusal> Check(ImportAttempt& attempt);
  Result<store::Transaction> Plan(const store::Snapshot& snapshot, ImportAttempt& attempt,
                                  std::optional<Refusal>& refused) const;
  Result<std::string> FindOtherByName(const store::Snapshot& snapshot, const std::string& name,
                                      const std::string& id) const;

  store::Store& store_;
  Options options_;
};

}  // namespace vexa::guests
