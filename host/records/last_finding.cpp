#include "host/records/last_finding.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/records/keys.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {
namespace {

using VexaCCC::DB::DashCate;

constexpr std::size_t kMaxShown = 128;

thread_local FindingScope* innermost = nullptr;

std::string_view WordFor(const std::string& category) {
  if (category == DashCate::vDisk.name()) return "disk";
  if (category == DashCate::vNic.name()) return "network interface";
  return category;
}

}  // namespace

FindingScope::FindingScope() : outer_(innermost) { innermost = this; }
FindingScope::~FindingScope() { innermost = outer_; }

void FindingScope::Add(Finding finding) {
  if (innermost != nullptr) innermost->last_ = std::move(finding);
}

void FindingScope::AddMissing(const std::string& category, const std::string& id, const std::string& member) {
  if (innermost == nullptr) return;
  if (member == keys::object) {
    return Add({fmt::format("There is no {} '{}'.", WordFor(category), SanitizeForLog(id, kMaxShown)), true});
  }
  Add({fmt::format("The record of {} does not exist, or lacks '{}'.", ObjectForUsers(category, id),
                   SanitizeForLog(member, kMaxShown)),
       true});
}

void FindingScope::AddUnreadable(const std::string& what, const Error& error) {
  if (innermost == nullptr) return;
  Add({fmt::format("The record of {} cannot be read: {}.", what, error.ToString()), false});
}

std::string ObjectForUsers(const std::string& category, const std::string& id) {
  return fmt::format("the {} '{}'", WordFor(category), SanitizeForLog(id, kMaxShown));
}

}  // namespace vexa::records
