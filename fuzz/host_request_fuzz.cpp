// What another host asks this one to do with a guest, with any parameters, on a real store and libvirt's test driver:
// every call is answered in the documented form, with a code that has a sentence.
//
// The input's first line is a letter for the method; the second one the parameters. If they are not JSON, well-formed
// ones of an edit are built from the bytes.
#include <filesystem>
#include <string>
#include <string_view>

#include "fuzz/bytes.h"
#include "fuzz/call_row.h"
#include "fuzz/check.h"
#include "host/api/peer/compound_api.h"
#include "host/api/peer/services.h"
#include "host/base/guest_settings.h"
#include "host/base/json_parse.h"
#include "host/guests/guest_control.h"
#include "host/records/environment.h"
#include "host/records/record_names.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"

namespace {

namespace json = VexaVirtualization::json;
using vexa::fuzz::Bytes;
using vexa::fuzz::Check;
using vexa::test::Parsed;

constexpr const char* kGuest = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr const char* kRepository = "11111111-2222-4333-8444-00000000000a";
constexpr const char* kDisk = "22222222-2222-4333-8444-00000000000a";

// Calls of items by a compound request end here: a success with data that is not JSON's simplest.
Json::Value AnswerItem(const VexaDRCore::Request& request, std::chrono::milliseconds) {
  Json::Value reply(Json::objectValue);
  reply["success"] = request.version() % 2 == 1;
  reply["data"] = request.parameters();
  return reply;
}

class Fixture {
 public:
  Fixture() {
    (void)vexa::records::InternedName("name");  // made before the threads that read it, so destroyed after their end
    PutRecords();
    vexa::guests::GuestControlOptions options;
    options.store = vexa::records::CurrentEnvironment()->store;
    options.host_id = HostId();
    options.image_roots = {images_};
    options.hypervisor.mode = "test";
    options.shut_down_wait = std::chrono::milliseconds(1);
    guests_ = vexa::test::Require(vexa::guests::GuestControl::Start(std::move(options)));
    vexa::api::ServiceParts parts;
    parts.store = vexa::records::CurrentEnvironment()->store;
    parts.guests = guests_.get();
    parts.web_ports = [] { return vexa::api::WebPorts(); };
    rows_ = vexa::api::ServiceRows(parts);
    for (vexa::api::ApiRow& row : vexa::api::CompoundRows(AnswerItem)) rows_.push_back(std::move(row));
  }

  const vexa::api::ApiRow& Row(std::size_t number) const { return rows_[number % rows_.size()]; }
  static std::string HostId() { return vexa::records::CurrentEnvironment()->host_id; }

  // The same state before each input: the guest is off, and its records and files are those of PutRecords.
  void PutRecords() {
    if (guests_) (void)guests_->PowerOff(kGuest, {"fuzz", "", ""});
    std::filesystem::remove_all(images_);
    std::filesystem::create_directories(images_ + "/" + kRepository);
    Json::Value guest = Parsed(R"({"name":"web-1","vcpu_num":1,"vram_size":64,"vnics":[],"state":"guest_shutdown"})");
    guest["host_id"] = HostId();
    guest["repository_id"] = kRepository;
    guest["vdisks"].append(kDisk);
    host_.Put("guest", kGuest, guest);
    Json::Value disk = Parsed(R"({"name":"vda","driver":"raw","vdisk_mode":1,"size":1})");
    disk["guest_id"] = kGuest;
    disk["repository_id"] = kRepository;
    disk["path"] = images_ + "/" + kRepository + "/a.img";
    host_.Put("vdisk", kDisk, disk);
    host_.Put("repository", kRepository,
              Parsed(R"({"name":"pool","state":"repo_online","host_id":")" + HostId() + "\"}"));
    host_.Put("host", HostId(), Parsed(R"({"name":"nas-1"})"));
  }

 private:
  vexa::test::TestHost host_;
  const std::string images_ = host_.folder().File("images");
  std::unique_ptr<vexa::guests::GuestControl> guests_;
  std::vector<vexa::api::ApiRow> rows_;
};

Json::Value DiskChange(Bytes& bytes) {
  Json::Value change(Json::objectValue);
  if (bytes.Take(2) == 0) change["vdisk_id"] = bytes.Take(4) == 0 ? bytes.Text() : kDisk;
  if (bytes.Take(2) == 0) change["vdisk_size"] = static_cast<int>(bytes.Take(16));
  if (bytes.Take(4) == 0) change["vdisk_mode"] = bytes.Value(3);
  if (bytes.Take(8) == 0) change["format"] = bytes.Take(2) == 0 ? "raw" : "qcow2";
  return change;
}

// Mostly an edit that a guest can have.
Json::Value BuildParameters(Bytes bytes) {
  Json::Value parameters(Json::objectValue);
  parameters["guest_id"] = kGuest;
  while (!bytes.IsAtEnd() && parameters.size() < 24) {
    const vexa::GuestSetting& setting = bytes.Pick(vexa::kGuestSettings);
    const std::size_t form = bytes.Take(16);
    Json::Value& value = parameters[setting.name];
    if (form == 0) {
      value = bytes.Value();
    } else if (setting.type == vexa::SettingType::kList) {
      vexa::fuzz::Append(value,
                         std::string_view(setting.name).starts_with("vdisks_") ? DiskChange(bytes) : bytes.Value(1));
    } else if (setting.type == vexa::SettingType::kBoolean) {
      value = form % 2 == 1;
    } else if (setting.type == vexa::SettingType::kNumber) {
      value = static_cast<Json::Int64>(form % 2 == 1 ? setting.min : setting.max);
    } else {
      value = setting.type == vexa::SettingType::kId ? kGuest : bytes.Text();
    }
  }
  return parameters;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Fixture fixture;
  if (size == 0) return 0;
  std::string_view rest = vexa::fuzz::Text(data, size);
  const vexa::api::ApiRow& row = fixture.Row(static_cast<unsigned char>(rest.front()));
  (void)vexa::fuzz::TakeUntil(rest, "\n");
  const auto parsed = vexa::ParseJson(rest);
  if (parsed.ok() && !parsed->isObject()) return 0;  // refused before a method is called
  fixture.PutRecords();
  vexa::test::ClearCapturedSyslog();
  (void)vexa::fuzz::CallRow(row, parsed.ok() ? *parsed : BuildParameters(Bytes(rest)), vexa::fuzz::HostCaller());
  return 0;
}
