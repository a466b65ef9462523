#include "host/machine/virtual_switch.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>

#include "host/base/descriptor.h"
#include "host/base/json_parse.h"
#include "host/base/mutex.h"
#include "json/readers.h"

namespace vexa::machine {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kSocket = "/run/openvswitch/db.sock";
constexpr std::chrono::milliseconds kTimeout{1000};
constexpr std::size_t kMaxReplyBytes = std::size_t{16} << 20;

// After a timeout, the switch is not queried for a while: many requests would otherwise wait for a switch that hangs.
class BackOff {
 public:
  bool IsBackingOff(const std::string& path) {
    const MutexLock lock(mutex_);
    const auto found = until_.find(path);
    return found != until_.end() && Clock::now() < found->second;
  }
  void Start(const std::string& path) {
    const MutexLock lock(mutex_);
    until_[path] = Clock::now() + kBackOffTime;
  }

 private:
  static constexpr std::chrono::seconds kBackOffTime{30};
  Mutex mutex_;
  std::map<std::string, Clock::time_point> until_ VEXA_GUARDED_BY(mutex_);
};

BackOff& SwitchBackOff() {
  static BackOff back_off;
  return back_off;
}

// Finds the end of a JSON object in a stream that has no separators between messages.
class ObjectEndFinder {
 public:
  // Whether the object ends in `text`, which continues the text of earlier calls.
  bool IsReached(std::string_view text) {
    for (const char c : text) {
      if (is_escaped_) {
        is_escaped_ = false;
      } else if (in_string_) {
        if (c == '\\') is_escaped_ = true;
        if (c == '"') in_string_ = false;
      } else if (c == '"') {
        in_string_ = true;
      } else if (c == '{') {
        ++depth_;
      } else if (c == '}' && --depth_ <= 0) {
        return true;
      }
    }
    return false;
  }

 private:
  int depth_ = 0;
  bool in_string_ = false;
  bool is_escaped_ = false;
};

// A non-blocking connection to the socket; -1 on failure.
int Connect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return -1;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  ::close(fd);
  return -1;
}

bool AwaitReady(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    // Rounded up, so that a timeout never ends before the deadline: ReadSwitch compares the time with it to distinguish
    // a switch that hangs from one that closed the connection.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd request{fd, events, 0};
    const int ready = ::poll(&request, 1, static_cast<int>(left));
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
}

bool SendAll(int fd, std::string_view text, Clock::time_point deadline) {
  while (!text.empty()) {
    const ssize_t sent = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent > 0) {
      text.remove_prefix(static_cast<std::size_t>(sent));
    } else if (errno == EAGAIN || errno == EINTR) {
      if (!AwaitReady(fd, POLLOUT, deadline)) return false;
    } else {
      return false;
    }
  }
  return true;
}

std::optional<std::string> ReceiveObject(int fd, Clock::time_point deadline) {
  std::string text;
  ObjectEndFinder object_end;
  std::array<char, 16384> buffer{};
  while (AwaitReady(fd, POLLIN, deadline)) {
    const ssize_t count = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (count <= 0) break;
    const std::string_view part(buffer.data(), static_cast<std::size_t>(count));
    text += part;
    if (object_end.IsReached(part)) return text;
    if (text.size() > kMaxReplyBytes) break;
  }
  return std::nullopt;
}

// The elements of a column with any number of values, which is either a single value or ["set", [value, …]].
std::vector<const Json::Value*> ElementsOf(const Json::Value& column) {
  const bool is_set = column.isArray() && json::String(json::Element(column, 0)) == "set";
  std::vector<const Json::Value*> elements;
  if (!is_set) return {&column};
  for (const Json::Value& element : json::Elements(json::Element(column, 1))) elements.push_back(&element);
  return elements;
}

// The UUID in ["uuid", "…"]; "" for any other value.
std::string UuidIn(const Json::Value& value) {
  return json::String(json::Element(value, 0)) == "uuid" ? json::String(json::Element(value, 1)) : std::string();
}

// The value for `name` in ["map", [["name", "value"], …]]; "" when absent.
std::string MapValue(const Json::Value& map, std::string_view name) {
  for (const Json::Value& pair : json::Elements(json::Element(map, 1))) {
    if (json::String(json::Element(pair, 0)) == name) return json::String(json::Element(pair, 1));
  }
  return "";
}

Json::Value Select(const char* table, std::initializer_list<const char*> columns) {
  Json::Value select(Json::objectValue);
  select["op"] = "select";
  select["table"] = table;
  select["where"] = Json::Value(Json::arrayValue);
  for (const char* const column : columns) select["columns"].append(column);
  return select;
}

const Json::Value& Rows(const Json::Value& results, Json::ArrayIndex index) {
  return json::Elements(json::Member(json::Element(results, index), "rows"));
}

}  // namespace

std::string SwitchQuery() {
  Json::Value query(Json::objectValue);
  query["id"] = 1;
  query["method"] = "transact";
  Json::Value& parameters = query["params"];
  parameters.append("Open_vSwitch");
  parameters.append(Select("Bridge", {"name", "ports"}));
  parameters.append(Select("Port", {"_uuid", "interfaces"}));
  parameters.append(Select("Interface", {"_uuid", "name", "type", "options", "link_state"}));
  return json::ToText(query);
}

std::optional<SwitchBridges> ParseSwitchReply(const Json::Value& reply) {
  const Json::Value& results = json::Member(reply, "result");
  if (!json::Member(reply, "error").isNull() || json::Elements(results).size() != 3) return std::nullopt;
  for (const Json::Value& result : results) {
    if (!json::Member(result, "rows").isArray()) return std::nullopt;
  }
  std::map<std::string, SwitchPort> interfaces;
  for (const Json::Value& row : Rows(results, 2)) {
    SwitchPort port;
    port.name = json::String(json::Member(row, "name"));
    port.type = json::String(json::Member(row, "type"));
    port.peer = MapValue(json::Member(row, "options"), "peer");
    port.has_link = json::String(json::Member(row, "link_state")) == "up";
    interfaces.emplace(UuidIn(json::Member(row, "_uuid")), std::move(port));
  }
  // A port has several interfaces if it is a bond.
  std::map<std::string, std::vector<SwitchPort>> ports;
  for (const Json::Value& row : Rows(results, 1)) {
    std::vector<SwitchPort>& members = ports[UuidIn(json::Member(row, "_uuid"))];
    for (const Json::Value* const id : ElementsOf(json::Member(row, "interfaces"))) {
      const auto found = interfaces.find(UuidIn(*id));
      if (found != interfaces.end()) members.push_back(found->second);
    }
  }
  SwitchBridges bridges;
  for (const Json::Value& row : Rows(results, 0)) {
    std::vector<SwitchPort>& members = bridges[json::String(json::Member(row, "name"))];
    for (const Json::Value* const id : ElementsOf(json::Member(row, "ports"))) {
      const auto found = ports.find(UuidIn(*id));
      if (found != ports.end()) members.insert(members.end(), found->second.begin(), found->second.end());
    }
  }
  return bridges;
}

std::optional<SwitchBridges> ReadSwitch(const std::string& root) {
  const std::string path = root + kSocket;
  if (SwitchBackOff().IsBackingOff(path)) return std::nullopt;
  const Descriptor connection(Connect(path));
  if (connection.get() < 0) return std::nullopt;
  const Clock::time_point deadline = Clock::now() + kTimeout;
  std::optional<std::string> text;
  if (SendAll(connection.get(), SwitchQuery(), deadline)) text = ReceiveObject(connection.get(), deadline);
  if (!text && Clock::now() >= deadline) SwitchBackOff().Start(path);
  if (!text) return std::nullopt;
  const Result<Json::Value> reply = ParseJson(*text);
  return reply ? ParseSwitchReply(*reply) : std::nullopt;
}

}  // namespace vexa::machine
