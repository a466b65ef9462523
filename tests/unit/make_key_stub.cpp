// Keys for tests of what an import builds, for builds without the store's library. Only for segments that need no
// encoding.
#include "host/store/key.h"

namespace vexa::store {

std::string MakeKey(std::initializer_list<std::string_view> segments) {
  std::string key;
  for (const std::string_view segment : segments) key += "/" + std::string(segment);
  return key;
}

}  // namespace vexa::store
