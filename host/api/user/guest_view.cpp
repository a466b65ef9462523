#include "host/api/user/guest_view.h"

#include <chrono>
#include <map>
#include <optional>

#include "host/api/user/unreachable_host.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::api {
namespace {

namespace states = VexaCCC::State::Guest;
using VexaCCC::DB::DashCate;
using Links = GuestView::Links;

std::string HostOfRepository(const records::Reader& reader, const std::string& repository_id) {
  if (repository_id.empty()) return {};
  const Result<records::Record> record = reader.ReadObject(DashCate::Repository.name(), repository_id);
  return record ? json::StringMember(**record, keys::host_id) : std::string();
}

Links LinksFromBits(const std::optional<int>& bits) {
  if (!bits) return Links::kUnknown;
  return *bits != 0 ? Links::kConnected : Links::kDisconnected;
}

bool IsLost(const std::string& state) { return state == states::inaccessible || state == states::crashed; }

// Fills the members that depend on the guest's record; `record` may come from the dashboard or from the local
// configuration.
void FillDerived(const records::Reader& reader, const Json::Value& record, const GuestLinkStates& links,
                 GuestView& guest, std::string& reason) {
  guest.has_record = true;
  guest.repository_id = json::String(json::Member(record, keys::repository_id));
  guest.repository_host_id = HostOfRepository(reader, guest.repository_id);
  std::string state = json::String(json::Member(record, keys::state));
  std::optional<int> bits;
  if (VexaCCC::Utils::IsGuestStateOnline(state)) bits = KnownLinks(reader, links, guest.id, record);
  std::map<std::string, int> connected;
  if (bits) connected.emplace(guest.id, *bits);
  VexaVirtualization::GetGuestStateType(record, connected, guest.id, state, guest.displayed.state, guest.displayed.type,
                                        reason);
  const bool has_relevant_links = VexaCCC::Utils::IsGuestStateOnline(state) && !IsLost(state);
  guest.links = has_relevant_links ? LinksFromBits(bits) : Links::kIrrelevant;
}

std::chrono::seconds AgeOf(GuestLinkStates::Clock::time_point asked) {
  return std::chrono::duration_cast<std::chrono::seconds>(GuestLinkStates::Clock::now() - asked);
}

}  // namespace

bool GuestView::operator==(const GuestView& other) const {
  return id == other.id && name == other.name && host_id == other.host_id && repository_id == other.repository_id &&
         repository_host_id == other.repository_host_id && displayed.state == other.displayed.state &&
         displayed.type == other.displayed.type && links == other.links && has_record == other.has_record;
}

std::shared_ptr<const GuestView> DeriveGuest(const records::Reader& reader, const std::string& guest_id,
                                             const GuestLinkStates& links) {
  auto guest = std::make_shared<GuestView>();
  guest->id = guest_id;
  const auto text_of = [&](const char* key) {
    return records::ReadStringOrEmpty(reader, DashCate::Guest, guest_id, key);
  };
  guest->name = text_of(keys::name);
  guest->host_id = text_of(keys::host_id);
  Json::Value record;
  if (vgConfGet(guest_id, record) == 0) {
    std::string reason;
    FillDerived(reader, record, links, *guest, reason);
  } else {
    VexaVirtualization::GetStateType(VexaVirtualization::STATE_CATE_GUEST, text_of(keys::state), guest->displayed);
  }
  return guest;
}

GuestStatus StatusOf(const records::Reader& reader, const std::string& guest_id, const Json::Value& record,
                     const GuestLinkStates& links) {
  GuestStatus status;
  status.guest.id = guest_id;
  status.guest.name = json::String(json::Member(record, keys::name));
  status.guest.host_id = json::String(json::Member(record, keys::host_id));
  FillDerived(reader, record, links, status.guest, status.reason);
  return status;
}

void AddAge(const GuestView& guest, const GuestLinkStates& links, const records::HostLiveness& host,
            const records::HostLiveness& repository_host, Json::Value& view) {
  const bool depends_on_links = guest.links == Links::kConnected || guest.links == Links::kDisconnected;
  const std::chrono::seconds age = depends_on_links ? AgeOf(links.OriginOf(guest.id).asked) : std::chrono::seconds(0);
  const bool is_storage_gone = !host.is_gone && repository_host.is_gone;
  AddLiveness(is_storage_gone ? repository_host : host, std::chrono::system_clock::now(), age, view);
}

}  // namespace vexa::api
