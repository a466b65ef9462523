#include "host/guests/creation/network_id.h"

#include "host/base/json_parse.h"
#include "host/domain_xml/domain_parse.h"
#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "host/records/network_record.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {

Result<std::optional<std::string>> FindNetworkId(const store::Snapshot& snapshot, const std::string& id_or_name) {
  if (id_or_name.empty() || VexaCCC::Utils::isUUID(id_or_name)) return std::optional(id_or_name);
  const auto networks = records::ReadNamedRecords(snapshot, "network");
  if (!networks) return networks.error();
  std::optional<std::string> found;
  for (const records::NamedRecord& network : *networks) {
    if (network.name == id_or_name) return std::optional(network.id);
    // What hosts call it. Another network may have this as its own name, which comes first.
    if (json::StringMember(network.record, keys::bridge_name) == id_or_name) found = network.id;
  }
  if (found) return found;
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
  if (found) return found;
  // One that a host has found has the id by which edits know it.
  const auto reports = records::ReadNetworkReports(snapshot);
  if (!reports) return reports.error();
  for (const auto& [host_id, report] : *reports) {
    if (!report) continue;
    for (const records::FoundNetwork& network : report->found) {
      if (network.name == id_or_name) return std::optional(domain_xml::NetworkGroupId(network.name));
    }
  }
  return found;
}

}  // namespace vexa::guests
