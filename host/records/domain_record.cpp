#include "host/records/domain_record.h"

#include <fmt/format.h>

#include "host/base/json_parse.h"
#include "host/records/keys.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {
namespace {

constexpr char kDomain[] = "domain";
constexpr char kXml[] = "xml";
constexpr char kAutostart[] = "autostart";
constexpr char kOwnImages[] = "own_images";  // absent: false

}  // namespace

std::string DomainKey(const std::string& guest_id) {
  return MemberKey(VexaCCC::DB::DashCate::Guest.name(), guest_id, kDomain);
}

std::string UndefineKey(const std::string& host_id, const std::string& guest_id) {
  return store::MakeKey({"undefine", host_id, guest_id});
}

std::string SerializeDomain(const DomainRecord& domain) {
  Json::Value record(Json::objectValue);
  record[kXml] = domain.xml;
  record[kAutostart] = domain.autostart;
  if (domain.has_own_images) record[kOwnImages] = true;
  return json::ToText(record);
}

Result<std::optional<StoredDomain>> ReadDomain(const store::Snapshot& snapshot, const std::string& guest_id) {
  const auto value = snapshot.Get(DomainKey(guest_id));
  if (!value) return value.error();
  if (!value->has_value()) return std::optional<StoredDomain>();
  const Result<Json::Value> parsed = ParseJson((*value)->text);
  StoredDomain stored;
  stored.revision = (*value)->revision;
  if (parsed) {
    const Json::Value& xml = json::Member(*parsed, kXml);
    if (xml.isString()) stored.domain.xml = json::String(xml);
    stored.domain.autostart = json::Bool(json::Member(*parsed, kAutostart));
    stored.domain.has_own_images = json::Bool(json::Member(*parsed, kOwnImages));
  }
  if (stored.domain.xml.empty()) {
    return Error(ErrorCode::kCorrupt,
                 fmt::format("The imported definition of the guest '{}' cannot be read", guest_id));
  }
  return std::optional(std::move(stored));
}

}  // namespace vexa::records
