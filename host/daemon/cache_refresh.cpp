#include "host/daemon/cache_refresh.h"

#include <unistd.h>

#include <chrono>
#include <memory>
#include <utility>

#include "host/cache/cache_paths.h"
#include "host/cache/cache_refresher.h"
#include "webapi/guest/guest_uistate_cache.h"

namespace vexa::daemon {
namespace {

constexpr char kGroup[] = "virtualization";
constexpr char kGuestStates[] = "guest_ui_status";

// A background refresh can wait for the links of network interfaces. A first value without them would show guests as
// connected that are not.
constexpr std::chrono::seconds kMaxWaitForLinks{10};

// Takes the states from the guest list, which is kept up to date anyway, so that no host is called an additional time.
class ListedStates : public VexaVirtualization::GuestUIStatusCache {
 public:
  explicit ListedStates(api::GuestStates& states) : states_(states) {}

  bool GetUpdatedData(Json::Value& data) const override {
    const Result<api::GuestListing> listing = states_.ListWith(states_.links().Get(kMaxWaitForLinks));
    if (!listing) return GuestUIStatusCache::GetUpdatedData(data);
    data = Json::Value(Json::objectValue);
    Json::Value& guests = data["guests"] = Json::Value(Json::arrayValue);
    for (const auto& guest : *listing->guests) {
      if (!guest->has_record) continue;
      VexaVirtualization::GuestUIStatus status(guest->id);
      status.status = guest->displayed.state;
      status.status_type = guest->displayed.type;
      guests.append(status.ToJson());
    }
    return true;
  }

 private:
  api::GuestStates& states_;
};

}  // namespace

void InstallCacheRefresh(api::GuestStates& states) {
  auto refresher = std::make_unique<cache::CacheRefresher>();
  refresher->Add(
      kGroup, kGuestStates, [&states] { return std::make_unique<ListedStates>(states); },
      [&states]() -> std::uint64_t {
        const Result<api::GuestListing> listing = states.List();
        return listing ? listing->version : 0;
      });
  cache::InstallCacheRefresher(std::move(refresher));
}

void InvalidateCaches(const std::string& cache_directory) {
  const auto paths = cache::PathsOfCache(cache_directory, kGroup, kGuestStates);
  if (!paths) return;
  ::unlink(paths->record.c_str());
  cache::RequestCacheRefresh(kGroup, kGuestStates);
}

}  // namespace vexa::daemon
