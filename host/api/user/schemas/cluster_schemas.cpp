#include "host/api/user/schemas/user_schemas.h"
#include "host/cluster/cluster_log.h"

namespace vexa::api {
namespace {

using namespace shape;  // NOLINT(google-build-using-namespace): the words of the tables below

constexpr std::string_view kMicroseconds = "microseconds since 1970";

Schema Settings() {
  return Object({Always("auto_select_host", Flag("Whether a guest without a host is assigned one when it is powered "
                                                 "on.")),
                 Always("upgrading", Flag("Whether the hosts are between two versions that cannot read each other's "
                                          "records."))});
}

}  // namespace

std::vector<MethodSchema> ClusterSchemas() {
  const Schema entry = Object(
      {Always("position", Integer("The entry's place in the log, for \"after\".").From(0)),
       Always(
           "time",
           String("When it was added, by the clock of its host.").As("date-time").Like("2026-03-01T12:00:00.000000Z")),
       Always("time_us", Integer("The same as a number.").In(kMicroseconds)),
       Always("count", Integer("How often the same has happened since \"first_time_us\".").From(1).Like(1)),
       Always("first_time_us", Integer("When it happened first.").In(kMicroseconds)),
       Always("host_id", String("The id of the host that has added it.")),
       Always("host", String("That host's name; \"\" when it is not known.").Like("nas1")),
       Always("user", String("The user who caused it.").Like("alice")),
       Always("priority", Integer("1: a failure; 3: a success.").Like(3)),
       Always("text", String("What has happened.").Like("The virtual machine [web-1] has been created.")),
       Always("request_id", String("The id of the request that caused it."))});
  return {{"VEXA.Virtualization.Cluster", "get", {}, Settings()},
          {"VEXA.Virtualization.Cluster", "set", {}, Settings()},
          {"VEXA.Virtualization.Log",
           "list",
           {{"limit", Integer("").From(1).To(static_cast<std::int64_t>(cluster::kMaxLogPage)).Like(100)},
            {"after", Integer("").From(0)}},
           Object({Always("entries", List(entry, "The entries.")),
                   Always("next", String("The cursor of the next older entries; \"\" at the end."))})}};
}

}  // namespace vexa::api
