#include "host/api/user/schemas/user_schemas.h"

namespace vexa::api {
namespace {

using namespace shape;  // NOLINT(google-build-using-namespace): the words of the tables below

constexpr std::int64_t kMaxId = 4'294'967'294;
constexpr std::int64_t kMaxAccountList = 1000;  // names or ids in one parameter

Schema AccountId(std::string_view description) { return Integer(description).From(0).To(kMaxId); }

Schema UserName(std::string_view description = "The user's name.") { return String(description).Like("alice"); }

Schema Kind() { return String("Whether it is a user or a group.").OneOf({"user", "group"}); }

Schema Principal(std::vector<SchemaMember> more) {
  std::vector<SchemaMember> members{
      Always("kind", Kind()), Always("id", AccountId("The id of the user or group.")),
      Always("name", String("Its name; \"\" when it is not known.").Like("alice")),
      Always("level", String("The level of its own record.").OneOf({"user", "advanced"}))};
  members.insert(members.end(), more.begin(), more.end());
  return Object(std::move(members));
}

Schema NoResult() { return Object({}, "An empty object."); }

std::vector<ParameterSchema> OfPrincipal(std::vector<ParameterSchema> more = {}) {
  more.push_back({"kind", Kind()});
  more.push_back({"id", AccountId("")});
  more.push_back({"name", UserName()});
  return more;
}

ParameterSchema Names() { return {"groups", List(String("A group's name."), "").To(kMaxAccountList)}; }

ParameterSchema Password(std::string_view name) { return {name, String("").As("password")}; }

std::vector<MethodSchema> SessionMethods() {
  constexpr std::string_view kApi = "VEXA.Core.Session";
  const Schema session =
      Object({Always("id", String("The session's id, for \"end\". It cannot be used as a token.")),
              Always("user", UserName()), Always("uid", AccountId("The user's id.")),
              Always("from", String("The address of the login; \"\" when it is not known.")),
              Always("created", Time("When it was created.")), Always("last_used", Time("When it was last used.")),
              Always("current", Flag("Whether it is the session of this call."))});
  const Schema granted = Object({Always("guest_id", RecordId("The guest's id.")),
                                 Always("guest_name", String("The guest's name.").Like("web-1")),
                                 Always("console", Flag("Whether its console was granted as well."))});
  return {
      {kApi,
       "login",
       {{"user", UserName()}, {"password", String("").As("password").Like("correct horse")}},
       Object({Always("user", UserName("The user's name as the account was created.")),
               Always("expires_in", Integer("How long the session can last at most.").In("seconds").Like(43'200)),
               Always("csrf_token", String("For the header X-Vexa-CSRF of calls with the cookie.")),
               Sometimes("token", String("For the header \"Authorization: Bearer …\". Absent with \"cookie\"."))})},
      {kApi, "logout", {}, NoResult()},
      {kApi,
       "info",
       {},
       Object({Always("user", UserName()), Always("uid", AccountId("The user's id.")),
               Always("administrator", Flag("Whether the user is an administrator.")),
               Always("advanced", Flag("Whether the user is advanced."))})},
      {kApi,
       "rights",
       {},
       Object({Always("user", UserName()), Always("uid", AccountId("The user's id.")),
               Always("administrator", Flag("Whether the user is an administrator.")),
               Always("advanced", Flag("Whether the user is advanced.")),
               Always("all_guests", Flag("Whether the user may use all guests, which are not listed then.")),
               Always("guests", List(granted, "The guests that were granted to the user or to a group of theirs."))})},
      {kApi, "list", {}, Object({Always("sessions", List(session, "The sessions, the oldest first."))})},
      {kApi, "end", {}, Object({Always("ended", Integer("How many sessions have ended.").From(0))})},
  };
}

std::vector<MethodSchema> UserMethods() {
  constexpr std::string_view kApi = "VEXA.Core.Account";
  const Schema group_of_user =
      Object({Always("name", String("The group's name.")), Always("gid", AccountId("The group's id."))});
  const Schema user =
      Object({Always("name", UserName()), Always("uid", AccountId("The user's id.")),
              Always("gid", AccountId("The id of the user's primary group.")),
              Always("administrator", Flag("Whether the user is an administrator.")),
              Always("advanced", Flag("Whether the user is advanced, by its own record or that of a group.")),
              Always("groups", List(group_of_user, "The user's groups."))});
  const Schema group = Object({Always("name", String("The group's name.")), Always("gid", AccountId("The group's id.")),
                               Always("advanced", Flag("Whether the group is advanced.")),
                               Always("members", List(UserName(), "The names of its members."))});
  return {{kApi, "user_list", {}, Object({Always("users", List(user, "The users, by name."))})},
          {kApi,
           "user_add",
           {{"name", UserName()}, Password("password"), Names(), {"uid", AccountId("").From(1)}},
           NoResult()},
          {kApi, "user_delete", {{"name", UserName()}, {"id", AccountId("")}}, NoResult()},
          {kApi, "groups_set", {{"name", UserName()}, {"id", AccountId("")}, Names()}, NoResult()},
          {kApi, "group_list", {}, Object({Always("groups", List(group, "The groups, by name."))})},
          {kApi, "group_delete", {{"name", String("").Like("editors")}, {"id", AccountId("")}}, NoResult()},
          {kApi,
           "password_set",
           {Password("password"), Password("old_password"), {"name", UserName()}, {"id", AccountId("")}},
           NoResult()}};
}

std::vector<MethodSchema> GrantMethods() {
  constexpr std::string_view kApi = "VEXA.Core.Account";
  const ParameterSchema guests{"guests", List(Id("A guest's id."), "").From(1).To(kMaxAccountList)};
  const Schema holder = Principal({Always("console", Flag("Whether the guest's console was granted as well."))});
  return {
      {kApi, "level_get", OfPrincipal(), Principal({})},
      {kApi, "level_set", OfPrincipal(), NoResult()},
      {kApi, "grant_list", OfPrincipal(),
       Principal({Always("given_to", String("The name that the record was given to; \"\" without a record.")),
                  Always("counts", Flag("Whether the record counts: false when it was given to another name.")),
                  Always("guests", List(RecordId("A guest's id."), "The guests that it may use.")),
                  Always("consoles", List(RecordId("A guest's id."), "Those whose consoles it may open."))})},
      {kApi,
       "guest_grant_list",
       {},
       Object({Always("principals", List(holder, "The users and groups that the guest was granted to.")),
               Always("damaged", List(String("The identifier of a record."), "The records that cannot be read."))})},
      {kApi, "grant", OfPrincipal({guests}), NoResult()},
      {kApi, "revoke", OfPrincipal({guests}), NoResult()},
      {kApi, "grants_drop", OfPrincipal(), NoResult()},
  };
}

}  // namespace

std::vector<MethodSchema> AccountSchemas() {
  std::vector<MethodSchema> schemas = SessionMethods();
  for (auto&& part : {UserMethods(), GrantMethods()}) schemas.insert(schemas.end(), part.begin(), part.end());
  return schemas;
}

}  // namespace vexa::api
