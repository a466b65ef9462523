#include "host/api/user/creation_parameters.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "host/api/rows.h"
#include "host/base/guest_settings.h"
#include "host/base/sanitize_for_log.h"
#include "host/guests/creation/network_id.h"
#include "host/records/guest_image.h"
#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "host/records/repository_host.h"
#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

using VexaCCC::DB::DashCate;

constexpr std::size_t kMaxQuoted = 128;
constexpr Json::Int64 kMibPerGib = 1024;
// 8 PiB, beyond which no disk image can grow.
constexpr Json::Int64 kMaxDiskGib = Json::Int64{1} << 23;
// More than a guest may have; how many it may have is checked by the host.
constexpr std::size_t kMaxParts = 1024;

std::string Quoted(const std::string& text) { return "'" + SanitizeForLog(text, kMaxQuoted) + "'"; }

Refusal Bad(const std::string& parameter, const std::string& wanted) {
  return {user_error::kBadParameter, fmt::format("The parameter '{}' is not {}", parameter, wanted)};
}

Refusal Unreadable(const Error& error) { return {user_error::kNotFoundOrUnreadable, error.ToString()}; }

// Translates one request. Each step returns the refusal, if any.
class Translator {
 public:
  Translator(const store::Snapshot& snapshot, const Json::Value& given, const std::string& own_host_id)
      : snapshot_(snapshot), given_(given), own_host_id_(own_host_id) {}

  Result<HostCreation, Refusal> Translate() {
    using Step = std::optional<Refusal> (Translator::*)();
    for (const Step step : {&Translator::CopySettings, &Translator::FindRepository, &Translator::FindHost,
                            &Translator::AddDisks, &Translator::AddNics, &Translator::AddImage}) {
      if (std::optional<Refusal> refused = (this->*step)()) return *std::move(refused);
    }
    return std::move(result_);
  }

 private:
  Json::Value& parameters() { return result_.parameters; }

  std::optional<Refusal> CopySettings() {
    std::string guest_name;
    if (std::optional<Refusal> refused = ReadText(keys::name, guest_name)) return refused;
    if (!json::FindMember(given_, keys::name)) {
      return Refusal{user_error::kBadParameter, "The parameter 'name' is missing"};
    }
    for (const char* name : {"os", "usbs"}) {
      if (const Json::Value* value = json::FindMember(given_, name)) parameters()[name] = *value;
    }
    for (const GuestSetting& setting : kGuestSettings) {
      const Json::Value* const value = json::FindMember(given_, setting.name);
      if (setting.IsScalar() && value) parameters()[setting.name] = *value;
    }
    return std::nullopt;
  }

  // The record of the category with this id, otherwise the one with this name.
  std::optional<Refusal> Find(const char* category, const char* parameter, const std::string& id_or_name,
                              std::string& id) {
    const auto all = records::ReadNamedRecords(snapshot_, category);
    if (!all) return Unreadable(all.error());
    std::vector<std::string> found;
    for (const records::NamedRecord& record : *all) {
      if (record.id == id_or_name) found = {record.id};
      if (record.id == id_or_name) break;
      if (record.name == id_or_name) found.push_back(record.id);
    }
    if (found.empty()) {
      return Refusal{user_error::kNotFoundOrUnreadable,
                     fmt::format("There is no {0} {1}; see 'vexa {0} list'", category, Quoted(id_or_name))};
    }
    if (found.size() > 1) return Bad(parameter, "the name of only one. Use its id");
    id = std::move(found.front());
    return std::nullopt;
  }

  // The string under `name`; empty when it is missing. Refuses other types.
  std::optional<Refusal> ReadText(const char* name, std::string& text) {
    const Json::Value* const value = json::FindMember(given_, name);
    if (value && !value->isString()) return Bad(name, "a string");
    if (value) text = json::String(*value);
    return std::nullopt;
  }

  std::optional<Refusal> FindRepository() {
    std::string wanted;
    if (std::optional<Refusal> refused = ReadText("repository", wanted)) return refused;
    std::string id;
    std::optional<Refusal> refused =
        wanted.empty() ? ChooseRepository(id) : Find(DashCate::Repository.name(), "repository", wanted, id);
    if (refused) return refused;
    parameters()[keys::repository_id] = id;
    auto host_id = records::RepositoryHost(snapshot_, parameters());
    if (!host_id) return Unreadable(host_id.error());
    result_.repository_host_id = host_id->empty() ? own_host_id_ : std::move(*host_id);
    return std::nullopt;
  }

  // The only repository of this host, otherwise the only one of the cluster.
  std::optional<Refusal> ChooseRepository(std::string& id) {
    const auto all = records::ReadNamedRecords(snapshot_, DashCate::Repository.name());
    if (!all) return Unreadable(all.error());
    if (all->empty())
      return Refusal{user_error::kBadParameter,
                     "There is no repository for the guest's disks. Add one with 'vexa repository add NAME'"};
    std::vector<std::string> own;
    for (const records::NamedRecord& record : *all) {
      if (json::StringMember(record.record, keys::host_id) == own_host_id_) own.push_back(record.id);
    }
    if (own.size() != 1 && all->size() != 1) {
      return Refusal{user_error::kBadParameter,
                     fmt::format("The parameter 'repository' is missing, and there are {} repositories to choose from",
                                 own.empty() ? all->size() : own.size())};
    }
    id = own.size() == 1 ? own.front() : all->front().id;
    return std::nullopt;
  }

  std::optional<Refusal> FindHost() {
    const Json::Value* const host = json::FindMember(given_, "host");
    result_.chooses_host = !host;
    if (host && !host->isString()) return Bad("host", "a string");
    std::string id = result_.repository_host_id;
    if (host) id = json::String(*host);
    if (host && !id.empty()) {
      if (std::optional<Refusal> refused = Find(DashCate::Host.name(), "host", json::String(*host), id)) {
        return refused;
      }
    }
    parameters()[keys::host_id] = id;
    return std::nullopt;
  }

  // Calls `translate` with each object of the list `name`, the object that it becomes, and its name for messages.
  template <class Translate>
  std::optional<Refusal> ForEach(const char* name, const char* host_name, const Translate& translate) {
    const Json::Value* const list = json::FindMember(given_, name);
    if (!list) return std::nullopt;
    if (!list->isArray() || list->size() > kMaxParts) return Bad(name, "a list");
    Json::Value& translated = parameters()[host_name] = Json::Value(Json::arrayValue);
    for (Json::ArrayIndex i = 0; i < list->size(); ++i) {
      const std::string parameter = fmt::format("{}[{}]", name, i);
      const Json::Value& element = json::Element(*list, i);
      if (!element.isObject()) return Bad(parameter, "an object");
      Json::Value& becomes = translated.append(element);
      if (std::optional<Refusal> refused = translate(element, becomes, parameter)) return refused;
    }
    return std::nullopt;
  }

  // An image of the cluster by its name or id becomes the path of its file.
  std::optional<Refusal> SetSource(const Json::Value& disk, Json::Value& becomes, const std::string& parameter) {
    const Json::Value* const from = json::FindMember(disk, "from");
    if (!from) return std::nullopt;
    if (!from->isString()) return Bad(parameter + ".from", "a string");
    if (json::String(*from).starts_with('/')) return std::nullopt;
    std::string id;
    if (auto refused = Find(records::kImageCategory, "from", json::String(*from), id)) return refused;
    const auto image = records::ReadNamedRecord(snapshot_, records::kImageCategory, id);
    if (!image) return Unreadable(image.error());
    becomes["from"] = *image ? json::StringMember((*image)->record, records::kImagePath) : "";
    return std::nullopt;
  }

  std::optional<Refusal> AddDisks() {
    return ForEach(
        "vdisks", "vdisks_add",
        [&](const Json::Value& disk, Json::Value& becomes, const std::string& parameter) -> std::optional<Refusal> {
          if (std::optional<Refusal> refused = SetSource(disk, becomes, parameter)) return refused;
          const Json::Value& size = json::Member(disk, "size_gib");
          if (!json::FindMember(disk, "size_gib") && json::FindMember(disk, "from")) return std::nullopt;

          if (!size.isInt64() || json::Int64(size) < 1 || json::Int64(size) > kMaxDiskGib) {
            return Bad(parameter + ".size_gib", fmt::format("a number from 1 to {}", kMaxDiskGib));
          }
          becomes.removeMember("size_gib");
          becomes["vdisk_size"] = json::Int64(size) * kMibPerGib;
          return std::nullopt;
        });
  }

  std::optional<Refusal> AddNics() {
    return ForEach(
        "vnics", "vnics_add",
        [&](const Json::Value& nic, Json::Value& becomes, const std::string& parameter) -> std::optional<Refusal> {
          const Json::Value& network = json::Member(nic, "network");
          if (!network.isString() && !network.isNull()) return Bad(parameter + ".network", "a string");
          const auto id = guests::FindNetworkId(snapshot_, json::StringMember(nic, "network"));
          if (!id) return Unreadable(id.error());
          if (!*id) {
            return Refusal{
                user_error::kBadNetworkSettings,
                fmt::format("There is no network {}; see 'vexa network list'", Quoted(json::String(network)))};
          }
          becomes.removeMember("network");
          becomes["network_id"] = **id;
          return std::nullopt;
        });
  }

  std::optional<Refusal> AddImage() {
    std::string image;
    if (std::optional<Refusal> refused = ReadText("iso", image)) return refused;
    if (image.empty()) return std::nullopt;
    if (!image.starts_with('/')) {
      const std::string wanted = image;
      if (std::optional<Refusal> refused = Find(records::kImageCategory, "iso", wanted, image)) return refused;
    }
    parameters()[keys::iso_images].append(image);
    return std::nullopt;
  }

  const store::Snapshot& snapshot_;
  const Json::Value& given_;
  const std::string& own_host_id_;
  HostCreation result_;
};

}  // namespace

std::vector<Parameter> CreationParameters() {
  using enum ValueType;
  std::vector<Parameter> parameters = {
      Text("name", "The guest's name: 1 to 128 bytes; no other guest may have it."),
      OptionalString("os",
                     "\"linux\" (the default), \"windows\" or \"other\": decides about settings that are left out."),
      Optional("vdisks", kArray,
               "Its disks: [{\"size_gib\" or \"from\" (an image to copy: a path or a name) or both, and optionally "
               "\"vdisk_mode\" (1 to 4), \"unmap\" (boolean), \"format\" "
               "(\"qcow2\" or \"raw\")}]."),
      Optional("vnics", kArray,
               "Its network interfaces: [{\"network\" (an id, a name, or \"\" for none), and optionally \"vnic_type\" "
               "(1 to 3), \"mac\", \"prefer_sriov\" (boolean)}]."),
      OptionalString("iso", "The image in its drive: an id, a name or an absolute path (default: an empty drive)."),
      Optional("usbs", kArray, "The USB devices to pass through."),
      OptionalString("repository", "The repository of its disks: an id or a name (default: the only one)."),
      OptionalString("host", "Its host: an id, a name, or \"\" for none (default: one that can start it)."),
      Optional("grants", kArray, "Who may use it: [{\"user\" or \"group\": a name}]."),
      OptionalFlag("start", "Start it once it exists."),
      OptionalString(
          "request_id",
          "The client's own number of the request, 1 to 64 letters, digits, \".\", \"_\" and \"-\": within a "
          "day, a repeated request gets the first answer.")};
  for (const GuestSetting& setting : kGuestSettings) {
    if (!setting.IsScalar() || std::string_view(setting.name) == keys::name) continue;
    const ParameterType type = setting.type == SettingType::kString   ? kString
                               : setting.type == SettingType::kNumber ? kInteger
                                                                      : kBoolean;
    parameters.push_back(Optional(setting.name, type, setting.for_users));
  }
  return parameters;
}

Json::Value KnownCreationParameters(const Json::Value& parameters) {
  Json::Value known(Json::objectValue);
  for (const Parameter& parameter : CreationParameters()) {
    const std::string name(parameter.name);
    if (const Json::Value* value = json::FindMember(parameters, name)) known[name] = *value;
  }
  return known;
}

Result<HostCreation, Refusal> TranslateCreation(const store::Snapshot& snapshot, const Json::Value& parameters,
                                                const std::string& own_host_id) {
  return Translator(snapshot, parameters, own_host_id).Translate();
}

}  // namespace vexa::api
