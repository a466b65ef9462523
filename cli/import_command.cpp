#include "cli/import_command.h"

#include <json/writer.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <ostream>
#include <set>

#include "cli/printable.h"
#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "host/hypervisor/domain_list.h"
#include "host/records/live_state.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::cli {
namespace {

namespace json = VexaVirtualization::json;
using hypervisor::ImportedGuest;

constexpr std::string_view kShutdownState = "guest_shutdown";

std::string Count(std::size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

Result<StoredGuest> ReadStored(const store::Snapshot& snapshot, const std::string& id) {
  const auto value = snapshot.Get(store::MakeKey({"dash", "guest", id, "object"}));
  if (!value) return value.error();
  const auto renames = snapshot.Get(guests::RenamesKey());
  if (!renames) return renames.error();
  StoredGuest stored;
  stored.renames_revision = *renames ? (*renames)->revision : 0;
  if (!value->has_value()) return stored;
  stored.revision = (*value)->revision;
  Result<Json::Value> record = ParseJson((*value)->text);
  if (record && record->isObject()) stored.record = std::move(*record);
  return stored;
}

std::string TextMember(const Json::Value& record, const char* member) {
  const Json::Value& value = json::Member(record, member);
  return value.isString() ? json::String(value) : "";
}

// The guest's own disks and network interfaces. Its lists can also name parts of another guest, which keeps them.
Result<std::vector<StoredPart>> ReadParts(const store::Snapshot& snapshot, const std::string& id,
                                          const Json::Value& record) {
  std::vector<StoredPart> parts;
  for (const auto& [list, category] : {std::pair{"vdisks", "vdisk"}, std::pair{"vnics", "vnic"}}) {
    for (const Json::Value& entry : json::Elements(json::Member(record, list))) {
      if (!entry.isString() || json::String(entry).empty()) continue;
      std::string key = store::MakeKey({"dash", category, json::String(entry), "object"});
      const auto value = snapshot.Get(key);
      if (!value) return value.error();
      if (!value->has_value()) continue;
      const Result<Json::Value> part = ParseJson((*value)->text);
      if (part && TextMember(*part, "guest_id") == id) parts.push_back({std::move(key), (*value)->revision});
    }
  }
  return parts;
}

// The state as every reader of the guest sees it: the live one, otherwise the record's. "" when absent. An
// invalid one is an error, because the record's may be long outdated.
Result<std::string> ReadState(const store::Snapshot& snapshot, const std::string& id, StoredGuest& stored) {
  const auto value = snapshot.Get(cluster::LiveStateKey(id));
  if (!value) return value.error();
  if (!value->has_value()) return TextMember(stored.record, "state");
  stored.live_revision = (*value)->revision;
  const Result<Json::Value> live = ParseJson((*value)->text);
  if (live && live->isString() && !live->asString().empty()) return live->asString();
  return Error(ErrorCode::kCorrupt, "The live state of the guest '" + id + "' cannot be read");
}

// Which guest has which name. Reread only when the store has changed otherwise.
class NameIndex {
 public:
  Status Update(const store::Snapshot& snapshot) {
    if (snapshot.revision() == revision_ && revision_ != 0) return {};
    ids_.clear();
    const auto ids = snapshot.Children("/dash/guest");
    if (!ids) return ids.error();
    for (const std::string& id : *ids) {
      const Result<StoredGuest> stored = ReadStored(snapshot, id);
      if (!stored) return stored.error();
      const std::string name = TextMember(stored->record, "name");
      if (!name.empty()) ids_.emplace(name, id);
    }
    for (const auto& [name, id] : planned_) ids_.emplace(name, id);
    revision_ = snapshot.revision();
    return {};
  }

  // The id of a guest other than `id` with the name `name`; "" when absent.
  std::string FindOtherByName(const std::string& name, const std::string& id) const {
    const auto [first, last] = ids_.equal_range(name);
    for (auto it = first; it != last; ++it) {
      if (it->second != id) return it->second;
    }
    return "";
  }

  // `id` was written in `revision`, and has the name `name` from now on.
  void NoteWritten(const std::string& id, const std::string& name, store::Revision revision) {
    // A gap means that there were other changes: the next Update rereads everything.
    revision_ = revision == revision_ + 1 ? revision : 0;
    std::erase_if(ids_, [&](const auto& entry) { return entry.second == id; });
    ids_.emplace(name, id);
  }

  // The same for a dry run, which writes nothing.
  void NotePlanned(const std::string& id, const std::string& name) {
    const auto is_this_guest = [&](const auto& entry) { return entry.second == id; };
    std::erase_if(planned_, is_this_guest);
    std::erase_if(ids_, is_this_guest);
    planned_.emplace(name, id);
    ids_.emplace(name, id);
  }

 private:
  std::multimap<std::string, std::string> ids_;
  std::multimap<std::string, std::string> planned_;
  store::Revision revision_ = 0;
};

class Import {
 public:
  Import(const ImportArguments& arguments, store::Store& store, std::ostream& out, std::ostream& err)
      : arguments_(arguments), store_(store), out_(out), err_(err) {}

  Status Run() {
    Result<std::vector<ImportSource>> sources = Sources();
    if (!sources) return sources.error();
    std::size_t failed = 0;
    for (const ImportSource& source : *sources) {
      const Status one = One(source);
      if (one) continue;
      ++failed;
      err_ << Printable(source.label) << ": " << Printable(one.error().ToString()) << '\n';
    }
    if (dry()) WriteDryRun();
    if (!dry() && sources->empty()) out_ << "There was nothing to import.\n";
    if (failed == 0) return {};
    return Error(ErrorCode::kInvalid,
                 std::to_string(failed) + " of " + Count(sources->size(), "guest") + " could not be imported");
  }

 private:
  bool dry() const { return arguments_.mode == ImportMode::kDryRun; }

  hypervisor::ImportOptions Options() const {
    hypervisor::ImportOptions options;
    if (arguments_.repository_id) options.repository_id = *arguments_.repository_id;
    if (arguments_.host_id) options.host_id = *arguments_.host_id;
    options.disk_sizes_mib = arguments_.disk_sizes_mib;
    options.networks = arguments_.networks;
    options.size_of = hypervisor::ReadImageSize;
    return options;
  }

  Result<std::vector<ImportSource>> Sources() {
    if (!arguments_.uri.empty()) return Domains();
    std::vector<ImportSource> sources;
    if (!arguments_.manifest.empty()) {
      Result<std::vector<ImportSource>> listed = ReadManifest(arguments_.manifest);
      if (!listed) return listed.error();
      for (ImportSource& source : *listed) source.options.size_of = hypervisor::ReadImageSize;
      return listed;
    }
    for (const std::string& file : arguments_.files) {
      ImportSource source;
      source.label = source.file = file;
      source.options = Options();
      sources.push_back(std::move(source));
    }
    return sources;
  }

  Result<std::vector<ImportSource>> Domains() {
    auto connection = hypervisor::DomainConnection::Open(arguments_.uri);
    if (!connection) return connection.error();
    connection_ = std::move(*connection);
    Result<std::vector<hypervisor::DomainText>> domains = connection_->List();
    if (!domains) return domains.error();
    std::vector<ImportSource> sources;
    for (hypervisor::DomainText& domain : *domains) {
      ImportSource source;
      source.label = domain.name;
      source.xml = std::move(domain.xml);
      source.autostart = domain.autostart;
      source.options = Options();
      // libvirt knows the images of its own machine, which may be another one than this.
      source.options.size_of = [connection = connection_.get(), id = domain.id, local = IsLocal(arguments_.uri)](
                                   const std::string& path, hypervisor::ImageFormat format) {
        Result<std::uint64_t> size = connection->DiskSize(id, path);
        return size || !local ? size : hypervisor::ReadImageSize(path, format);
      };
      sources.push_back(std::move(source));
    }
    return sources;
  }

  // Whether the URI names no other machine: "qemu:///system" does not, "qemu+ssh://other/system" does.
  static bool IsLocal(const std::string& uri) { return uri.find(":///") != std::string::npos; }

  Status One(const ImportSource& source) {
    std::string xml;
    if (!source.xml) {
      Result<std::string> text = ReadFile(source.file, hypervisor::kMaxDomainXmlBytes);
      if (!text) return text.error();
      xml = std::move(*text);
    }
    Result<ImportedGuest> guest = hypervisor::ParseDomainXml(source.xml ? *source.xml : xml, source.options);
    if (!guest) return guest.error();
    if (arguments_.uri.empty() || IsLocal(arguments_.uri)) ForgetUnmadeVariables(guest->guest);
    if (!source.expected_id.empty() && source.expected_id != guest->id) {
      return Error(ErrorCode::kInvalid, "<uuid> says '" + guest->id + "': the manifest says '" + source.expected_id +
                                            "'; correct one of them");
    }
    return Store(source, *guest);
  }

  // libvirt names the file before the guest's first start creates it. Until then its absence is normal.
  static void ForgetUnmadeVariables(Json::Value& guest) {
    const std::string path = TextMember(guest, "nvram");
    struct stat info {};
    if (path.empty() || ::stat(path.c_str(), &info) == 0 || errno != ENOENT) return;
    // A missing folder may be on storage that is not mounted.
    if (::stat(path.substr(0, path.rfind('/') + 1).c_str(), &info) == 0) guest.removeMember("nvram");
  }

  Status Store(const ImportSource& source, const ImportedGuest& guest) {
    StoredGuest stored;
    std::string state;
    {
      const auto snapshot = store_.Read();
      if (!snapshot) return snapshot.error();
      if (Status names = names_.Update(**snapshot); !names) return names;
      Result<StoredGuest> found = ReadStored(**snapshot, guest.id);
      if (!found) return found.error();
      stored = std::move(*found);
      Result<std::vector<StoredPart>> parts = ReadParts(**snapshot, guest.id, stored.record);
      if (!parts) return parts.error();
      stored.parts = std::move(*parts);
      Result<std::string> now = ReadState(**snapshot, guest.id, stored);
      // What remains of an earlier guest is not a state of the new one.
      if (stored.revision != 0 && !now) return now.error();
      if (stored.revision != 0) state = std::move(*now);
    }
    if (Status allowed = CheckConflicts(guest, stored, state); !allowed) return allowed;
    if (Status free = CheckGuestIsFree(guest.id); !free) return free;
    if (dry()) {
      Plan(source, guest);
      return {};
    }
    const Result<store::Revision> revision =
        store_.Commit(MakeImportTransaction(guest, {guest.xml, source.autostart}, stored));
    if (!revision && revision.error().code() == ErrorCode::kConflict) {
      return Error(ErrorCode::kConflict, "The guest '" + guest.id + "' was changed meanwhile: import it again");
    }
    if (!revision) return revision.error();
    names_.NoteWritten(guest.id, guest.guest["name"].asString(), *revision);
    Report(source, guest, stored);
    return {};
  }

  Status CheckConflicts(const ImportedGuest& guest, const StoredGuest& stored, const std::string& state) {
    const std::string name = guest.guest["name"].asString();
    const bool exists = stored.revision != 0 || planned_ids_.contains(guest.id);
    if (exists && arguments_.on_existing == OnExisting::kRefuse) {
      return Error(ErrorCode::kConflict, "The guest '" + guest.id + "' exists already: use --replace to replace it");
    }
    if (!state.empty() && state != kShutdownState) {
      return Error(ErrorCode::kConflict,
                   "The guest '" + guest.id + "' is in the state '" + state + "': shut it down before it is replaced");
    }
    const std::string other = names_.FindOtherByName(name, guest.id);
    if (!other.empty()) {
      return Error(ErrorCode::kConflict,
                   "The name '" + name + "' belongs to the guest '" + other + "': rename one of the two");
    }
    return {};
  }

  Status CheckGuestIsFree(const std::string& id) const {
    const auto snapshot = store_.Read();
    if (!snapshot) return snapshot.error();
    for (const auto& [key, what] : {std::pair{guests::RunKey(id), "runs on a host: power it off"},
                                    std::pair{guests::DeletionKey(id), "is being deleted: wait until it is gone"},
                                    std::pair{guests::EditKey(id), "is being edited: wait until that is done"}}) {
      const auto held = (*snapshot)->Get(key);
      if (!held) return held.error();
      if (held->has_value()) return Error(ErrorCode::kConflict, "The guest '" + id + "' " + what);
    }
    return {};
  }

  void Plan(const ImportSource& source, const ImportedGuest& guest) {
    Json::Value entry = hypervisor::ToJson(guest);
    entry["source"] = source.label;
    planned_records_.append(std::move(entry));
    planned_ids_.insert(guest.id);
    names_.NotePlanned(guest.id, guest.guest["name"].asString());
  }

  void Report(const ImportSource& source, const ImportedGuest& guest, const StoredGuest& stored) {
    out_ << Printable(source.label) << (stored.revision == 0 ? ": imported '" : ": replaced '")
         << guest.guest["name"].asString() << "' (" << guest.id << "): " << Count(guest.disks.size(), "disk") << ", "
         << Count(guest.nics.size(), "network interface") << '\n';
    for (const std::string& note : guest.notes) out_ << "  " << note << '\n';
  }

  void WriteDryRun() {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    out_ << Json::writeString(builder, planned_records_) << '\n';
  }

  const ImportArguments& arguments_;
  store::Store& store_;
  std::ostream& out_;
  std::ostream& err_;
  std::unique_ptr<hypervisor::DomainConnection> connection_;
  NameIndex names_;
  std::set<std::string> planned_ids_;
  Json::Value planned_records_{Json::arrayValue};
};

}  // namespace

Status RunImport(const ImportArguments& arguments, store::Store& store, std::ostream& out, std::ostream& err) {
  return Import(arguments, store, out, err).Run();
}

}  // namespace vexa::cli
