#include "host/api/user/schemas/user_schemas.h"

namespace vexa::api {
namespace {

using namespace shape;  // NOLINT(google-build-using-namespace): the words of the tables below

constexpr std::int64_t kMaxVlan = 4094;

Schema NetworkId() { return RecordId("The network's id."); }
Schema Name() { return String("The network's name.").Like("office"); }

Schema Network() {
  const Schema host = Object(
      {Always("host_id", RecordId("The host's id.")),
       Always("state", String("Whether the host has the network.").OneOf({"ready", "missing", "failed", "unknown"})),
       Sometimes("reason", String("More about the state: a sentence."))});
  return Object(
      {Always("network_id", NetworkId()), Always("name", Name()),
       Always("kind",
              String("What it is on the hosts; \"other\": a network that was found and is of none of the kinds.")
                  .OneOf({"bridge", "nat", "isolated", "vlan", "macvtap", "other"})),
       Always("description", String("Its description; \"\" without one.")),
       Always("managed", Flag("Whether the cluster manages it; false: it was found on hosts.")),
       Always("state", String("The worst of the hosts' states.").OneOf({"ready", "missing", "failed", "unknown"})),
       Sometimes("active",
                 Flag("false: it is one of libvirt's that no host has started; the start of a guest that needs "
                      "it starts it. Absent otherwise.")),
       Sometimes("network_name", String("Its name on the hosts. For administrators, like all that follow.")),
       Sometimes("subnet", String("Its IPv4 subnet.").Like("192.168.100.0/24")),
       Sometimes("vlan_id", Integer("Its VLAN tag.").From(1).To(kMaxVlan)),
       Sometimes("uplink", String("The hosts' interface that leads outside.").Like("eth0")),
       Sometimes("uplinks", MapOf(String("The interface of the host; \"\": none."), "Other uplinks, by host id.")),
       Sometimes("move_addresses", Flag("Whether it takes over the addresses of its uplink. Absent: false.")),
       Sometimes("hosts", List(host, "How it is on each host."))});
}

std::vector<ParameterSchema> Settings(std::vector<ParameterSchema> more) {
  more.push_back({"name", Name()});
  more.push_back({"subnet", String("").Like("192.168.100.0/24")});
  more.push_back({"vlan_id", Integer("").From(1).To(kMaxVlan)});
  more.push_back({"uplinks", MapOf(String("The interface of the host; \"\": none."), "")});
  return more;
}

}  // namespace

std::vector<MethodSchema> NetworkSchemas() {
  constexpr std::string_view kApi = "VEXA.Virtualization.Network";
  const ParameterSchema id{"network_id", String("").Like("8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01")};
  return {{kApi, "list", {}, Object({Always("networks", List(Network(), "The networks, by name."))})},
          {kApi, "get", {id}, Network()},
          {kApi, "add",
           Settings({{"kind", String("").OneOf({"bridge", "nat", "isolated", "vlan", "macvtap"}).Like("nat")}}),
           Object({Always("network_id", NetworkId())})},
          {kApi, "edit", Settings({id}), Null()},
          {kApi, "remove", {id}, Null()}};
}

}  // namespace vexa::api
