#include "cli/local_grant_command.h"

#include <functional>

#include "cli/account_output.h"

namespace vexa::cli {
namespace {

using cluster::GrantPrincipal;

// "The user [alice]"
std::string Shown(const GrantTarget& target, const GrantPrincipal& principal) {
  const std::string name = principal.name.empty() ? "#" + std::to_string(principal.id) : principal.name;
  return (target.kind == AccountKind::kUser ? "user [" : "group [") + name + "]";
}

struct Change {
  std::function<Status(store::Store& store, const GrantPrincipal& principal)> make;
  std::function<std::string(const std::string& who)> logged;  // a sentence about "user [alice]"
  std::string said;
};

// Rights count by id alone: those of a system user would be those of whichever account of the store has the same id.
Status CheckSource(const AccountPlaces& places, const GrantTarget& target) {
  if (target.source != NameSource::kSystem || SourceOf(places) == cluster::AccountSource::kPam) return {};
  return Error(ErrorCode::kInvalid, "The machine's own users and groups have no rights here, because the daemon of '" +
                                        places.data_directory + "' takes its users from the store. Leave --system out");
}

ExitCode RunChange(const GlobalOptions& global, const AccountPlaces& places, const GrantTarget& target,
                   const Result<GrantPrincipal>& principal, const Change& change) {
  if (const Status checked = CheckSource(places, target); !checked) return Report(checked.error());
  if (!principal) return Report(principal.error());
  const Result<LocalStore> opened = OpenStore(places, MissingStore::kRefuse);
  if (!opened) return Report(opened.error());
  if (const Status made = change.make(*opened->store, *principal); !made) return Report(made.error());
  LogLocalChange(places, *opened, change.logged(Shown(target, *principal)));
  return Say(global, change.said);
}

// The id may be that of an account that is gone.
Result<GrantPrincipal> FindOwner(const AccountPlaces& places, const GrantTarget& target) {
  if (target.form == NameForm::kName) return FindAccount(places, target);
  const Result<cluster::PrincipalWord> word = WordOf(target);
  if (!word) return word.error();
  return GrantPrincipal{target.kind, std::get<std::uint32_t>(*word), "", 0};
}

std::string Joined(const std::vector<std::string>& ids) {
  std::string text;
  for (const std::string& id : ids) text += (text.empty() ? "" : ", ") + id;
  return text;
}

}  // namespace

Result<GrantPrincipal> FindAccount(const AccountPlaces& places, const GrantTarget& target) {
  const Result<cluster::PrincipalWord> word = WordOf(target);
  if (!word) return word.error();
  if (target.source == NameSource::kSystem) return cluster::FindSystemPrincipal(target.kind, *word);
  const Result<LocalAccounts> local = OpenAccounts(places, MissingStore::kRefuse);
  if (!local) return local.error();
  return cluster::FindPrincipal(*local->accounts, *local->opened.store, target.kind, *word);
}

ExitCode RunLocalGrant(const GlobalOptions& global, const AccountPlaces& places, const GrantTarget& target,
                       const std::vector<std::string>& guest_ids) {
  const Result<std::vector<std::string>> ids = NormalGuestIds(guest_ids);
  if (!ids) return Report(ids.error());
  return RunChange(
      global, places, target, FindAccount(places, target),
      {[&](auto& store, const auto& principal) { return cluster::GrantGuests(store, principal, *ids); },
       [&](const std::string& who) { return "The " + who + " may use the virtual machines " + Joined(*ids) + "."; },
       Granted(target.name)});
}

ExitCode RunLocalRevoke(const GlobalOptions& global, const AccountPlaces& places, const GrantTarget& target,
                        const std::vector<std::string>& guest_ids) {
  const Result<std::vector<std::string>> ids = NormalGuestIds(guest_ids);
  if (!ids) return Report(ids.error());
  return RunChange(global, places, target, FindAccount(places, target),
                   {[&](auto& store, const auto& principal) { return cluster::RevokeGuests(store, principal, *ids); },
                    [&](const std::string& who) {
                      return "The " + who + " may no longer use the virtual machines " + Joined(*ids) + ".";
                    },
                    Revoked(target.name)});
}

ExitCode RunLocalSetLevel(const GlobalOptions& global, const AccountPlaces& places, const GrantTarget& target,
                          cluster::GrantLevel level) {
  const std::string word(cluster::WordOf(level));
  return RunChange(global, places, target, FindAccount(places, target),
                   {[&](auto& store, const auto& principal) { return cluster::SetGrantLevel(store, principal, level); },
                    [&](const std::string& who) { return "The level of the " + who + " is now [" + word + "]."; },
                    LevelIs(target.name, word)});
}

ExitCode RunLocalDropGrants(const GlobalOptions& global, const AccountPlaces& places, const GrantTarget& target) {
  return RunChange(
      global, places, target, FindOwner(places, target),
      {[&](auto& store, const auto& principal) { return cluster::DropGrants(store, target.kind, principal.id); },
       [&](const std::string& who) { return "What was granted to the " + who + " has been dropped."; },
       Dropped(target.name)});
}

}  // namespace vexa::cli
