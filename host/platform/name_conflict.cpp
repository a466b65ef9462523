// Checks whether a name is taken, in one pass over the category's records.
//
// There is no index of names: every writer of a record, imports and repairs included, would have to maintain it, and a
// name missing from it would be assigned twice. A pass reads what the store has in memory anyway and parses almost none
// of it.
#include <string_view>

#include "host/records/keys.h"
#include "host/records/name_search.h"
#include "host/records/reading.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {
namespace {

Result<bool> IsNameTaken(const std::string& name, const VexaCCC::DB::DashCate& category) {
  const std::string prefix = CategoryKey(category.name());
  NameSearch search(name);
  bool taken = false;
  const Status scanned = ScanValues(prefix, [&](std::string_view key, const store::ValueView& value) {
    if (key.size() > prefix.size()) taken = search.Matches(key.substr(prefix.size() + 1), value.text);
    return !taken;
  });
  if (!scanned) return scanned.error();
  return taken;
}

}  // namespace
}  // namespace vexa::cluster

namespace VexaCCC::Utils {

int CheckNameConflict(const std::string& name, const DB::DashCate& category) {
  const vexa::Result<bool> taken = vexa::cluster::IsNameTaken(name, category);
  if (!taken) return -1;
  return *taken ? 1 : 0;
}

}  // namespace VexaCCC::Utils
