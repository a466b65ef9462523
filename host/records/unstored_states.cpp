#include "host/records/unstored_states.h"

#include <atomic>
#include <map>
#include <mutex>

namespace vexa::cluster {
namespace {

struct Unstored {
  std::mutex mutex;
  std::map<std::string, std::string> states;
  std::atomic<bool> has_any{false};  // so that the lock is not needed in normal operation
};

Unstored& All() {
  static Unstored all;
  return all;
}

}  // namespace

void NoteUnstoredState(const std::string& guest_id, const std::string& state) {
  const std::lock_guard lock(All().mutex);
  All().states[guest_id] = state;
  All().has_any = true;
}

void ForgetUnstoredState(const std::string& guest_id) {
  if (!All().has_any) return;
  const std::lock_guard lock(All().mutex);
  All().states.erase(guest_id);
  All().has_any = !All().states.empty();
}

std::optional<std::string> UnstoredState(const std::string& guest_id) {
  if (!All().has_any) return std::nullopt;
  const std::lock_guard lock(All().mutex);
  const auto found = All().states.find(guest_id);
  return found == All().states.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace vexa::cluster
