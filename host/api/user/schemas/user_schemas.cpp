#include "host/api/user/schemas/user_schemas.h"

#include <iterator>

#include "webapi/utils/utils.h"

namespace vexa::api {

const std::vector<MethodSchema>& UserSchemas() {
  static const std::vector<MethodSchema> all = [] {
    std::vector<MethodSchema> schemas;
    for (auto&& part : {AccountSchemas(), ClusterSchemas(), GuestSchemas(), GuestEditSchemas(), HostSchemas(),
                        NetworkSchemas(), StorageSchemas()}) {
      schemas.insert(schemas.end(), part.begin(), part.end());
    }
    return schemas;
  }();
  return all;
}

Schema Severity() {
  return shape::String("How severe the state is.").OneOf({"healthy", "warning", "error"}).Like("healthy");
}

Schema DisplayedState(int category, const std::string& description) {
  std::string values;
  std::string first;
  for (const VexaVirtualization::VirtualizationState* row = VexaVirtualization::StateTable;
       row->cate != VexaVirtualization::STATE_CATE_NONE; ++row) {
    if (row->cate != category) continue;
    if (first.empty()) first = row->ui_state;
    values += (values.empty() ? "" : ", ") + row->ui_state;
  }
  return shape::String(description + " One of " + values + "; a later version may add some.").Like(first);
}

Schema MacAddress(const std::string& description) { return shape::String(description).Like("02:00:5e:10:00:01"); }

}  // namespace vexa::api
