#include "webapi/guest/cluster_line.h"

namespace VexaVirtualization {

void AddToClusterLog(const std::string& user, VexaCCC::CLOG_PRIORITY priority, const Line& line,
                     const LineValues& values) {
  if (line.placeholders == Placeholders::kNoLine) return;
  const std::string& first = line.placeholders == Placeholders::kOperation ? values.operation : values.guest;
  // The formats come from tables that are checked at compile time. Arguments beyond a format's placeholders are
  // ignored.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  VexaCCC::ClusterLogAdd(user, priority, line.format, first.c_str(), values.host.c_str());
#pragma GCC diagnostic pop
}

}  // namespace VexaVirtualization
