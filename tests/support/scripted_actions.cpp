// The scripted platform: what deleting guests and controlling their power needs.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "tests/support/scripted_platform.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"
#include "webapi/platform/ccc_log.h"
#include "webapi/platform/ccc_state.h"

using vexa::test::Platform;

namespace VexaCCC {

void ClusterLogAdd(const std::string& user, CLOG_PRIORITY priority, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(static_cast<std::size_t>(std::max(length, 0)), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  Platform().calls.push_back("log " + std::to_string(priority));
  Platform().cluster_log.push_back({user, priority, text});
}

int gaGuestDelete(const std::string& guest_id) {
  Platform().calls.push_back("guest_delete " + guest_id);
  Platform().deleted_guests.push_back(guest_id);
  return Platform().guest_delete_result;
}

bool ClConfAutoSelHostGet() {
  Platform().calls.emplace_back("auto_select");
  return Platform().auto_select;
}

namespace Utils {
bool IsNotEmpty(const std::string& text) { return !text.empty(); }
}  // namespace Utils

}  // namespace VexaCCC

int vgConfHostGet(const std::string& guest_id, std::string& host_id) {
  auto& calls = Platform().calls;
  const std::string call = "guest_host " + guest_id;
  const auto asked = static_cast<std::size_t>(std::count(calls.begin(), calls.end(), call));
  calls.push_back(call);
  const auto& answers = Platform().guest_hosts;
  if (answers.empty()) return -1;
  const auto& [result, host] = answers[std::min(asked, answers.size() - 1)];
  if (!host.empty()) host_id = host;
  return result;
}
