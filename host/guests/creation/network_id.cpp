#include "host/guests/creation/network_id.h"

#include "host/base/json_parse.h"
#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {

Result<std::optional<std::string>> FindNetworkId(const store::Snapshot& snapshot, const std::string& id_or_name) {
  if (id_or_name.empty() || VexaCCC::Utils::isUUID(id_or_name)) return std::optional(id_or_name);
  const auto networks = records::ReadNamedRecords(snapshot, "network");
  if (!networks) return networks.error();
  for (const records::NamedRecord& network : *networks) {
    const bool has_name =
        network.name == id_or_name || json::StringMember(network.record, keys::bridge_name) == id_or_name;
    if (has_name) return std::optional(network.id);
  }
  std::optional<std::string> found;
  const Status scanned = snapshot.Scan(records::CategoryKey(VexaCCC::DB::DashCate::vNic.name()),
                                       [&](std::string_view, const store::ValueView& value) {
                                         const Result<Json::Value> nic = ParseJson(value.text);
                                         if (!nic || json::StringMember(*nic, "network_name") != id_or_name)
                                           return true;
                                         std::string id = json::StringMember(*nic, keys::network_group_id);
                                         if (!id.empty()) found = std::move(id);
                                         return !found;
                                       });
  if (!scanned) return scanned.error();
  return found;
}

}  // namespace vexa::guests
