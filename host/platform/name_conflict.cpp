// Checks whether a name is taken, in one pass over the category's records.
//
// There is no index of names, because every writer of a record, imports and repairs included, would have to maintain
// it, and a name missing from it would be assigned twice. A pass is fast: the records are in memory, and almost none of
// them is parsed.
#include <fmt/format.h>

#include "host/base/sanitize_for_log.h"
#include "host/records/last_finding.h"
#include "host/records/name_search.h"
#include "host/records/request_scope.h"
#include "webapi/platform/ccc.h"

namespace VexaCCC::Utils {
namespace {

constexpr std::size_t kMaxShown = 128;

}  // namespace

int CheckNameConflict(const std::string& name, const DB::DashCate& category) {
  const auto reader = vexa::records::ReaderOfRequest();
  if (!reader) return -1;
  const vexa::Result<bool> taken = vexa::records::IsNameTaken(**reader, name, category);
  if (!taken) return -1;
  if (!*taken) return 0;
  vexa::records::FindingScope::Add(
      {fmt::format("Another {} has the name '{}'.", category.name(), vexa::SanitizeForLog(name, kMaxShown)), true});
  return 1;
}

}  // namespace VexaCCC::Utils
