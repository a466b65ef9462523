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

// A background refresh can afford to wait for links, and a first value without them would show guests as linked that
// are not.
constexpr std::chrono::seconds kLongestWaitForLinks{10};

// The states of guests as lists show them, which are kept up to date anyway: no host is asked an additional time.
class ListedStates : public VexaVirtualization::GuestUIStatusCache {
 public:
  explicit ListedStates(services::GuestStates& states) : states_(states) {}

  bool GetUpdatedData(Json::Value& data) const override {
    const Result<services::GuestListing> listing = states_.ListWith(states_.links().Get(kLongestWaitForLinks));
    if (!listing) return GuestUIStatusCache::GetUpdatedData(data);
    data = Json::Value(Json::objectValue);
    Json::Value& guests = data["guests"] = Json::Value(Json::arrayValue);
    for (const auto& guest : *listing->guests) {
      if (!guest->has_record) continue;
      VexaVirtualization::GuestUIStatus status(guest->id);
      status.status = guest->shown.state;
      status.status_type = guest->shown.type;
      guests.append(status.ToJson());
    }
    return true;
  }

 private:
  services::GuestStates& states_;
};

}  // namespace

void InstallCacheRefresh(services::GuestStates& states) {
  auto refresher = std::make_unique<cluster::CacheRefresher>();
  refresher->Add(
      kGroup, kGuestStates, [&states] { return std::make_unique<ListedStates>(states); },
      [&states]() -> std::uint64_t {
        const Result<services::GuestListing> listing = states.List();
        return listing ? listing->version : 0;
      });
  cluster::InstallCacheRefresher(std::move(refresher));
}

void FindOutAgain(const std::string& cache_directory) {
  const auto paths = cluster::PathsOfCache(cache_directory, kGroup, kGuestStates);
  if (!paths) return;
  ::unlink(paths->record.c_str());
  cluster::RequestCacheRefresh(kGroup, kGuestStates);
}

}  // namespace vexa::daemon
