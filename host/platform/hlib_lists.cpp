// The string lists and hashes of webapi/platform/base.h. Callers do not expect exceptions, so running out of memory is
// reported as a failure.
#include <algorithm>
#include <exception>
#include <iterator>
#include <memory>

#include "host/platform/hlib_error.h"
#include "host/platform/hlib_types.h"
#include "webapi/platform/base.h"

using vexa::platform::HlibError;
using vexa::platform::SetHlibError;

namespace {

// Lists grow automatically, so a capacity above this one is reduced: a wrong one must not take all memory.
constexpr int kMaxReserved = 65536;

}  // namespace

PSZLIST HLIBCSzListAlloc(int capacity) {
  if (capacity < 0) {
    SetHlibError(HlibError::kBadArgument);
    return nullptr;
  }
  try {
    auto list = std::make_unique<HLIBCSzList>();
    list->strings.reserve(static_cast<std::size_t>(std::min(capacity, kMaxReserved)));
    return list.release();
  } catch (const std::exception&) {
    SetHlibError(HlibError::kNoMemory);
    return nullptr;
  }
}

void HLIBCSzListFree(PSZLIST list) { delete list; }

int HLIBCSzListCount(PSZLIST list) { return list ? static_cast<int>(list->strings.size()) : 0; }

const char* HLIBCSzListGet(PSZLIST list, int index) {
  if (!list || index < 0 || static_cast<std::size_t>(index) >= list->strings.size()) {
    SetHlibError(HlibError::kBadArgument);
    return nullptr;
  }
  return list->strings[static_cast<std::size_t>(index)].c_str();
}

int HLIBCSzHashEnumKey(PSZHASH hash, PSZLIST list) {
  if (!hash || !list) {
    SetHlibError(HlibError::kBadArgument);
    return -1;
  }
  try {
    std::vector<std::string> keys;
    keys.reserve(hash->values.size());
    for (const auto& [number, value] : hash->values) keys.push_back(std::to_string(number));
    // Reserve first, so that the list is unchanged if this fails.
    list->strings.reserve(list->strings.size() + keys.size());
    std::move(keys.begin(), keys.end(), std::back_inserter(list->strings));
    return 0;
  } catch (const std::exception&) {
    SetHlibError(HlibError::kNoMemory);
    return -1;
  }
}

void HLIBCSzHashFree(PSZHASH hash) { delete hash; }
