#include "host/api/import_parameters.h"
#include "host/api/user/schemas/user_schemas.h"
#include "host/base/guest_settings.h"
#include "host/domain_xml/domain_parse.h"
#include "host/guests/creation/creation_request.h"

namespace vexa::api {
namespace {

using namespace shape;  // NOLINT(google-build-using-namespace): the words of the tables below

constexpr std::string_view kApi = "VEXA.Virtualization.Guest";
// 8 PiB, beyond which no disk image can grow.
constexpr std::int64_t kMaxDiskGib = std::int64_t{1} << 23;

// The ranges, values and units of the settings that have one value.
std::vector<ParameterSchema> Settings() {
  std::vector<ParameterSchema> parameters;
  for (const GuestSetting& setting : kGuestSettings) {
    if (!setting.IsScalar()) continue;
    Schema schema;
    if (setting.type == SettingType::kNumber) schema = Integer("").From(setting.min).To(setting.max);
    if (setting.unit == Unit::kMib) schema.unit = "MiB";
    schema.values.assign(setting.allowed_values.begin(), setting.allowed_values.end());
    parameters.push_back({setting.name, std::move(schema)});
  }
  return parameters;
}

Schema DiskId() { return Id("The disk's id."); }
Schema DiskSize() { return Integer("The size; \"get\" reports it in MiB.").In("GiB").From(1).To(kMaxDiskGib).Like(20); }
SchemaMember Mode() {
  return Sometimes(
      "vdisk_mode",
      Integer("How the guest sees it: 1 VirtIO (the default), 2 IDE, 3 SATA, 4 SCSI.").From(1).To(4).Like(1));
}
SchemaMember Unmap() { return Sometimes("unmap", Flag("Whether space that the guest frees is given back.")); }
SchemaMember Format() {
  return Sometimes("format", String("The format of the file (default: qcow2).").OneOf({"qcow2", "raw"}));
}
Schema NicType() { return Integer("Its model: 1 VirtIO, 2 e1000, 3 rtl8139.").From(1).To(3).Like(1); }
Schema NicNetwork() { return String("The id of its network; \"\": none."); }
Schema Mac() { return MacAddress("Its MAC address; no other interface may have it."); }
Schema PreferSriov() { return Flag("Whether it prefers a virtual function."); }

// An element of a list of `set`, which may be one of `get` with changes: what `get` alone has is not read.
Schema Element(std::vector<SchemaMember> members, const Schema& of_get) {
  Schema element = Object(std::move(members));
  for (const SchemaMember& member : of_get.members) {
    if (!FindMember(element, member.name))
      element.members.push_back(Sometimes(member.name, Any("As in \"get\"; not read.")));
  }
  return element;
}
Schema NicElement(std::vector<SchemaMember> members) { return Element(std::move(members), StoredNicSchema()); }
Schema DiskElement(std::vector<SchemaMember> members) { return Element(std::move(members), StoredDiskSchema()); }

std::vector<ParameterSchema> Lists() {
  const Schema privilege = Object(
      {Sometimes("uid", Integer("The user's id.").From(0)), Sometimes("gid", Integer("The group's id.").From(0)),
       Sometimes("allow", Flag("Whether the right is granted.")), Sometimes("type", String("The kind of right.")),
       Sometimes("name", String("The name of the user or group."))});
  return {
      {"vnics_add", List(NicElement({Always("network_id", NicNetwork()), Always("prefer_sriov", PreferSriov()),
                                     Always("vnic_type", NicType()), Sometimes("mac", Mac())}),
                         "")},
      {"vnics_del", List(NicElement({Always("vnic_id", Id("The interface's id."))}), "")},
      {"vnics_edit", List(NicElement({Always("vnic_id", Id("The interface's id.")),
                                      Sometimes("network_id", NicNetwork()), Sometimes("mac", Mac()),
                                      Sometimes("vnic_type", NicType()), Sometimes("prefer_sriov", PreferSriov())}),
                          "")},
      {"vdisks_add", List(DiskElement({Always("vdisk_size", DiskSize()), Mode(), Unmap(), Format()}), "")},
      {"vdisks_del", List(DiskElement({Always("vdisk_id", DiskId())}), "")},
      {"vdisks_edit",
       List(DiskElement({Always("vdisk_id", DiskId()), Always("vdisk_size", DiskSize()), Mode(), Unmap()}), "")},
      {"vdisks_order", List(DiskElement({Always("vdisk_id", DiskId())}), "")},
      {"guest_privilege", List(privilege, "")},
      {"iso_images", List(String("An image's id, the path of a file, or \"unmounted\"."), "")},
      {"usbs", List(String("A device, such as 1234:00ab or 3.14, or \"unmounted\"."), "")},
  };
}

MethodSchema Set() {
  std::vector<ParameterSchema> parameters = Settings();
  for (ParameterSchema& list : Lists()) parameters.push_back(std::move(list));
  parameters.push_back({"apply", String("").OneOf({"now", "next_start"})});
  return {kApi, "set", std::move(parameters), Null()};
}

MethodSchema Create() {
  const Schema disk =
      Object({Sometimes("size_gib", DiskSize()),
              Sometimes("from", String("An image to copy: a path, an id or a name.")), Mode(), Unmap(), Format()});
  const Schema nic =
      Object({Sometimes("network", String("An id, a name, or \"\" for none.").OrNull()),
              Sometimes("vnic_type", NicType()), Sometimes("mac", Mac()), Sometimes("prefer_sriov", PreferSriov())});
  const Schema grant =
      Object({Sometimes("user", String("A user's name.")), Sometimes("group", String("A group's name."))});
  std::vector<ParameterSchema> parameters = Settings();
  parameters.push_back({"os", String("").OneOf({"linux", "windows", "other"})});
  parameters.push_back({"vdisks", List(disk, "")});
  parameters.push_back({"vnics", List(nic, "")});
  parameters.push_back({"usbs", List(String("A device, such as 1234:00ab or 3.14, or \"unmounted\"."), "")});
  parameters.push_back({"grants", List(grant, "").To(guests::kMaxNewGrants)});
  // A name, too.
  parameters.push_back({"host", String("").Like("nas1")});
  return {kApi, "create", std::move(parameters),
          Object({Always("guest_id", RecordId("The guest's id.")),
                  Always("name", String("The guest's name.").Like("web-1")),
                  Always("host_id", String("The id of its host; \"\" without one.")),
                  Sometimes("started", Flag("Whether it was started. Absent without \"start\".")),
                  Sometimes("start_error", String("Why not: a sentence."))})};
}

MethodSchema Import() {
  const Schema guest = Object(
      {Always("xml", String("The guest's <domain> XML.")),
       Sometimes("guest_id", Id("Its id; refused when the XML has another one.")),
       Sometimes("repository_id", Id("The repository of its disks (default: the only one of its host).")),
       Sometimes("host_id", Id("Its host (default: the one that is asked).")),
       Sometimes("autostart", Flag("Whether libvirt starts it with the host.")),
       Sometimes("has_variables", Flag("Whether it has a file of UEFI variables.")),
       Sometimes("disk_sizes_mib",
                 MapOf(Integer("A size.").In("MiB").From(1).To(static_cast<std::int64_t>(domain_xml::kMaxDiskMib)),
                       "The sizes of its disks, by target.")),
       Sometimes("image_sizes",
                 MapOf(Bytes("A size; null: the image cannot be read.").OrNull(), "The sizes of its images, by path.")),
       Sometimes("networks", MapOf(Id("The network's id."), "Networks of the cluster, by the name in the XML."))});
  const Schema part = Object({Always("id", String("The part's id.")), Always("object", Any("The record."))});
  const Schema element = Object(
      {Always("path", String("Where it is in the XML.")), Always("outcome", String("What becomes of it: a clause."))});
  const Schema records =
      Object({Always("id", String("The guest's id.")), Always("guest", Any("The guest's record.")),
              Always("disks", List(part, "Its disks.")), Always("nics", List(part, "Its interfaces.")),
              Always("notes", List(String("A sentence."), "What to know about it.")),
              Always("elements", List(element, "What becomes of the parts of the XML."))},
             "What would be written. Only in a dry run.");
  const Schema error =
      Object({Always("code", Integer("As of a failed call.")), Always("message", String("A sentence.")),
              Always("reason", String("Why: a sentence.")), Sometimes("hint", String("What helps."))});
  const Schema result =
      Object({Sometimes("guest_id", String("The guest's id.")), Sometimes("name", String("Its name.")),
              Sometimes("error", error), Sometimes("replaced", Flag("Whether it has replaced an earlier one.")),
              Sometimes("disks", Integer("How many disks it has.")), Sometimes("nics", Integer("How many interfaces.")),
              Sometimes("notes", List(String("A sentence."), "What to know about it.").OrNull()),
              Sometimes("elements", List(element, "What became of the parts of the XML.").OrNull()),
              Sometimes("records", records)});
  return {
      kApi,
      "import",
      {{"guests", List(guest, "").From(1).To(kMaxImportedGuests)}, {"planned", MapOf(String("The guest's name."), "")}},
      Object({Always("results", List(result, "The result of each guest, in the order of the request."))})};
}

}  // namespace

std::vector<MethodSchema> GuestEditSchemas() { return {Set(), Create(), Import()}; }

}  // namespace vexa::api
