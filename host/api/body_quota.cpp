#include "host/api/body_quota.h"

#include <string>
#include <unordered_map>

#include "host/base/mutex.h"

namespace vexa::api {
namespace {

using Bytes = std::unordered_map<std::string, std::size_t>;

// Whether `bytes` fit beside what `name` has, apart from `own`.
bool Fit(const Bytes& counts, const std::string& name, std::size_t own, std::size_t bytes, std::size_t limit) {
  const auto found = counts.find(name);
  const std::size_t others = found == counts.end() ? 0 : found->second - own;
  return others == 0 || others + bytes <= limit;
}

void Replace(Bytes& counts, const std::string& name, std::size_t old_bytes, std::size_t new_bytes) {
  std::size_t& count = counts[name];
  count = count - old_bytes + new_bytes;
  if (count == 0) counts.erase(name);
}

}  // namespace

// Without the names that have no bytes.
struct BodyQuota::Counts {
  Mutex mutex;
  Bytes owners VEXA_GUARDED_BY(mutex);
  Bytes hosts VEXA_GUARDED_BY(mutex);
};

BodyQuota::BodyQuota() : counts_(std::make_shared<Counts>()) {}

std::unique_ptr<BodyQuota::Share> BodyQuota::Take(const JobOwner& owner, std::size_t bytes) {
  std::unique_ptr<Share> share(new Share(counts_, owner));
  return share->Resize(bytes) ? std::move(share) : nullptr;
}

bool BodyQuota::Share::Resize(std::size_t bytes) {
  if (bytes <= kSmallBodyBytes) bytes = 0;
  if (bytes == bytes_) return true;
  const bool has_host = !owner_.host.empty();
  const MutexLock lock(counts_->mutex);
  if (bytes > bytes_) {
    if (!Fit(counts_->owners, owner_.user, bytes_, bytes, kBodyBytesPerCaller)) return false;
    if (has_host && !Fit(counts_->hosts, owner_.host, bytes_, bytes, kBodyBytesPerHost)) return false;
  }
  Replace(counts_->owners, owner_.user, bytes_, bytes);
  if (has_host) Replace(counts_->hosts, owner_.host, bytes_, bytes);
  bytes_ = bytes;
  return true;
}

BodyQuota::Share::~Share() { (void)Resize(0); }

}  // namespace vexa::api
