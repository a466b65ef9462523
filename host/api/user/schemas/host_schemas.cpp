#include "host/api/user/schemas/user_schemas.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

using namespace shape;  // NOLINT(google-build-using-namespace): the words of the tables below

Schema State() {
  return String("The state of its record.")
      .OneOf({"running", "inaccessible", "network_warn", "control_unavail", "unknown"});
}
Schema Age() { return Integer("How old this is, by the host's heartbeat.").In("seconds").From(0); }
Schema InaccessibleSince() { return Time("Since when the host has not been heard of. Absent while it is."); }

Schema ListedHost() {
  return Object(
      {Always("host_id", RecordId("The host's id.")),
       Always("name", String("The host's name; \"\" when its record cannot be read.").Like("nas1")),
       Always("state", State()), Always("age_s", Age()), Sometimes("inaccessible_since", InaccessibleSince()),
       Always("version_state", DisplayedState(VexaVirtualization::STATE_CATE_VERSION,
                                              "How its version is to those of the others; or unknown.")),
       Always("status_of", String("What \"status\" is about.").OneOf({"host", "version"})),
       Always("status",
              String("The state to display: \"state\", or \"version_state\" where that matters more.").Like("running")),
       Always("status_type", Severity()),
       Sometimes(
           "certificate",
           String("How its certificate is. Absent when it has none.").OneOf({"ok", "expiring", "expired", "revoked"})),
       Sometimes("certificate_expires", Time("Until when the certificate is valid."))});
}

Schema System() {
  const Schema cpu = Object({Always("model", String("The processor's model; \"\" when it is not known.")),
                             Always("cores", Integer("Logical processors; 0 when not known.").From(0)),
                             Always("clock_speed", Number("Its clock; 0 when not known.").In("MHz"))});
  return Object({Always("model", String("The machine's model; \"\" when it is not known.")),
                 Always("serial", String("Its serial number; \"\" when it is not known.")), Always("cpu", cpu),
                 Always("memory", Integer("Its memory.").In("KiB").From(0)),
                 Always("uptime", Integer("How long it has been running.").In("seconds").From(0)),
                 Always("version", String("The version of its operating system."))},
                "The machine. Absent when the host does not answer.");
}

Schema Counter(std::string_view description) { return Integer(description).From(0); }

Schema Utilization() {
  const Schema cpu = Object({Always("user_load", Integer("By programs.").In("percent")),
                             Always("system_load", Integer("By the kernel.").In("percent")),
                             Always("other_load", Integer("By anything else.").In("percent"))});
  const Schema memory = Object({Always("memory_size", Integer("All of it.").In("KiB")),
                                Always("avail_real", Integer("What is free.").In("KiB")),
                                Always("buffer", Integer("What buffers take.").In("KiB")),
                                Always("cached", Integer("What caches take.").In("KiB"))});
  const Schema disk = Object({Always("device", String("The disk's name.").Like("sda")),
                              Always("reads", Counter("Reads.")), Always("read_byte", Bytes("What was read.")),
                              Always("writes", Counter("Writes.")), Always("write_byte", Bytes("What was written.")),
                              Always("busy_ms", Counter("How long it was busy.").In("milliseconds"))});
  const Schema network =
      Object({Always("device", String("The interface's name.").Like("eth0")), Always("rx", Bytes("Received.")),
              Always("rx_packets", Counter("Packets received.")), Always("rx_errors", Counter("Errors of these.")),
              Always("tx", Bytes("Sent.")), Always("tx_packets", Counter("Packets sent.")),
              Always("tx_errors", Counter("Errors of these."))});
  return Object({Sometimes("cpu", cpu), Sometimes("memory", memory.OrNull()),
                 Sometimes("disk", List(disk, "Each disk, counted since the machine started.")),
                 Sometimes("network", List(network, "Each interface, counted since it appeared."))},
                "How busy it is. What cannot be read is absent; all of it when the host does not answer.");
}

Schema Resources() {
  return Object({Always("http_port", Integer("The port of its web service without TLS; 0: none.")),
                 Always("https_port", Integer("The port with TLS; 0: none.")),
                 Always("https_enable", Flag("Whether it has TLS.")),
                 Always("https_redirect", Flag("Whether callers without TLS are sent there.")),
                 Sometimes("prefer_connect_ip", Any("The address to reach it at, where one was set.")),
                 Sometimes("ipList", List(String("An address.").Like("192.168.1.10"), "Its addresses.")),
                 Sometimes("cpu_usage", Integer("Its processors' load; -1 when not known.").In("percent")),
                 Sometimes("free_cpu_ghz", Number("What its processors have left.").In("GHz")),
                 Sometimes("free_ram_size", Integer("Its free memory.").In("KiB")),
                 Sometimes("total_ram_size", Integer("Its memory.").In("KiB"))},
                "What it has left. Absent when the host does not answer.");
}

Schema Interface() {
  return Object({Always("ifname", String("The interface's name.").Like("eth0")),
                 Always("ip", String("Its address; \"\" without one.").Like("192.168.1.10")),
                 Always("mask", String("The network mask; \"\" without an address.").Like("255.255.255.0")),
                 Always("mac", MacAddress("Its hardware address.")),
                 Always("speed", Integer("Its speed; 0 when not known.").In("Mb/s")),
                 Always("status", String("Whether it is connected.").OneOf({"connected", "disconnected"})),
                 Always("type", String("What it is, such as \"lan\" or \"bond\".")),
                 Always("interface_id", String("Its id in the cluster.")),
                 Always("host_id", RecordId("Its host's id."))});
}

Schema DescribedHost() {
  return Object(
      {Always("host_id", RecordId("The host's id.")), Always("state", State()), Always("age_s", Age()),
       Sometimes("inaccessible_since", InaccessibleSince()), Sometimes("name", String("The host's name.").Like("nas1")),
       Sometimes("version", String("The version of its software.")),
       Sometimes("addresses", List(String("An address.").Like("192.168.1.10"), "Its addresses.")),
       Sometimes("cpu_cores", Integer("Its logical processors.").From(0)),
       Sometimes("cpu_clock_speed", Number("Their clock.").In("MHz")),
       Sometimes("ram_size", Integer("Its memory.").In("KiB").From(0)),
       Sometimes("started", Time("When its daemon was started.")),
       Always("placement", Flag("Whether it may be chosen for guests without a host.")), Sometimes("system", System()),
       Sometimes("utilization", Utilization()), Sometimes("resources", Resources()),
       Always("interfaces", List(Interface(), "Its interfaces; empty when the host does not answer."))});
}

}  // namespace

std::vector<MethodSchema> HostSchemas() {
  constexpr std::string_view kApi = "VEXA.Virtualization.Host";
  return {{kApi, "list", {}, Object({Always("hosts", List(ListedHost(), "The hosts of the cluster."))})},
          {kApi, "get", {}, DescribedHost()},
          {kApi, "edit", {}, Null()},
          {kApi, "forget", {}, Null()},
          {kApi, "revoke", {}, Null()}};
}

}  // namespace vexa::api
