#include "webapi/guest/cluster_line.h"

namespace VexaVirtualization {

void Tell(const std::string& user, VexaCCC::CLOG_PRIORITY priority, const Line& line, const LineValues& values) {
  if (line.fill == Fill::kNoLine) return;
  const std::string& first = line.fill == Fill::kOperation ? values.operation : values.guest;
  // Formats are rows of tables, which have been checked; a value that a line has no place for is ignored.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  VexaCCC::ClusterLogAdd(user, priority, line.format, first.c_str(), values.host.c_str());
#pragma GCC diagnostic pop
}

}  // namespace VexaVirtualization
