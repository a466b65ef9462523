#include "host/api/user/shown_guest.h"

#include <chrono>
#include <map>
#include <optional>

#include "host/api/user/gone_host.h"
#include "host/records/reading.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
namespace states = VexaCCC::State::Guest;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;
using Links = ShownGuest::Links;

std::string ReadText(const std::string& guest_id, const char* key) {
  std::string text;
  (void)Dashboard(DashCate::Guest, guest_id).Get(text, key);
  return text;
}

std::string HostOfRepository(const std::string& repository_id) {
  if (repository_id.empty()) return {};
  const Result<cluster::Record> record = cluster::ReadObject(DashCate::Repository.name(), repository_id);
  return record ? json::TextMember(**record, keys::host_id) : std::string();
}

Links MeaningOf(const std::optional<int>& bits) {
  if (!bits) return Links::kUnknown;
  return *bits != 0 ? Links::kConnected : Links::kDisconnected;
}

bool IsLost(const std::string& state) { return state == states::inaccessible || state == states::crashed; }

// Fills what depends on the guest's record; `record` may come from the dashboard or from the local configuration.
void Judge(const Json::Value& record, const GuestLinks& links, ShownGuest& guest, std::string& reason) {
  guest.has_record = true;
  guest.repository_id = json::String(json::Member(record, keys::repository_id));
  guest.repository_host_id = HostOfRepository(guest.repository_id);
  std::string state = json::String(json::Member(record, keys::state));
  std::optional<int> bits;
  if (VexaCCC::Utils::IsGuestStateOnline(state)) bits = KnownLinks(links, guest.id, record);
  std::map<std::string, int> connected;
  if (bits) connected.emplace(guest.id, *bits);
  VexaVirtualization::GetGuestStateType(record, connected, guest.id, state, guest.shown.state, guest.shown.type,
                                        reason);
  const bool matters = VexaCCC::Utils::IsGuestStateOnline(state) && !IsLost(state);
  guest.links = matters ? MeaningOf(bits) : Links::kNoMatter;
}

std::chrono::seconds AgeOf(GuestLinks::Clock::time_point asked) {
  return std::chrono::duration_cast<std::chrono::seconds>(GuestLinks::Clock::now() - asked);
}

}  // namespace

bool ShownGuest::operator==(const ShownGuest& other) const {
  return id == other.id && name == other.name && host_id == other.host_id && repository_id == other.repository_id &&
         repository_host_id == other.repository_host_id && shown.state == other.shown.state &&
         shown.type == other.shown.type && links == other.links && has_record == other.has_record;
}

std::shared_ptr<const ShownGuest> DeriveGuest(const std::string& guest_id, const GuestLinks& links) {
  auto guest = std::make_shared<ShownGuest>();
  guest->id = guest_id;
  guest->name = ReadText(guest_id, keys::name);
  guest->host_id = ReadText(guest_id, keys::host_id);
  Json::Value record;
  if (vgConfGet(guest_id, record) == 0) {
    std::string reason;
    Judge(record, links, *guest, reason);
  } else {
    VexaVirtualization::GetStateType(VexaVirtualization::STATE_CATE_GUEST, ReadText(guest_id, keys::state),
                                     guest->shown);
  }
  return guest;
}

GuestStatus StatusOf(const std::string& guest_id, const Json::Value& record, const GuestLinks& links) {
  GuestStatus status;
  status.guest.id = guest_id;
  status.guest.name = json::String(json::Member(record, keys::name));
  status.guest.host_id = json::String(json::Member(record, keys::host_id));
  Judge(record, links, status.guest, status.reason);
  return status;
}

void ShowAge(const ShownGuest& guest, const GuestLinks& links, const cluster::HostLife& host,
             const cluster::HostLife& repository_host, Json::Value& shown) {
  const bool by_links = guest.links == Links::kConnected || guest.links == Links::kDisconnected;
  const std::chrono::seconds age = by_links ? AgeOf(links.OriginOf(guest.id).asked) : std::chrono::seconds(0);
  const bool is_storage_gone = !host.is_gone && repository_host.is_gone;
  ShowLife(is_storage_gone ? repository_host : host, std::chrono::system_clock::now(), age, shown);
}

}  // namespace vexa::services
