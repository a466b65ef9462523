#include "host/store/key.h"
#include "webapi/platform/etcd.h"

namespace VexaETCD {

Path::Path(std::initializer_list<std::string> parts) {
  for (const std::string& part : parts) {
    if (!text_.empty()) text_ += '/';
    text_ += vexa::store::EncodeSegment(part);
  }
}

}  // namespace VexaETCD
