#include "host/domain_xml/domain_parse.h"

#include "host/base/uuid.h"
#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml {
namespace parse {
namespace {

Status CheckOptions(const ImportOptions& options) {
  if (!options.repository_id.empty() && NormalizeUuid(options.repository_id).empty()) {
    return Invalid("The repository id {} is not a UUID. Use the form 8-4-4-4-12", Quote(options.repository_id));
  }
  if (!options.host_id.empty() && NormalizeUuid(options.host_id).empty()) {
    return Invalid("The host id {} is not a UUID. Use the form 8-4-4-4-12", Quote(options.host_id));
  }
  for (const auto& [name, id] : options.networks) {
    if (NormalizeUuid(id).empty()) {
      return Invalid("The id {} of the network {} is not a UUID. Use the form 8-4-4-4-12", Quote(id), Quote(name));
    }
  }
  return {};
}

// If one of these elements appeared twice, the result would depend on which one a reader picks.
Status CheckSingleElements(pugi::xml_node domain) {
  for (const char* name : {"name", "uuid", "description", "memory", "currentMemory", "vcpu", "os", "features", "cpu",
                           "cputune", "devices"}) {
    const pugi::xml_node first = domain.child(name);
    if (first && first.next_sibling(name)) {
      return Invalid("<domain> has more than one <{}>: remove all but one", name);
    }
  }
  return {};
}

Status ReadAll(pugi::xml_node domain, Context& context) {
  if (Status single = CheckSingleElements(domain); !single) return single;

  Json::Value& guest = context.guest() = Json::Value(Json::objectValue);
  guest["repository_id"] = NormalizeUuid(context.options.repository_id);
  guest["host_id"] = NormalizeUuid(context.options.host_id);
  guest["state"] = "guest_shutdown";
  guest["autorun"] = 0;
  guest["is_general_vm"] = true;

  for (const auto read : {ReadIdentity, ReadProcessor, ReadMemory, ReadFirmware, ReadBootOrder}) {
    if (Status part = read(domain, context); !part) return part;
  }
  for (const auto read : {ReadVideo, ReadUsb, ReadDisks, ReadNics}) {
    if (Status part = read(domain.child("devices"), context); !part) return part;
  }
  ReadElements(domain, context);
  return {};
}

}  // namespace
}  // namespace parse

Result<ImportedGuest> ParseDomainXml(std::string_view xml, const ImportOptions& options) {
  if (Status valid = parse::CheckOptions(options); !valid) return valid.error();
  pugi::xml_document document;
  if (Status loaded = parse::Load(xml, document); !loaded) return loaded.error();
  ImportedGuest imported;
  imported.xml = xml;
  parse::Context context{options, imported};
  if (Status read = parse::ReadAll(document.document_element(), context); !read) return read.error();
  return imported;
}

Json::Value ToJson(const ImportedGuest& guest) {
  const auto list = [](const std::vector<std::pair<std::string, Json::Value>>& records) {
    Json::Value result(Json::arrayValue);
    for (const auto& [id, object] : records) {
      Json::Value& entry = result.append(Json::Value(Json::objectValue));
      entry["id"] = id;
      entry["object"] = object;
    }
    return result;
  };
  Json::Value result(Json::objectValue);
  result["id"] = guest.id;
  result["guest"] = guest.guest;
  result["disks"] = list(guest.disks);
  result["nics"] = list(guest.nics);
  result["notes"] = Json::Value(Json::arrayValue);
  for (const std::string& note : guest.notes) result["notes"].append(note);
  result["elements"] = Json::Value(Json::arrayValue);
  for (const ElementOutcome& element : guest.elements) {
    Json::Value& entry = result["elements"].append(Json::Value(Json::objectValue));
    entry["path"] = element.path;
    entry["outcome"] = element.outcome;
  }
  return result;
}

}  // namespace vexa::domain_xml
