#include "cli/repository_command.h"

#include <fmt/format.h>

#include <iostream>

#include "cli/object_names.h"
#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/byte_text.h"
#include "host/storage/repository_records.h"
#include "json/readers.h"

namespace vexa::cli {
namespace {

namespace json = VexaVirtualization::json;

constexpr const char* kAddRepository = "/webapi/VEXA.Virtualization.Repository/add";
constexpr const char* kRemoveRepository = "/webapi/VEXA.Virtualization.Repository/remove";
constexpr const char* kAcceptRepository = "/webapi/VEXA.Virtualization.Repository/accept";

constexpr const char* kGetRepository = "/webapi/VEXA.Virtualization.Repository/get";
constexpr const char* kRenameRepository = "/webapi/VEXA.Virtualization.Repository/rename";
constexpr const char* kSetLimits = "/webapi/VEXA.Virtualization.Repository/limits";

// Bytes for people; "-" when the server has not sent a number.
std::string Bytes(const Json::Value& value) { return value.isUInt64() ? ByteText(json::UInt64(value)) : "-"; }

std::string SpaceText(const Json::Value& repository) {
  const Json::Value& space = Member(repository, "space");
  if (space.isNull()) return "-";
  return fmt::format("{} of {}", Bytes(Member(space, "used")), Bytes(Member(space, "total")));
}

std::string LimitText(const Json::Value& space, const char* name) {
  const std::string percent = Text(Member(space, name));
  return percent == "0" ? "never" : Printable(percent) + " %";
}

void PrintRepository(const GlobalOptions& global, const Json::Value& repository) {
  const std::string host = ObjectNames(global).Of(kHosts, Text(Member(repository, "host_id")));
  const auto text = [&](const char* name) { return Printable(Text(Member(repository, name))); };
  std::cout << fmt::format("repository  {}\nname        {}\nhost        {}\nstate       {}\nused        {}\n",
                           text(kRepositories.id), text("name"), Printable(host), text("state"), SpaceText(repository));
  const Json::Value& space = Member(repository, "space");
  if (space.isObject()) {
    std::cout << fmt::format("free        {}\nwarning     {}\nfull        {}\n", Bytes(Member(space, "free")),
                             LimitText(space, "soft_percent"), LimitText(space, "hard_percent"));
  }
  const std::string reason = Printable(Text(Member(Member(repository, "storage"), "reason")));
  if (!reason.empty()) std::cout << "problem     " << reason << '\n';
  Table disks{{"GUEST", "DISK", "SIZE", "ALLOCATED", "PATH"}, {}};
  for (const Json::Value& guest : json::Elements(Member(repository, "guests"))) {
    const std::string name = Text(Member(guest, "name"));
    for (const Json::Value& disk : json::Elements(Member(guest, "vdisks"))) {
      const Json::Value& mib = Member(disk, "size_mib");
      disks.rows.push_back({name.empty() ? Text(Member(guest, "guest_id")) : name, Text(Member(disk, "vdisk_id")),
                            mib.isUInt64() ? Text(mib) + " MiB" : "-", Bytes(Member(disk, "allocated")),
                            Text(Member(disk, "path"))});
    }
  }
  std::cout << '\n';
  PrintTable(std::cout, disks);
  const Json::Value& files = Member(repository, "files");
  if (files.empty()) return;
  Table others{{"FILE OF NO GUEST", "SIZE", "ALLOCATED"}, {}};
  for (const Json::Value& file : json::Elements(files)) {
    others.rows.push_back({Text(Member(file, "path")), Bytes(Member(file, "size")), Bytes(Member(file, "allocated"))});
  }
  std::cout << '\n';
  PrintTable(std::cout, others);
}

}  // namespace

ExitCode RunRepositoryAdd(const GlobalOptions& global, const RepositoryAddOptions& options) {
  // The host may be a name, which only the server knows.
  const Status checked = storage::CheckRepository({options.name, options.id, ""});
  if (!checked) return Report(checked.error());
  Json::Value parameters(Json::objectValue);
  parameters["name"] = options.name;
  if (!options.id.empty()) parameters["repository_id"] = options.id;
  if (!options.host.empty()) {
    const Result<HttpClientOptions> connect = ConnectOptions(global);
    if (!connect) return Report(connect.error());
    HttpClient client(*connect);
    std::string id;
    if (const ExitCode found = FindId(client, kHosts, options.host, id); found != ExitCode::kOk) return found;
    parameters["host_id"] = id;
  }
  return AddObject(global, kRepositories, kAddRepository, parameters);
}

ExitCode RunRepositoryList(const GlobalOptions& global) {
  const CallOutcome outcome = ListObjects(global, kRepositories);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& repositories = Member(outcome.data, "repositories");
  if (global.json) return PrintJson(repositories);
  Table table{{"NAME", "HOST", "STATE", "SPACE"}, {}};
  if (global.ids) table.header.insert(table.header.begin(), "REPOSITORY");
  ObjectNames names(global);
  for (const Json::Value& repository : repositories) {
    const auto text = [&](const char* name) { return Text(Member(repository, name)); };
    table.rows.push_back(
        {text(kRepositories.name), names.Of(kHosts, text("host_id")), text("state"), SpaceText(repository)});
    if (global.ids) table.rows.back().insert(table.rows.back().begin(), text(kRepositories.id));
  }
  PrintTable(std::cout, table);
  return ExitCode::kOk;
}

ExitCode RunRepositoryGet(const GlobalOptions& global, const std::string& repository) {
  return ShowObject(global, kRepositories, kGetRepository, repository,
                    [&global](const Json::Value& data) { PrintRepository(global, data); });
}

ExitCode RunRepositoryRename(const GlobalOptions& global, const RenameOptions& options) {
  return RenameObject(global, kRepositories, kRenameRepository, options.object, options.name);
}

ExitCode RunRepositoryLimits(const GlobalOptions& global, const RepositoryLimitsOptions& options) {
  Json::Value parameters(Json::objectValue);
  if (options.soft) parameters["soft_percent"] = *options.soft;
  if (options.hard) parameters["hard_percent"] = *options.hard;
  const ExitCode set = CallForObject(global, kRepositories, kSetLimits, options.repository, parameters);
  if (set != ExitCode::kOk) return set;
  return PrintConfirmation(global,
                           fmt::format("Set the limits of the repository '{}'.", Printable(options.repository)));
}

ExitCode RunRepositoryRemove(const GlobalOptions& global, const std::string& repository) {
  std::string id;
  const ExitCode removed = CallForObject(global, kRepositories, kRemoveRepository, repository, id);
  if (removed != ExitCode::kOk) return removed;
  return PrintConfirmation(global, fmt::format("Removed the repository '{}'. Its files stay.", Printable(repository)));
}

ExitCode RunRepositoryAccept(const GlobalOptions& global, const std::string& repository) {
  std::string id;
  const ExitCode accepted = CallForObject(global, kRepositories, kAcceptRepository, repository, id);
  if (accepted != ExitCode::kOk) return accepted;
  return PrintConfirmation(global, fmt::format("Accepted the current storage of the repository '{}'", Printable(id)));
}

}  // namespace vexa::cli
