#include "host/api/user/schemas/user_schemas.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

using namespace shape;  // NOLINT(google-build-using-namespace): the words of the tables below

constexpr std::string_view kApi = "VEXA.Virtualization.Guest";

Schema GuestId() { return RecordId("The guest's id."); }
Schema HostId() { return String("The id of its host; \"\" without one.").Like("8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01"); }
Schema Name() { return String("The guest's name.").Like("web-1"); }

// What is copied from a record as it is, and is null where the record does not have it.
Schema Copied(const Schema& schema) { return schema.OrNull(); }

Schema StoredGuest() {
  return Object(
      {Always("name", Copied(Name())),
       Always("repo_id", Copied(RecordId("The repository of its disks."))),
       Always("vcpu_num", Integer("The number of virtual CPUs.").Like(2)),
       Always("vram_size",
              Integer("The memory, in KiB; \"set\" and \"create\" take it in MiB.").In("KiB").Like(2'097'152)),
       Always("video_card", String("The model of the video card.").Like("virtio")),
       Always("cpu_passthru", Flag("Whether the guest sees the host's own processor.")),
       Always("vdisks", List(StoredDiskSchema(), "Its disks.")),
       Always("vnics", List(StoredNicSchema(), "Its network interfaces.")),
       Always("autorun", Integer("Its start with its host: 0 never, 1 always, 2 as it was before.").From(0).To(2)),
       Always("is_ha_enabled", Flag("Whether it is in a high-availability group.")),
       Always("desc", String("The description.")),
       Always("boot_from", String("What it boots from: disk or iso.").Like("disk")),
       Always("use_ovmf", Flag("Whether its firmware is UEFI.")),
       Always("usb_version", Integer("The version of the USB controller; 0: none.").Like(2)),
       Always("usbs", List(Copied(String("A device, such as 1234:00ab or 3.14, or \"unmounted\".").Like("unmounted")),
                           "The devices in its four USB ports.")
                          .From(4)
                          .To(4)),
       Always("kb_layout", String("The keyboard layout.").Like("Default")),
       Always("cpu_pin_num", Integer("The number of CPU threads dedicated to it.").Like(0)),
       Always("cpu_weight", Integer("Its weight against other guests under CPU contention.").Like(256)),
       Sometimes("hyperv_enlighten", Flag("Whether it has Hyper-V's enlightenments. Absent where it was never set.")),
       Sometimes("iso_images",
                 Copied(List(String("An image's id, the path of a file, or \"unmounted\".").Like("unmounted"),
                             "The contents of its drives. Absent where they were never set."))),
       Sometimes("is_general_vm", Any("As the record has it."))});
}

std::vector<SchemaMember> StateMembers() {
  return {Always("guest_id", GuestId()),
          Always("guest_name", Name()),
          Always("host_id", HostId()),
          Always("status", DisplayedState(VexaVirtualization::STATE_CATE_GUEST, "Its state now.")),
          Always("status_type", Severity()),
          Always("age_s", Integer("How old this is.").In("seconds").From(0)),
          Sometimes("inaccessible_since", Time("Since when its host has not been heard of. Absent while it is."))};
}

Schema Pending() {
  const Schema difference =
      Object({Always("property", String("The setting, or \"vdisks\", \"vnics\" and the like.").Like("vcpu_num")),
              Sometimes("id", String("The id of the disk or interface.")),
              Always("running", Any("The value that the running guest has; null: the part does not exist there.")),
              Always("recorded", Any("The value that it will have; null: the part goes."))});
  return List(difference, "What waits for its next start.");
}

Schema HighAvailability() {
  const Schema host =
      Object({Always("host_id", String("The host's id.")), Always("host_name", String("The host's name.").Like("nas1")),
              Always("ha_host_role", Copied(List(String("A role.").Like("running_host"), "Its roles."))),
              Always("ha_host_status", String("The raw state of the host.")), Always("ha_host_status_type", Severity()),
              Always("ha_host_status_detail", List(String("A problem."), "Its problems."))});
  return Object({Always("hosts", List(host, "The hosts of the group.")),
                 Always("status", String("The displayed state of the group; \"\" when it cannot be read.")),
                 Always("status_type", String("How severe that is; \"\" when it cannot be read.")),
                 Always("status_reason", String("Why: a word, or \"\"."))},
                "Its high-availability group. Absent without one.");
}

Schema Status() {
  const Schema disk = Object({Always("vdisk_id", String("The disk's id.").Like("8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01")),
                              Always("name", String("The disk's name.")),
                              Always("status", DisplayedState(VexaVirtualization::STATE_CATE_VDISK, "Its state now.")),
                              Always("status_type", Severity())});
  const Schema shutdown = Object({Always("reason", String("What has ended it.").Like("shut_down")),
                                  Always("forced", Flag("Whether it was ended by force."))},
                                 "Why it is off. Absent while it is not, or when that is not known.");
  std::vector<SchemaMember> members = StateMembers();
  members.push_back(Always("status_reason", String("Why it is in this state: a word, or \"\".")));
  members.push_back(Sometimes("progress", Integer("How much of its creation is done.").In("percent")));
  members.push_back(Always("disks", List(disk, "Its disks.")));
  members.push_back(Sometimes("shutdown", shutdown));
  members.push_back(Sometimes("ha", HighAvailability()));
  members.push_back(Sometimes("notes", List(String("A sentence."), "What it runs without. Absent without notes.")));
  members.push_back(Sometimes("pending", Pending().Saying("What waits for its next start. Absent while it does not "
                                                          "run.")));
  members.push_back(Sometimes("pending_reason", String("Why that is not known: a sentence.")));
  return Object(std::move(members));
}

Schema Information() {
  return Object(
      {Always("guest_id", GuestId()),
       Always("answered", Flag("Whether its host has answered; otherwise the rest has no meaning.")),
       Always("ip", List(String("An address.").Like("192.168.1.20"), "Its addresses.")),
       Always("uptime", String("How long it has been running, a number in a string.").In("seconds").Like("3600")),
       Always("has_agent", Flag("Whether a guest agent answers."))});
}

std::vector<MethodSchema> ConsoleMethods() {
  return {{kApi,
           "console_ticket",
           {{"type", String("").OneOf({"vnc", "serial"})}},
           Object({Always("ticket", String("Good once.")),
                   Always("expires_in_s", Integer("For how long it is good.").In("seconds").From(1).Like(30)),
                   Always("path", String("Where to open a WebSocket."))})},
          {kApi, "screenshot", {}, Object({Always("png", String("The picture, in base64.").As("byte"))})},
          {kApi, "type", {{"text", String("").Like("hello\n")}}, Null()}};
}

// By host, or null for an empty list of hosts.
Schema PowerResult() {
  const Schema host =
      Object({Always("host_id", String("The host's id.")), Always("success", Flag("Whether it worked.")),
              Sometimes("errcode", Integer("Its code, if not."))});
  return List(host, "null; of \"poweroff_by_ha\" the result of each host.").OrNull();
}

}  // namespace

Schema StoredDiskSchema() {
  return Object(
      {Always("vdisk_id", RecordId("The disk's id.")),
       Always("size", String("The disk's size, a number in a string, in MiB; \"set\" and \"create\" take it in GiB.")
                          .In("MiB")
                          .Like("20480")),
       Always("lun_type",
              String("How it is stored.").OneOf({"alun", "blun", "blun_sink", "blun_cow", "blun_compress"})),
       Always("vdisk_mode", Integer("How the guest sees it: 1 VirtIO, 2 IDE, 3 SATA, 4 SCSI.").Like(1)),
       Always("is_dummy", Flag("Whether the disk has no file.")),
       Always("unmap", Flag("Whether space that the guest frees is given back.")),
       Always("is_meta_disk", Flag("Whether it holds data of the cluster."))});
}

Schema StoredNicSchema() {
  return Object({Always("vnic_id", RecordId("The interface's id.")),
                 Always("network_id", Copied(String("The id of its network; \"\" without one."))),
                 Always("prefer_sriov", Copied(Flag("Whether it prefers a virtual function."))),
                 Always("mac", Copied(MacAddress("Its MAC address."))),
                 Always("vnic_type", Copied(Integer("Its model: 1 VirtIO, 2 e1000, 3 rtl8139.").Like(1)))});
}

std::vector<MethodSchema> GuestSchemas() {
  std::vector<MethodSchema> schemas{
      {kApi, "get", {}, StoredGuest()},
      {kApi, "delete", {}, Null()},
      {kApi, "list", {}, Object({Always("guests", List(Object(StateMembers()), "The guests."))})},
      {kApi, "status", {}, Status()},
      {kApi, "info", {}, Information()},
      {kApi, "apply", {}, Object({Always("pending", Pending())})},
      {kApi, "recover", {}, Null()},
      {"VEXA.Virtualization.Guest.Action",
       "pwr_ctl",
       {{"action", String("").OneOf({"poweron", "shutdown", "poweroff", "reboot", "poweroff_by_ha"})},
        {"host_ids", List(String("A host's id."), "")}},
       PowerResult()}};
  for (const std::string_view method : {"suspend", "resume", "save", "restore", "discard_saved", "release"}) {
    schemas.push_back({kApi, method, {}, Null()});
  }
  for (MethodSchema& method : ConsoleMethods()) schemas.push_back(std::move(method));
  return schemas;
}

}  // namespace vexa::api
