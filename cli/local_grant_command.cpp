#include "cli/local_grant_command.h"

#include <fmt/format.h>

#include <functional>

#include "cli/account_output.h"

namespace vexa::cli {
namespace {

using cluster::GrantPrincipal;

// "user [alice]"
std::string AccountForLog(const GrantTarget& target, const GrantPrincipal& principal) {
  const std::string name = principal.name.empty() ? fmt::format("#{}", principal.id) : principal.name;
  return fmt::format("{} [{}]", target.kind == AccountKind::kUser ? "user" : "group", name);
}

struct Change {
  std::function<Status(store::Store& store, const GrantPrincipal& principal)> apply;
  std::function<std::string(const std::string& account)> log_text;  // a sentence about "user [alice]"
  std::string confirmation;
};

// Rights are stored by id alone: those of a system user would also apply to an account of the store with the same id.
Status CheckSource(const AccountPaths& paths, const GrantTarget& target) {
  if (target.source != NameSource::kSystem || AccountSourceOf(paths) == cluster::AccountSource::kPam) return {};
  return Error(
      ErrorCode::kInvalid,
      fmt::format("Users and groups of the operating system have no rights here, because the daemon of '{}' takes its "
                  "users from the store. Leave out --system",
                  paths.data_directory));
}

ExitCode RunChange(const GlobalOptions& global, const AccountPaths& paths, const GrantTarget& target,
                   const Result<GrantPrincipal>& principal, const Change& change) {
  if (const Status checked = CheckSource(paths, target); !checked) return Report(checked.error());
  if (!principal) return Report(principal.error());
  const Result<LocalStore> opened = OpenStore(paths, MissingStore::kRefuse);
  if (!opened) return Report(opened.error());
  if (const Status done = change.apply(*opened->store, *principal); !done) return Report(done.error());
  LogLocalChange(paths, *opened, change.log_text(AccountForLog(target, *principal)));
  return PrintConfirmation(global, change.confirmation);
}

// Also accepts the id of an account that no longer exists.
Result<GrantPrincipal> FindTarget(const AccountPaths& paths, const GrantTarget& target) {
  if (target.form == NameForm::kName) return FindAccount(paths, target);
  const Result<cluster::PrincipalNameOrId> name_or_id = ParsePrincipal(target);
  if (!name_or_id) return name_or_id.error();
  return GrantPrincipal{target.kind, std::get<std::uint32_t>(*name_or_id), "", 0};
}

}  // namespace

Result<GrantPrincipal> FindAccount(const AccountPaths& paths, const GrantTarget& target) {
  const Result<cluster::PrincipalNameOrId> name_or_id = ParsePrincipal(target);
  if (!name_or_id) return name_or_id.error();
  if (target.source == NameSource::kSystem) return cluster::FindSystemPrincipal(target.kind, *name_or_id);
  const Result<LocalAccounts> local = OpenAccounts(paths, MissingStore::kRefuse);
  if (!local) return local.error();
  return cluster::FindPrincipal(*local->accounts, *local->opened.store, target.kind, *name_or_id);
}

ExitCode RunLocalGrant(const GlobalOptions& global, const AccountPaths& paths, const GrantTarget& target,
                       const std::vector<std::string>& guest_ids) {
  const Result<std::vector<std::string>> ids = NormalizeGuestIds(guest_ids);
  if (!ids) return Report(ids.error());
  return RunChange(global, paths, target, FindAccount(paths, target),
                   {[&](auto& store, const auto& principal) {
                      return target.console ? cluster::GrantConsoles(store, principal, *ids)
                                            : cluster::GrantGuests(store, principal, *ids);
                    },
                    [&](const std::string& account) {
                      return fmt::format("The {} may use the virtual machines {}{}.", account, fmt::join(*ids, ", "),
                                         target.console ? ", with the console" : "");
                    },
                    GrantsAdded(target.name)});
}

ExitCode RunLocalRevoke(const GlobalOptions& global, const AccountPaths& paths, const GrantTarget& target,
                        const std::vector<std::string>& guest_ids) {
  const Result<std::vector<std::string>> ids = NormalizeGuestIds(guest_ids);
  if (!ids) return Report(ids.error());
  return RunChange(global, paths, target, FindAccount(paths, target),
                   {[&](auto& store, const auto& principal) {
                      return target.console ? cluster::RevokeConsoles(store, principal, *ids)
                                            : cluster::RevokeGuests(store, principal, *ids);
                    },
                    [&](const std::string& account) {
                      return fmt::format("The {} may no longer {} the virtual machines {}.", account,
                                         target.console ? "open the console of" : "use", fmt::join(*ids, ", "));
                    },
                    GrantsRevoked(target.name)});
}

ExitCode RunLocalSetLevel(const GlobalOptions& global, const AccountPaths& paths, const GrantTarget& target,
                          cluster::GrantLevel level) {
  const std::string level_name(cluster::GrantLevelName(level));
  return RunChange(
      global, paths, target, FindAccount(paths, target),
      {[&](auto& store, const auto& principal) { return cluster::SetGrantLevel(store, principal, level); },
       [&](const std::string& account) { return fmt::format("The level of the {} is now [{}].", account, level_name); },
       LevelChanged(target.name, level_name)});
}

ExitCode RunLocalDropGrants(const GlobalOptions& global, const AccountPaths& paths, const GrantTarget& target) {
  return RunChange(
      global, paths, target, FindTarget(paths, target),
      {[&](auto& store, const auto& principal) { return cluster::DropGrants(store, target.kind, principal.id); },
       [&](const std::string& account) { return fmt::format("What was granted to the {} has been dropped.", account); },
       GrantsDropped(target.name)});
}

}  // namespace vexa::cli
