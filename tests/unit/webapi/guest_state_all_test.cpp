// A guest's state in every combination of its inputs, against an independent model of the rules.
#include <optional>
#include <string>

#include "tests/unit/webapi/state_fixture.h"
#include "webapi/platform/ccc_constants.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

namespace Guest = VexaCCC::State::Guest;
namespace Host = VexaCCC::State::Host;
namespace Repo = VexaCCC::State::Repo;

constexpr const char* kUnreadable = "unreadable";
constexpr const char* kNoHost = "no host";
constexpr int kNoValue = 18;

struct Situation {
  std::string state;
  std::string repository;  // or kUnreadable
  std::string host;        // or kUnreadable, or kNoHost
  int value;               // or kNoValue
  std::optional<bool> forced;
  std::optional<int> connected;
};

struct Shown {
  std::string state, ui_state, type, reason;
  bool reads_host = false;
  bool operator==(const Shown&) const = default;
};

const std::map<std::string, std::pair<std::string, std::string>>& DisplayStates() {
  static const std::map<std::string, std::pair<std::string, std::string>> words = {
      {Guest::creating, {"creating", "healthy"}},   {Guest::importing, {"importing", "healthy"}},
      {Guest::running, {"running", "healthy"}},     {Guest::shutdown, {"shutdown", "healthy"}},
      {Guest::booting, {"booting", "healthy"}},     {Guest::shutting_down, {"shutting_down", "healthy"}},
      {Guest::moving, {"moving", "healthy"}},       {Guest::stor_migrating, {"stor_migrating", "healthy"}},
      {Guest::preparing, {"preparing", "healthy"}}, {Guest::ha_standby, {"ha_standby", "healthy"}},
      {Guest::saved, {"saved", "healthy"}},         {Guest::inaccessible, {"inaccessible", "error"}},
      {Guest::crashed, {"crashed", "error"}},       {Guest::unknown, {"unknown", "error"}},
      {Guest::freeze, {"freeze", "error"}},
  };
  return words;
}

Shown ShownAs(const std::string& state) {
  const auto word = DisplayStates().find(state);
  if (word == DisplayStates().end()) return {state, state, "error", "given"};
  return {state, word->second.first, word->second.second, "given"};
}

// Every guest here has its repository on this host; one with a host is on another.
Shown FrozenOracle(const Situation& at) {
  if (at.host != kNoHost || at.state == Guest::shutdown) return ShownAs(Guest::freeze);
  return ShownAs(at.state);
}

std::string TypeByRepository(const std::string& repository) {
  const bool is_fine =
      repository == Repo::online || repository == Repo::degraded || repository == Repo::provision_warning;
  return is_fine ? "warning" : "error";
}

std::string TypeByHost(const std::string& host) {
  if (host == kUnreadable) return "healthy";  // as the guest's own state has it
  return host == Host::running || host == Host::network_warn ? "warning" : "error";
}

Shown ShutDownOracle(const Situation& at) {
  Shown shown = ShownAs(Guest::shutdown);
  const bool is_forced = at.forced.value_or(false);
  switch (at.value) {
    case 5:
      shown.reason = "shutdown_repo_full";
      shown.type = TypeByRepository(at.repository);
      break;
    case 6:
    case 7:
    case 8:
      if (is_forced) shown.reason = "shutdown_abnormal_storage_state";
      shown.type = TypeByRepository(at.repository);
      break;
    case 9:
    case 10:
      shown.reads_host = at.host != kNoHost;
      if (!is_forced) break;
      shown.reason = at.value == 9 ? "shutdown_cluster_is_frozen" : "shutdown_host_offline";
      shown.type = TypeByHost(at.host);
      break;
    case 11:
      if (!is_forced) break;
      shown.reason = "shutdown_abnormal_storage_state";
      shown.type = TypeByRepository(at.repository);
      break;
    case 12:
      shown.reason = "booting_failed_no_resource";
      shown.type = "error";
      break;
    case 13:
    case 14:
    case 15:
    case 16:
      shown.reason = "booting_failed";
      shown.type = "error";
      break;
    default:
      break;
  }
  return shown;
}

Shown Oracle(const Situation& at) {
  if (at.repository == Repo::inaccessible) return ShownAs(Guest::inaccessible);
  if (at.repository == Repo::crashed) return ShownAs(Guest::crashed);
  if (at.state == Guest::shutdown) return ShutDownOracle(at);
  Shown shown = ShownAs(at.state);
  const bool is_online = at.state == Guest::running || at.state == Guest::booting || at.state == Guest::shutting_down ||
                         at.state == Guest::moving || at.state == Guest::stor_migrating;
  if (is_online && at.connected == 0) {
    shown.type = "warning";
    shown.reason = "network_unconnectable";
  }
  return shown;
}

// All states of a kind, and `more`.
std::vector<std::string> StatesOf(VexaVirtualization::STATE_CATE kind, std::vector<std::string> more) {
  for (const VexaVirtualization::VirtualizationState& row : VexaVirtualization::StateTable) {
    if (row.cate == kind) more.push_back(row.state);
  }
  return more;
}

class GuestStateInAll : public vexa::test::StateLibrary {
 protected:
  static void SetUpSituation(const Situation& at) {
    Platform().records.clear();
    if (at.repository != kUnreadable) Platform().records["repository/r/state"] = at.repository;
    if (at.host != kUnreadable && at.host != kNoHost) Platform().records["host/h/state"] = at.host;
  }

  static Json::Value RecordOf(const Situation& at) {
    Json::Value record(Json::objectValue);
    record["repository_id"] = "r";
    record["host_id"] = at.host == kNoHost ? "" : "h";
    if (at.value != kNoValue) record["shutdownreasonvalue"] = at.value;
    if (at.forced) record["is_forced_shutdown"] = *at.forced;
    return record;
  }

  void Check(const Situation& at, const Json::Value& record, const Shown& expected, std::size_t reads) {
    Platform().reads.clear();
    Platform().loads.clear();
    Shown shown{at.state, "old", "old", "given"};
    VexaVirtualization::GetGuestStateType(record, connected_, "g", shown.state, shown.ui_state, shown.type,
                                          shown.reason);
    shown.reads_host = expected.reads_host;
    const std::size_t expected_reads = reads + (expected.reads_host ? 1 : 0);
    ++checked_;
    if (shown == expected && Platform().reads.size() == expected_reads) return;
    ADD_FAILURE() << "state " << at.state << ", repository " << at.repository << ", host " << at.host << ", value "
                  << at.value << ", forced " << (at.forced ? std::to_string(*at.forced) : "absent") << ", connected "
                  << (at.connected ? std::to_string(*at.connected) : "absent") << "\n  expected " << expected.state
                  << " " << expected.ui_state << " " << expected.type << " " << expected.reason << " after "
                  << expected_reads << " reads\n  got " << shown.state << " " << shown.ui_state << " " << shown.type
                  << " " << shown.reason << " after " << Platform().reads.size();
  }

  // Everything but the cluster's own condition.
  void CheckAll(Shown (*oracle)(const Situation&), std::size_t reads) {
    const std::vector<std::string> states = StatesOf(VexaVirtualization::STATE_CATE_GUEST, {"", "odd"});
    EXPECT_GE(states.size(), 17u);
    const std::vector<std::string> repositories =
        StatesOf(VexaVirtualization::STATE_CATE_REPOSITORY, {"", "odd", kUnreadable});
    const std::vector<std::string> hosts = StatesOf(VexaVirtualization::STATE_CATE_HOST, {"odd", kUnreadable, kNoHost});
    for (const std::string& repository : repositories) {
      for (const std::string& host : hosts) {
        SetUpSituation({"", repository, host, 0, {}, {}});
        for (int value = 0; value <= kNoValue; ++value) {
          for (const std::optional<bool> forced : {std::optional<bool>(), {false}, {true}}) {
            Situation at{"", repository, host, value, forced, {}};
            const Json::Value record = RecordOf(at);
            for (const std::optional<int> connected : {std::optional<int>(), {0}, {1}}) {
              at.connected = connected;
              connected_.clear();
              if (connected) connected_["g"] = *connected;
              for (const std::string& state : states) {
                at.state = Platform().conf_states["g"] = state;
                Check(at, record, oracle(at), reads);
                if (HasFailure()) return;
              }
            }
          }
        }
      }
    }
    EXPECT_EQ(checked_, repositories.size() * hosts.size() * (kNoValue + 1) * 3 * 3 * states.size());
  }

  std::map<std::string, int> connected_;
  std::size_t checked_ = 0;
};

TEST_F(GuestStateInAll, GuestState_EachSituation_MatchesRules) { CheckAll(Oracle, 1); }

TEST_F(GuestStateInAll, GuestState_Upgrading_IsFrozen) {
  Platform().upgrading = 1;
  Platform().repo_hosts["g"] = "local";
  CheckAll(FrozenOracle, 0);
}

TEST_F(GuestStateInAll, GuestState_DatabaseLost_IsFrozen) {
  Platform().cluster_status["state"] = VexaCCC::State::Etcd::inaccessible;
  Platform().repo_hosts["g"] = "local";
  CheckAll(FrozenOracle, 0);
}

}  // namespace
}  // namespace vexa::test
