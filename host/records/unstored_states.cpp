#include "host/records/unstored_states.h"

#include <atomic>
#include <map>

#include "host/base/mutex.h"

namespace vexa::records {
namespace {

struct UnstoredStates {
  Mutex mutex;
  std::map<std::string, std::string> states VEXA_GUARDED_BY(mutex);
  std::atomic<bool> has_any{false};  // readers skip the lock while this is false
};

UnstoredStates& All() {
  static UnstoredStates all;
  return all;
}

}  // namespace

void SetUnstoredState(const std::string& guest_id, const std::string& state) {
  const MutexLock lock(All().mutex);
  All().states[guest_id] = state;
  All().has_any = true;
}

void ClearUnstoredState(const std::string& guest_id) {
  if (!All().has_any) return;
  const MutexLock lock(All().mutex);
  All().states.erase(guest_id);
  All().has_any = !All().states.empty();
}

std::optional<std::string> UnstoredState(const std::string& guest_id) {
  if (!All().has_any) return std::nullopt;
  const MutexLock lock(All().mutex);
  const auto found = All().states.find(guest_id);
  return found == All().states.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace vexa::records
