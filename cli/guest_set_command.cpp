#include "cli/guest_set_command.h"

#include <charconv>
#include <iostream>
#include <optional>
#include <set>
#include <utility>

#include "cli/grant_command.h"
#include "cli/listing.h"
#include "cli/parallel.h"
#include "cli/power_command.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"
#include "json/readers.h"

namespace vexa::cli {
namespace {

constexpr const char* kGet = "/webapi/VEXA.Virtualization.Guest/get";
constexpr const char* kSet = "/webapi/VEXA.Virtualization.Guest/set";
constexpr int kBadParameter = 401;
constexpr int kRightsNotSet = 1001;
constexpr int kNotReserved = 1600;

constexpr const char* kImageHint = "\nIs there an image with this id? 'vexa image list' on a host shows them.";

// This system's word for rights on guests; there is only one.
constexpr char kRight[] = "use";

enum class Right { kAllow, kRevoke };

struct Principal {
  AccountKind kind = AccountKind::kUser;
  std::uint32_t id = 0;
  std::string name;  // "" for a number
};

Error UnknownPrincipal(const std::string& word) {
  return Error(ErrorCode::kInvalid, "'" + word + "' is nobody: give user:NAME, group:NAME, uid:NUMBER or gid:NUMBER");
}

Result<Principal> FindPrincipal(const std::string& word, const GuestSetOptions& options) {
  const std::size_t at = word.find(':');
  if (at == std::string::npos || at + 1 == word.size() || !IsValidUtf8(word)) return UnknownPrincipal(word);
  const std::string prefix = word.substr(0, at);
  const std::string rest = word.substr(at + 1);
  Principal principal;
  principal.kind = prefix == "user" || prefix == "uid" ? AccountKind::kUser : AccountKind::kGroup;
  if (prefix == "uid" || prefix == "gid") {
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), principal.id);
    const bool is_id = error == std::errc() && end == rest.data() + rest.size() && principal.id != UINT32_MAX;
    return is_id ? Result<Principal>(principal) : UnknownPrincipal(word);
  }
  if (prefix != "user" && prefix != "group") return UnknownPrincipal(word);
  const auto source = options.from_system ? NameSource::kSystem : NameSource::kAccounts;
  const Result<FoundAccount> account = FindAccount({principal.kind, rest, source, options.places});
  if (!account) return account.error();
  principal.id = account->id;
  principal.name = rest;
  return principal;
}

Status AddRights(const std::vector<std::string>& words, Right right, const GuestSetOptions& options,
                 std::set<std::pair<AccountKind, std::uint32_t>>& seen, Json::Value& parameters) {
  for (const std::string& word : words) {
    const Result<Principal> principal = FindPrincipal(word, options);
    if (!principal) return principal.error();
    if (!seen.emplace(principal->kind, principal->id).second) {
      return Error(ErrorCode::kInvalid, "The rights of '" + word + "' are named twice");
    }
    Json::Value element(Json::objectValue);
    element[principal->kind == AccountKind::kUser ? "uid" : "gid"] = principal->id;
    element["allow"] = right == Right::kAllow;
    element["type"] = kRight;
    element["name"] = principal->name;
    parameters["guest_privilege"].append(std::move(element));
  }
  return {};
}

Result<Json::Value> AllParameters(const GuestSetOptions& options) {
  Result<Json::Value> parameters = ParametersOf(options.words);
  if (!parameters) return parameters;
  std::set<std::pair<AccountKind, std::uint32_t>> seen;
  if (Status added = AddRights(options.allow, Right::kAllow, options, seen, *parameters); !added) return added.error();
  if (Status added = AddRights(options.revoke, Right::kRevoke, options, seen, *parameters); !added) {
    return added.error();
  }
  if (parameters->empty()) {
    return Error(ErrorCode::kInvalid, "Nothing to change is named; see 'vexa guest set --help'");
  }
  return parameters;
}

Json::Value WithGuest(Json::Value parameters, const NamedGuest& guest) {
  parameters["guest_id"] = guest.id;
  return parameters;
}

// The element with this id in a list of the reply to "get"; null when absent.
const Json::Value& PartOf(const Json::Value& guest, const char* list, const char* id_member, const std::string& id) {
  const Json::Value& parts = VexaVirtualization::json::Elements(Member(guest, list));
  for (Json::ArrayIndex i = 0; i < parts.size(); ++i) {
    const Json::Value& part = VexaVirtualization::json::Element(parts, i);
    if (Text(Member(part, id_member)) == id) return part;
  }
  return Json::Value::nullSingleton();
}

struct PartRow {
  const char* parameter;
  const char* list;  // of the reply to "get"
  const char* id;
  const char* what;
};
constexpr PartRow kParts[] = {
    {"vdisks_del", "vdisks", "vdisk_id", "disk"},
    {"vdisks_edit", "vdisks", "vdisk_id", "disk"},
    {"vdisks_order", "vdisks", "vdisk_id", "disk"},
    {"vnics_del", "vnics", "vnic_id", "network interface"},
    {"vnics_edit", "vnics", "vnic_id", "network interface"},
};

// Errors that the guest's host would report but that are visible in the guest itself: parts that it does not have,
// disks that would shrink.
Status CheckParts(const Json::Value& guest, const Json::Value& parameters) {
  constexpr std::uint64_t kMibPerGib = 1024;
  for (const PartRow& row : kParts) {
    for (const Json::Value& element : Member(parameters, row.parameter)) {
      const std::string id = Text(Member(element, row.id));
      const Json::Value& part = PartOf(guest, row.list, row.id, id);
      if (part.isNull()) {
        return Error(ErrorCode::kNotFound, std::string("The guest has no ") + row.what + " '" + id + "'");
      }
      const std::string size = Text(Member(part, "size"));
      const auto wanted = Integer(Member(element, "vdisk_size"));
      std::uint64_t mib = 0;
      const auto [end, error] = std::from_chars(size.data(), size.data() + size.size(), mib);
      if (!wanted || error != std::errc() || end != size.data() + size.size()) continue;
      if (static_cast<std::uint64_t>(*wanted) * kMibPerGib >= mib) continue;
      return Error(ErrorCode::kConflict, "The disk '" + id + "' has " + size + " MiB, and disks do not shrink");
    }
  }
  return {};
}

// Prints the parameters on standard output, once it is known that the guest can be read.
ExitCode ShowDryRun(const GlobalOptions& global, HttpClient& client, const NamedGuest& guest,
                    const Json::Value& parameters) {
  const CallOutcome got = CallApi(client, kGet, OneParameter("guest_id", guest.id));
  if (got.exit_code != ExitCode::kOk) return got.exit_code;
  if (!got.data.isObject()) return Report(NotUnderstood("guest"));
  if (const Status checked = CheckParts(got.data, parameters); !checked) return Report(checked.error());
  PrintJson(WithGuest(parameters, guest));
  if (!global.quiet) {
    std::cerr << "vexa: " << Printable(guest.name)
              << ": Nothing was changed, as this is a dry run. What only the guest's host can check was not checked.\n";
  }
  return ExitCode::kOk;
}

std::string SuccessText(const NamedGuest& guest, const Json::Value& parameters) {
  const std::string name = Text(Member(parameters, "name"));
  return name.empty() || name == guest.name ? "edited" : "edited and renamed to " + name;
}

}  // namespace

ExitCode FindGuest(HttpClient& client, const std::string& word, NamedGuest& guest) {
  const CallOutcome listed = ListGuests(client);
  if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
  std::vector<NamedGuest> guests;
  const ExitCode found = FindGuests(Member(listed.data, "guests"), {word}, guests);
  if (found == ExitCode::kOk) guest = guests.front();
  return found;
}

CallOutcome SendEdit(const GlobalOptions& global, HttpClientOptions connect, const NamedGuest& guest,
                     const Json::Value& parameters, const std::function<void()>& on_interrupt) {
  connect.timeout = ActionTimeout(global);
  HttpClient client(std::move(connect));
  CallOutcome outcome;
  ParallelOptions parallel;
  parallel.on_interrupt = [&] {
    std::cerr << "vexa: " << Printable(guest.name) << ": Interrupted before it was answered, and not taken back.\n";
    on_interrupt();
  };
  const std::string body = RenderJson(WithGuest(parameters, guest), JsonLayout::kOneLine);
  RunInParallel(1, parallel, [&](std::size_t) { outcome = TryApi(client, kSet, body); });
  return outcome;
}

bool WasEdited(const CallOutcome& outcome) {
  return outcome.exit_code == ExitCode::kOk || outcome.code == kRightsNotSet || outcome.code == kNotReserved;
}

ExitCode ShowOutcome(const GlobalOptions& global, const NamedGuest& guest, const CallOutcome& outcome,
                     const std::string& text) {
  const bool is_well = outcome.exit_code == ExitCode::kOk;
  if (!is_well) std::cerr << "vexa: " << Printable(guest.name) << ": " << text << '\n';
  if (is_well && !global.quiet && !global.json) {
    std::cout << Printable(guest.name) << ": " << Printable(text) << '\n';
  }
  if (!global.json) return outcome.exit_code;
  Json::Value result(Json::objectValue);
  result["guest_id"] = guest.id;
  result["guest_name"] = guest.name;
  result["success"] = is_well;
  result["message"] = text;
  if (outcome.code) result["code"] = Json::Int64{*outcome.code};
  PrintJson(result);
  return outcome.exit_code;
}

ExitCode ShowEdit(const GlobalOptions& global, const NamedGuest& guest, const Json::Value& parameters,
                  const CallOutcome& outcome) {
  if (outcome.exit_code == ExitCode::kOk) return ShowOutcome(global, guest, outcome, SuccessText(guest, parameters));
  // All other causes of this answer have been ruled out before.
  const bool is_unknown_image = outcome.code == kBadParameter && parameters.isMember("iso_images");
  return ShowOutcome(global, guest, outcome, outcome.failure + (is_unknown_image ? kImageHint : ""));
}

ExitCode RunGuestSet(const GlobalOptions& global, const GuestSetOptions& options) {
  if (options.guest.empty() || !IsValidUtf8(options.guest)) return Report(NotText("guest's id or name"));
  const Result<Json::Value> parameters = AllParameters(options);
  if (!parameters) return Report(parameters.error());
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  NamedGuest guest;
  if (const ExitCode found = FindGuest(client, options.guest, guest); found != ExitCode::kOk) return found;
  if (options.dry_run == DryRun::kYes) return ShowDryRun(global, client, guest, *parameters);
  return ShowEdit(global, guest, *parameters, SendEdit(global, *connect, guest, *parameters));
}

}  // namespace vexa::cli
