#include "host/networks/network_users.h"

#include <functional>
#include <set>
#include <string_view>

#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "host/base/uuid.h"
#include "host/records/keys.h"
#include "json/readers.h"

namespace vexa::networks {
namespace {

using VexaCCC::DB::DashCate;

constexpr char kNetworkName[] = "network_name";

// Calls `visit` with the record of each interface whose text may contain one of `texts`. Parsing every record would be
// slow. A record that does not contain a text literally can only contain it with escapes.
Status ScanInterfaces(const store::Snapshot& snapshot, const std::vector<std::string>& texts,
                      const std::function<void(const Json::Value& record)>& visit) {
  return snapshot.Scan(records::CategoryKey(DashCate::vNic.name()),
                       [&](std::string_view, const store::ValueView& value) {
                         bool may_contain = value.text.find('\\') != std::string_view::npos;
                         for (const std::string& text : texts) {
                           may_contain = may_contain || value.text.find(text) != std::string_view::npos;
                         }
                         if (!may_contain) return true;
                         if (const Result<Json::Value> record = ParseJson(value.text)) visit(*record);
                         return true;
                       });
}

}  // namespace

Result<std::vector<std::string>> FindNetworkUsers(const store::Snapshot& snapshot, const records::Network& network) {
  std::set<std::string> guest_ids;
  const Status scanned = ScanInterfaces(snapshot, {network.id, network.network_name}, [&](const Json::Value& record) {
    if (json::StringMember(record, keys::network_group_id) == network.id ||
        json::StringMember(record, kNetworkName) == network.network_name) {
      guest_ids.insert(json::StringMember(record, keys::guest_id));
    }
  });
  if (!scanned) return scanned.error();
  std::vector<std::string> users;
  for (const std::string& id : guest_ids) {
    const auto guest = records::ReadNamedRecord(snapshot, DashCate::Guest.name(), id);
    if (!guest) return guest.error();
    users.push_back(*guest ? "the guest '" + records::DisplayName(**guest) + "'"
                           : "an interface without a guest ('" + SanitizeForLog(id, records::kMaxRecordName) + "')");
  }
  return users;
}

Result<std::string> FindNetworkIdOfInterfaces(const store::Snapshot& snapshot, const std::string& network_name,
                                              const std::string& usual_id) {
  std::set<std::string> ids;
  const Status scanned = ScanInterfaces(snapshot, {network_name}, [&](const Json::Value& record) {
    if (json::StringMember(record, kNetworkName) != network_name) return;
    const std::string id = NormalizeUuid(json::StringMember(record, keys::network_group_id));
    if (!id.empty()) ids.insert(id);
  });
  if (!scanned) return scanned.error();
  if (ids.empty() || ids.contains(usual_id)) return usual_id;
  return *ids.begin();
}

}  // namespace vexa::networks
