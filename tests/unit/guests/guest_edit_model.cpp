#include "tests/unit/guests/guest_edit_model.h"

#include <algorithm>
#include <cctype>

#include "tests/support/setting_lists.h"

namespace vexa::test {
namespace {

constexpr std::size_t kMostParts = 64;
constexpr const char* kScalars[] = {"name",       "desc",        "vcpu_num",         "vram_size",  "video_card",
                                    "boot_from",  "use_ovmf",    "cpu_passthru",     "autorun",    "kb_layout",
                                    "cpu_weight", "cpu_pin_num", "hyperv_enlighten", "usb_version"};
static_assert(ListsExactlyScalars(kScalars));

// What the domain XML always has.
constexpr const char* kOfTheMachine[] = {"desc",     "vcpu_num",   "vram_size", "cpu_weight", "cpu_passthru",
                                         "use_ovmf", "video_card", "kb_layout", "usb_version"};
// The name has a comparison of its own; "autorun" is not of the machine; pins depend on what else runs; an emulated
// guest has no Hyper-V; and the boot device depends on what there is to boot from.
constexpr const char* kNotOfTheMachine[] = {"name", "autorun", "cpu_pin_num", "hyperv_enlighten", "boot_from"};
static_assert(std::ranges::all_of(kScalars, [](const char* name) {
  return ContainsOnce(kOfTheMachine, name) != ContainsOnce(kNotOfTheMachine, name);
}));

std::string Lower(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::vector<Json::Value> RecordsOf(const std::vector<ModelPart>& parts) {
  std::vector<Json::Value> records;
  for (const ModelPart& part : parts) records.push_back(part.record);
  return records;
}

// One edit of one guest, a rule at a time.
class Prediction {
 public:
  Prediction(const EditModel& model, const ModelGuest& before, const Json::Value& edit)
      : model_(model), before_(before), edit_(edit) {
    outcome_.after = before;
  }

  ModelOutcome Take() {
    if (!before_.is_whole) Refuse(403);
    if (before_.is_deleted || (before_.is_edited && WantsFiles())) Refuse(915);
    Scalars();
    Nics();
    Images();
    Disks();
    Together();
    return outcome_;
  }

 private:
  ModelGuest& after() { return outcome_.after; }
  void Refuse(int code) { outcome_.codes.insert(code); }

  bool WantsFiles() const {
    if (edit_["vdisks_add"].size() + edit_["vdisks_del"].size() > 0) return true;
    return std::ranges::any_of(edit_["vdisks_edit"], [&](const Json::Value& change) {
      const auto disk = std::ranges::find(before_.disks, change["vdisk_id"].asString(), &ModelPart::id);
      return disk != before_.disks.end() && disk->record["size"].asInt64() != change["vdisk_size"].asInt64();
    });
  }

  void Scalars() {
    for (const char* name : kScalars) {
      if (edit_.isMember(name)) after().record[name] = edit_[name];
    }
    for (const auto& [id, other] : model_.guests) {
      if (id != before_.id && edit_.isMember("name") && edit_["name"] != before_.record["name"] &&
          other.record["name"] == edit_["name"]) {
        Refuse(902);
      }
    }
    std::set<std::string> devices;
    for (const Json::Value& device : edit_["usbs"]) {
      if (device != "unmounted" && !devices.insert(device.asString()).second) Refuse(936);
    }
    if (edit_.isMember("usbs")) {
      Json::Value& usbs = after().record["usbs"] = edit_["usbs"];
      while (usbs.size() < 4) usbs.append("unmounted");
    }
    if (edit_.isMember("iso_images")) after().record["iso_images"] = edit_["iso_images"];
    if (edit_["hyperv_enlighten"].asBool() && edit_.isMember("cpu_passthru") && !edit_["cpu_passthru"].asBool()) {
      Refuse(401);
    }
  }

  // Whether a record still contains the name of the network.
  bool IsNetworkNameKnown(const std::string& network_id) const {
    if (model_.networks_with_record.contains(network_id)) return true;
    for (const auto& [id, guest] : model_.guests) {
      if (!guest.is_whole) continue;  // its interface is not stored
      for (const ModelPart& nic : guest.nics) {
        if (nic.record["network_group_id"] == network_id) return true;
      }
    }
    return false;
  }
  void Network(Json::Value& nic, const std::string& id) {
    const auto known = IsNetworkNameKnown(id) ? model_.networks.find(id) : model_.networks.end();
    if (!id.empty() && known == model_.networks.end()) Refuse(903);
    nic["network_group_id"] = id;
    nic["network_name"] = known == model_.networks.end() ? "" : known->second;
  }
  void Mac(Json::Value& nic, const std::string& mac) {
    nic["mac_address"] = Lower(mac);
    outcome_.taken_macs.insert(Lower(mac));
    for (const auto& [id, other] : model_.guests) {
      if (id != before_.id && Users(other, Lower(mac)) > 0) Refuse(903);
    }
  }

  void Nics() {
    std::vector<ModelPart>& nics = after().nics;
    for (const Json::Value& entry : edit_["vnics_del"]) {
      if (std::erase_if(nics, [&](const ModelPart& nic) { return nic.id == entry["vnic_id"].asString(); }) == 0) {
        Refuse(903);
      }
    }
    for (const Json::Value& change : edit_["vnics_edit"]) {
      const auto nic = std::ranges::find(nics, change["vnic_id"].asString(), &ModelPart::id);
      if (nic == nics.end()) {
        Refuse(903);
        continue;
      }
      if (change.isMember("network_id") && change["network_id"] != nic->record["network_group_id"]) {
        Network(nic->record, change["network_id"].asString());
      }
      if (change.isMember("mac") && Lower(change["mac"].asString()) != nic->record["mac_address"].asString()) {
        Mac(nic->record, change["mac"].asString());
      }
      for (const char* name : {"vnic_type", "prefer_sriov"}) {
        if (change.isMember(name)) nic->record[name] = change[name];
      }
    }
    for (const Json::Value& addition : edit_["vnics_add"]) {
      Json::Value nic(Json::objectValue);
      nic["guest_id"] = before_.id;
      nic["prefer_connect_ip"] = "";
      nic["vnic_type"] = addition.isMember("vnic_type") ? addition["vnic_type"] : Json::Value(1);
      nic["prefer_sriov"] = addition["prefer_sriov"].asBool();
      Network(nic, addition["network_id"].asString());
      if (addition.isMember("mac")) {
        Mac(nic, addition["mac"].asString());
      } else {
        ++outcome_.new_macs;
      }
      nics.push_back({"", nic});
    }
    const bool is_more = edit_["vnics_add"].size() + edit_["vnics_edit"].size() > 0;
    if (nics.size() > kMostParts && is_more) Refuse(903);
    if (edit_["vnics_add"].size() > kMostParts) Refuse(903);
    Addresses();
  }

  static std::ptrdiff_t Users(const ModelGuest& guest, const std::string& mac) {
    return std::ranges::count_if(guest.nics, [&](const ModelPart& nic) { return nic.record["mac_address"] == mac; });
  }

  void Addresses() {
    for (const std::string& mac : outcome_.taken_macs) {
      if (Users(after(), mac) > 1) Refuse(903);
    }
  }

  void Images() {
    for (const Json::Value& image : edit_["iso_images"]) {
      const Json::Value& before = before_.record["iso_images"];
      if (image == "unmounted" || std::find(before.begin(), before.end(), image) != before.end()) continue;
      const std::string name = image.asString();
      const auto known = model_.images.find(name);
      const bool is_path = name.starts_with('/');
      if (!is_path && known == model_.images.end()) Refuse(932);
      const std::string path = is_path ? name : known == model_.images.end() ? "" : known->second;
      if (path.find("..") != std::string::npos || model_.Files().contains(path)) Refuse(932);
    }
  }

  // The first name on the bus that no disk has.
  std::string FreeName(int mode) {
    static const std::string prefixes[] = {"vd", "hd", "sd", "sd"};
    for (int i = 0;; ++i) {
      std::string name = prefixes[mode - 1];
      if (i >= 26) name += static_cast<char>('a' + i / 26 - 1);
      name += static_cast<char>('a' + i % 26);
      if (std::ranges::none_of(after().disks, [&](const ModelPart& d) { return d.record["name"] == name; }))
        return name;
    }
  }

  void Disks() {
    const bool asks = edit_["vdisks_add"].size() + edit_["vdisks_del"].size() + edit_["vdisks_edit"].size() +
                          edit_["vdisks_order"].size() >
                      0;
    if (!asks) return;
    const std::string repository = before_.record["repository_id"].asString();
    const auto host = model_.repository_hosts.find(repository);
    if (host != model_.repository_hosts.end() && host->second != model_.host_id) Refuse(912);
    if (before_.is_suspended) Refuse(944);
    Removals();
    Changes();
    Order();
    if (edit_["vdisks_add"].empty()) return;
    const auto count = after().disks.size() + edit_["vdisks_add"].size();
    if (count > kMostParts || edit_["vdisks_add"].size() > kMostParts) return Refuse(410);
    const auto folder = model_.repository_folders.find(repository);
    if (folder == model_.repository_folders.end()) return Refuse(949);
    if (model_.blocked_repositories.contains(repository)) Refuse(901);
    for (const Json::Value& addition : edit_["vdisks_add"]) Add(addition, repository);
  }

  void Removals() {
    for (const Json::Value& entry : edit_["vdisks_del"]) {
      const std::string id = entry["vdisk_id"].asString();
      if (std::erase_if(after().disks, [&](const ModelPart& disk) { return disk.id == id; }) == 0) Refuse(904);
      if (before_.is_running) Refuse(904);
    }
  }

  void Changes() {
    std::set<std::string> changed;
    for (const Json::Value& change : edit_["vdisks_edit"]) {
      const std::string id = change["vdisk_id"].asString();
      const auto disk = std::ranges::find(after().disks, id, &ModelPart::id);
      if (disk == after().disks.end() || changed.contains(id)) {
        Refuse(904);
        continue;
      }
      const Json::Value was = disk->record;
      const std::int64_t to = change["vdisk_size"].asInt64();
      const std::int64_t from = was["size"].asInt64();
      if (to < from || (to > from && (before_.is_running || before_.missing_files.contains(id)))) Refuse(904);
      disk->record["size"] = Json::Int64{to};
      if (change.isMember("vdisk_mode") && change["vdisk_mode"] != was["vdisk_mode"]) {
        disk->record["vdisk_mode"] = change["vdisk_mode"];
        disk->record["name"] = "";
        disk->record["name"] = FreeName(change["vdisk_mode"].asInt());
      }
      if (change.isMember("unmap")) disk->record["unmap"] = change["unmap"];
      if (disk->record != was) changed.insert(id);
    }
  }

  void Order() {
    std::vector<ModelPart> first;
    for (const Json::Value& entry : edit_["vdisks_order"]) {
      const auto disk = std::ranges::find(after().disks, entry["vdisk_id"].asString(), &ModelPart::id);
      if (disk == after().disks.end()) {
        Refuse(904);
        continue;
      }
      first.push_back(*disk);
      after().disks.erase(disk);
    }
    first.insert(first.end(), after().disks.begin(), after().disks.end());
    after().disks = std::move(first);
  }

  void Add(const Json::Value& addition, const std::string& repository) {
    const bool is_raw = addition["format"] == "raw";
    const int mode = addition.isMember("vdisk_mode") ? addition["vdisk_mode"].asInt() : 1;
    Json::Value disk(Json::objectValue);
    disk["guest_id"] = before_.id;
    disk["repository_id"] = repository;
    disk["name"] = FreeName(mode);
    disk["size"] = addition["vdisk_size"];
    disk["driver"] = is_raw ? "raw" : "qcow2";
    disk["type"] = is_raw ? 1 : 2;
    disk["unmap"] = addition["unmap"].asBool();
    disk["vdisk_mode"] = mode;
    disk["format"] = 2;
    disk["is_dummy"] = false;
    disk["is_meta_disk"] = false;
    disk["path"] = model_.repository_folders.at(repository) + "/";
    after().disks.push_back({"", disk});
  }

  void Together() {
    const Json::Value& record = after().record;
    const bool has_device =
        std::ranges::any_of(record["usbs"], [](const Json::Value& device) { return device != "unmounted"; });
    if (has_device && record["usb_version"] == 0) Refuse(938);
    if (record["cpu_pin_num"].asInt() > record["vcpu_num"].asInt()) Refuse(401);
    if (std::ranges::count(after().disks, Json::Value(2),
                           [](const ModelPart& disk) { return disk.record["vdisk_mode"]; }) > 4) {
      Refuse(401);
    }
    const bool is_pinned_anew = record["cpu_pin_num"] != before_.record["cpu_pin_num"];
    if (before_.is_running && is_pinned_anew && !model_.HasProcessors(before_, record["cpu_pin_num"].asInt64()))
      Refuse(2101);
  }

  const EditModel& model_;
  const ModelGuest& before_;
  const Json::Value& edit_;
  ModelOutcome outcome_;
};

}  // namespace

Json::Value StoredRecord(const ModelGuest& guest) {
  Json::Value record = guest.record;
  for (const auto& [name, parts] : {std::pair("vdisks", &guest.disks), std::pair("vnics", &guest.nics)}) {
    record[name] = Json::Value(Json::arrayValue);
    for (const ModelPart& part : *parts) record[name].append(part.id);
  }
  return record;
}

std::string MachineOf(const Json::Value& guest, const std::vector<Json::Value>& disks,
                      const std::vector<Json::Value>& nics) {
  std::string text;
  const auto add = [&](const Json::Value& record, const char* member) {
    text += std::string(member) + "=" + record[member].asString() + "\n";
  };
  for (const char* member : kOfTheMachine) add(guest, member);
  // Else there is nothing to choose from.
  if (!disks.empty() && !guest["iso_images"].empty()) add(guest, "boot_from");
  for (const Json::Value& entry : guest["iso_images"]) text += "image " + entry.asString() + "\n";
  // The machine knows of no empty ports.
  for (const Json::Value& entry : guest["usbs"]) {
    if (entry != "unmounted") text += "device " + entry.asString() + "\n";
  }
  for (const Json::Value& disk : disks) {
    for (const char* member : {"name", "driver", "path", "vdisk_mode", "unmap"}) add(disk, member);
  }
  for (const Json::Value& nic : nics) {
    for (const char* member : {"mac_address", "vnic_type", "network_name"}) add(nic, member);
  }
  return text;
}

std::string MachineOf(const ModelGuest& guest) {
  return MachineOf(guest.record, RecordsOf(guest.disks), RecordsOf(guest.nics));
}

ModelOutcome EditModel::Predict(const std::string& guest_id, const Json::Value& edit) const {
  const auto guest = guests.find(guest_id);
  if (guest == guests.end()) {
    ModelGuest nobody;
    nobody.is_whole = false;
    return Prediction(*this, nobody, edit).Take();
  }
  return Prediction(*this, guest->second, edit).Take();
}

bool EditModel::HasProcessors(const ModelGuest& guest, std::int64_t pins) const {
  std::int64_t taken = 0;
  for (const auto& [id, other] : guests) {
    if (id != guest.id && other.is_running) taken += other.started["cpu_pin_num"].asInt64();
  }
  return pins == 0 || taken + pins < cpus;
}

std::set<int> EditModel::PredictPower(const ModelGuest& guest, bool is_on) const {
  if (is_on == guest.is_running) return {is_on ? 910 : 911};
  std::set<int> codes;
  if (!is_on) return codes;
  std::int64_t vcpus = 0;
  std::int64_t memory = 0;
  for (const auto& [id, other] : guests) {
    if (id != guest.id && !other.is_running) continue;
    const Json::Value& record = id == guest.id ? guest.record : other.started;
    vcpus += record["vcpu_num"].asInt64();
    memory += record["vram_size"].asInt64();
  }
  if (vcpus > most_vcpus) codes.insert(927);
  if (memory > memory_mib) codes.insert(928);
  if (!HasProcessors(guest, guest.record["cpu_pin_num"].asInt64())) codes.insert(942);
  return codes;
}

void EditModel::Learn(ModelGuest& guest, const Json::Value& stored) {
  for (const auto& [name, parts] : {std::pair("vdisks", &guest.disks), std::pair("vnics", &guest.nics)}) {
    for (Json::ArrayIndex i = 0; i < parts->size(); ++i) {
      ModelPart& part = (*parts)[i];
      if (!part.id.empty()) continue;
      part.id = stored[name][i].asString();
      if (part.record.isMember("path"))
        part.record["path"] =
            part.record["path"].asString() + part.id + (part.record["driver"] == "raw" ? ".raw" : ".qcow2");
    }
  }
}

std::map<std::string, std::int64_t> EditModel::Files() const {
  std::map<std::string, std::int64_t> files;
  for (const auto& [id, guest] : guests) {
    for (const ModelPart& disk : guest.disks) {
      if (!guest.missing_files.contains(disk.id)) {
        files[disk.record["path"].asString()] = disk.record["size"].asInt64() << 20;
      }
    }
  }
  return files;
}

}  // namespace vexa::test
