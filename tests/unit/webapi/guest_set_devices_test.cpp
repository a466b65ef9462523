// Guest::Set: the elements of lists, images and USB, the report for each invalid one, and what is forwarded of the
// rest.
#include <functional>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/guest_set_fixture.h"

namespace vexa::test {
namespace {

constexpr const char* kId = "c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10";

using GuestSetDevices = GuestSet;

// What is wrong with an element, without its index: the list's name in messages and the error. Both are empty when it
// is valid; "mac" means that the address must be looked up.
using Finding = std::pair<std::string, std::string>;

// The description a second time, by hand: what jsoncpp's own accessors say of each kind of value.
bool IsId(const Json::Value& value) { return value.isString() && value.asString().size() == 36; }
bool IsEmptyText(const Json::Value& value) {
  return value.isNull() || value.isArray() || value.isObject() || (value.isString() && value.asString().empty());
}
bool IsWholeNumber(const Json::Value& value) {
  return (value.type() == Json::intValue || value.type() == Json::uintValue) && value.isInt();
}
bool IsSize(const Json::Value& value) {
  if (value.type() == Json::realValue) return value.asDouble() >= 1 && value.asDouble() <= 2147483647.0;
  if (value.type() == Json::booleanValue) return value.asBool();
  return IsWholeNumber(value) && value.asInt() >= 1;
}

Finding FindingOf(const std::string& list, const Json::Value& given) {
  const Json::Value element = given.isObject() ? given : Json::Value(Json::objectValue);
  const auto in = [&](const char* name) { return element.isMember(name); };
  const Json::Value& network = element["network_id"];
  if (list.starts_with("vnics_")) {
    const std::string said = "vincs_" + list.substr(6);
    if (list != "vnics_del" && !IsEmptyText(network) && !IsId(network)) return {said, R"(["network_id"] is invalid)"};
    if (list != "vnics_add" && !IsId(element["vnic_id"])) return {said, R"(["vnic_id"] is invalid)"};
    if (list == "vnics_add" && !element["prefer_sriov"].isBool()) return {said, R"(["prefer_sriov"] is not bool)"};
    const bool is_bad_type = !IsWholeNumber(element["vnic_type"]);
    if (list == "vnics_add" && is_bad_type) return {said, R"(["vinc_type"] is not int)"};
    if (list == "vnics_edit" && in("vnic_type") && is_bad_type) return {said, R"(["vinc_type"] is not int)"};
    return {};
  }
  if (list != "vdisks_add" && !IsId(element["vdisk_id"])) return {list, R"(["vdisk_id"] is empty)"};
  if ((list == "vdisks_add" || list == "vdisks_edit") && !IsSize(element["vdisk_size"])) {
    return {list, R"(["vdisk_size"] <= 0)"};
  }
  return {};
}

constexpr const char* kLists[] = {"vnics_add",  "vnics_del",   "vnics_edit",  "vdisks_add",
                                  "vdisks_del", "vdisks_edit", "vdisks_order"};

Json::Value GoodElement() {
  Json::Value element = Parsed(R"({"prefer_sriov":false,"vnic_type":1,"mac":"02:00:00:00:00:01","vdisk_size":20})");
  for (const char* name : {"network_id", "vnic_id", "vdisk_id"}) element[name] = kId;
  return element;
}

class GuestSetElements : public GuestSet, public testing::WithParamInterface<const char*> {};

// Every member of an element is each kind of bad value, or missing, behind any number of good elements.
TEST_P(GuestSetElements, Set_MutatedElement_IsRefusedWithIndexOrForwardedUnchanged) {
  const std::string list = GetParam();
  for (Json::ArrayIndex good_ones : {0u, 2u}) {
    Json::Value element = GoodElement();
    ForEachMutation(element, [&] {
      SetUp();
      Json::Value elements(Json::arrayValue);
      for (Json::ArrayIndex i = 0; i < good_ones; ++i) elements.append(GoodElement());
      elements.append(element);
      elements.append(Json::Value());  // wrong in every list, but not the first one that is
      const Json::Value parameters = With(list, elements);
      Finding finding = FindingOf(list, element);
      Json::ArrayIndex index = good_ones;
      if (finding.first.empty()) finding = FindingOf(list, elements[++index]);
      ExpectRefused(parameters, 401,
                    {BadParameters(finding.first + "[" + std::to_string(index) + "]" + finding.second, parameters)});

      SetUp();
      elements.resize(good_ones + 1);
      if (index == good_ones) return;
      ExpectEdited(Set(With(list, elements)));
      if (list == "vdisks_add" || list == "vdisks_edit") {
        for (Json::Value& disk : elements) disk["vdisk_size"] = Json::Int64{disk["vdisk_size"].asInt()} * 1024;
      }
      Json::Value members(Json::objectValue);
      members[list] = elements;
      ExpectOrderOf(list.starts_with("vdisks_") ? "north" : "south", members);
    });
  }
}

INSTANTIATE_TEST_SUITE_P(Lists, GuestSetElements, testing::ValuesIn(kLists),
                         [](const auto& test) { return std::string(test.param); });

struct Message {
  const char* members;
  const char* complaint;
};

// Each message once more as it stands in the description, with an index.
constexpr Message kMessages[] = {
    {R"({"vnics_add":[{"network_id":"x"}]})", R"(vincs_add[0]["network_id"] is invalid)"},
    {R"({"vnics_add":[{"prefer_sriov":1}]})", R"(vincs_add[0]["prefer_sriov"] is not bool)"},
    {R"({"vnics_add":[{"prefer_sriov":true,"vnic_type":0},{"prefer_sriov":true,"vnic_type":"0"}]})",
     R"(vincs_add[1]["vinc_type"] is not int)"},
    {R"({"vnics_del":[{"vnic_id":"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10"},{}]})",
     R"(vincs_del[1]["vnic_id"] is invalid)"},
    {R"({"vnics_edit":[{"network_id":"x"}]})", R"(vincs_edit[0]["network_id"] is invalid)"},
    {R"({"vnics_edit":[{"network_id":""}]})", R"(vincs_edit[0]["vnic_id"] is invalid)"},
    {R"({"vnics_edit":[{"vnic_id":"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10","vnic_type":null}]})",
     R"(vincs_edit[0]["vinc_type"] is not int)"},
    {R"({"vdisks_add":[{"vdisk_size":1},{"vdisk_size":1},{"vdisk_size":0}]})", R"(vdisks_add[2]["vdisk_size"] <= 0)"},
    {R"({"vdisks_del":[{"vdisk_id":""}]})", R"(vdisks_del[0]["vdisk_id"] is empty)"},
    {R"({"vdisks_edit":[{"vdisk_id":"x","vdisk_size":0}]})", R"(vdisks_edit[0]["vdisk_id"] is empty)"},
    {R"({"vdisks_edit":[{"vdisk_id":"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10","vdisk_size":-1}]})",
     R"(vdisks_edit[0]["vdisk_size"] <= 0)"},
    {R"({"vdisks_order":["c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10"]})", R"(vdisks_order[0]["vdisk_id"] is empty)"},
    {R"({"iso_images":["image-1",5]})", "iso_images is invalid"},
};

class GuestSetMessages : public GuestSet, public testing::WithParamInterface<Message> {};

TEST_P(GuestSetMessages, Set_InvalidElement_IsReportedVerbatim) {
  const Json::Value parameters = With(GetParam().members);
  ExpectRefused(parameters, 401, {BadParameters(GetParam().complaint, parameters)});
}

INSTANTIATE_TEST_SUITE_P(Rows, GuestSetMessages, testing::ValuesIn(kMessages),
                         [](const auto& test) { return std::to_string(test.index); });

TEST_F(GuestSetDevices, Log_PercentInParameters_IsNotExpanded) {
  const Json::Value parameters = With(R"({"vnics_del":[{"vnic_id":"%s%n%d"}],"desc":"%n"})");
  ExpectRefused(parameters, 401, {BadParameters(R"(vincs_del[0]["vnic_id"] is invalid)", parameters)});
}

// Network interfaces.

Json::Value Nic(const std::string& mac) {
  Json::Value nic = Parsed(R"({"network_id":"","prefer_sriov":false,"vnic_type":1})");
  nic["mac"] = mac;
  return nic;
}

void ExpectAddressInUse(const VEXA::APIResponse& response, const std::string& details) {
  EXPECT_EQ(response.ErrorCode(), 910);
  EXPECT_EQ(Text(response.Data()), details);
}

TEST_F(GuestSetDevices, Set_AddressInUse_HasDetailsWithoutLogLine) {
  Platform().address_check_result = 1;
  Platform().address_user = "other";
  Platform().names["guest/other"] = "mail";
  Json::Value nics(Json::arrayValue);
  nics.append(Nic("02:00:00:00:00:01"));
  ExpectAddressInUse(Set(With("vnics_add", nics)), R"({"guest_name":"mail","mac_addr":"02:00:00:00:00:01"})");
  nics[0]["vnic_id"] = kId;
  ExpectAddressInUse(Set(With("vnics_edit", nics)), R"({"guest_name":"mail","mac_addr":"02:00:00:00:00:01"})");
  ExpectNoLine();
  ExpectNothingDone();
}

TEST_F(GuestSetDevices, Set_AddressCannotBeChecked_IsRefused) {
  Platform().address_check_result = -1;
  ExpectAddressInUse(Set(With(R"({"vnics_edit":[{"vnic_id":"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10","mac":"x"}]})")),
                     R"({"mac_addr":"x"})");
  ExpectNoLine();
}

TEST_F(GuestSetDevices, Set_InvalidAddressOfFirstNic_IsReportedBeforeSecond) {
  Platform().address_check_result = 1;
  for (const char* list : {"vnics_add", "vnics_edit"}) {
    Json::Value nics(Json::arrayValue);
    nics.append(Nic("02:00:00:00:00:01"));
    nics[0]["vnic_id"] = kId;
    nics.append("no interface");
    ExpectAddressInUse(Set(With(list, nics)), R"({"mac_addr":"02:00:00:00:00:01"})");
    ExpectNoLine();
  }
}

TEST_F(GuestSetDevices, Set_FirstNicInvalid_IsRefusedBeforeAddressCheck) {
  Platform().address_check_result = 1;
  const Json::Value parameters =
      With(R"({"vnics_add":[{"prefer_sriov":true,"mac":"x"},{"prefer_sriov":true,"vnic_type":1,"mac":"x"}]})");
  ExpectRefused(parameters, 401, {BadParameters(R"(vincs_add[0]["vinc_type"] is not int)", parameters)});
  EXPECT_TRUE(Platform().checked_addresses.empty());
}

// Of an added interface the address comes last; of an edited one, before the type.
TEST_F(GuestSetDevices, Set_TypeAndAddressInvalid_AreReportedInListOrder) {
  Platform().address_check_result = 1;
  Json::Value nics(Json::arrayValue);
  nics.append(Nic("m"));
  nics[0]["vnic_type"] = "x";
  nics[0]["vnic_id"] = kId;
  const Json::Value add = With("vnics_add", nics);
  ExpectRefused(add, 401, {BadParameters(R"(vincs_add[0]["vinc_type"] is not int)", add)});
  ExpectAddressInUse(Set(With("vnics_edit", nics)), R"({"mac_addr":"m"})");
  ExpectNoLine();
}

TEST_F(GuestSetDevices, Set_AddressOfAnyType_IsLookedUpAsText) {
  const std::pair<const char*, const char*> rows[] = {{"null", ""},     {"\"\"", ""}, {"5", "5"},
                                                      {"true", "true"}, {"[1]", ""},  {"{}", ""}};
  for (const auto& [mac, asked] : rows) {
    SetUp();
    const std::string members = std::string(R"({"vnics_add":[{"prefer_sriov":true,"vnic_type":1,"mac":)") + mac + "}]}";
    ExpectEdited(Set(With(members)));
    EXPECT_EQ(Platform().checked_addresses, std::vector<std::string>{asked}) << mac;
    ExpectOrder("south", members);
  }
}

TEST_F(GuestSetDevices, Set_MissingMembers_AreNotAdded) {
  const char* members =
      R"({"vnics_add":[{"prefer_sriov":true,"vnic_type":1}],
          "vnics_edit":[{"vnic_id":"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10"}]})";
  ExpectEdited(Set(With(members)));
  ExpectOrder("south", members);
  EXPECT_TRUE(Platform().checked_addresses.empty());
}

TEST_F(GuestSetDevices, VnicType_WholeRealNumber_CountsAsInteger) {
  ExpectEdited(Set(With(R"({"vnics_add":[{"prefer_sriov":true,"vnic_type":2.0}]})")));
}

TEST_F(GuestSetDevices, VnicType_Beyond32Bits_IsNotInteger) {
  const Json::Value parameters = With(R"({"vnics_add":[{"prefer_sriov":true,"vnic_type":2147483648}]})");
  ExpectRefused(parameters, 401, {BadParameters(R"(vincs_add[0]["vinc_type"] is not int)", parameters)});
}

// Disks.

TEST_F(GuestSetDevices, DiskSizes_Large_AreMultipliedIn64Bits) {
  const std::pair<const char*, const char*> rows[] = {{"20", "20480"},           {"1", "1024"},
                                                      {"2.5", "2048"},           {"true", "1024"},
                                                      {"2097152", "2147483648"}, {"2147483647", "2199023254528"}};
  for (const auto& [size, sent] : rows) {
    SetUp();
    const auto disks = [](const char* value) {
      return std::string(R"({"vdisks_add":[{"vdisk_size":)") + value + R"(,"more":[1]}],"vdisks_edit":[{"vdisk_id":")" +
             kId + R"(","vdisk_size":)" + value + "}]}";
    };
    ExpectEdited(Set(With(disks(size))));
    ExpectOrder("north", disks(sent));
  }
}

TEST_F(GuestSetDevices, Set_InvalidSizes_AreRefused) {
  for (const char* size : {"0", "-1", "0.9", "-2.5", "\"20\"", "null", "false", "[]", "{}", "2147483648", "4294967297",
                           "-9223372036854775808", "18446744073709551615", "1e300"}) {
    const Json::Value parameters = With(std::string(R"({"vdisks_add":[{"vdisk_size":)") + size + "}]}");
    ExpectRefused(parameters, 401, {BadParameters(R"(vdisks_add[0]["vdisk_size"] <= 0)", parameters)});
  }
}

TEST_F(GuestSetDevices, DiskSizes_OrderedList_AreNotMultiplied) {
  const std::string members = std::string(R"({"vdisks_order":[{"vdisk_id":")") + kId +
                              R"(","vdisk_size":20}],"vdisks_del":[{"vdisk_id":")" + kId + R"(","vdisk_size":20}]})";
  ExpectEdited(Set(With(members)));
  ExpectOrder("north", members);
}

// Lists are checked in a fixed order, and before images, and those before USB.
TEST_F(GuestSetDevices, Set_SeveralInvalidLists_FirstIsReported) {
  Json::Value parameters = With(R"({"iso_images":[5],"usb_version":9})");
  for (const char* list : kLists) parameters[list].append(Json::Value());
  for (const char* list : kLists) {
    const Finding finding = FindingOf(list, Json::Value());
    ExpectRefused(parameters, 401, {BadParameters(finding.first + "[0]" + finding.second, parameters)});
    parameters[list] = Json::Value(Json::arrayValue);
  }
  ExpectRefused(parameters, 401, {BadParameters("iso_images is invalid", parameters)});
  parameters.removeMember("iso_images");
  ExpectRefused(parameters, 401, {"guest: Unknown usb version (9)"});
}

// Images.

TEST_F(GuestSetDevices, Images_Each_AreLookedUpAsIdThenAsPath) {
  ExpectEdited(Set(With(R"({"iso_images":["image-1","/isos/good.iso","unmounted"]})")));
  EXPECT_EQ(Platform().requested_images,
            (std::vector<std::string>{"id image-1", "id /isos/good.iso", "path /isos/good.iso", "id unmounted"}));
}

TEST_F(GuestSetDevices, Images_EmptyList_IsForwarded) {
  ExpectEdited(Set(With(R"({"iso_images":[]})")));
  ExpectOrder("south", R"({"iso_images":[]})");
}

TEST_F(GuestSetDevices, Set_InvalidImages_FirstOneDeterminesCode) {
  const std::pair<const char*, int> rows[] = {
      {R"(["/isos/bad.iso"])", 934},
      {R"(["unmounted","/isos/bad.iso"])", 934},
      {R"(["/isos/bad.iso",5])", 934},
      {R"([5,"/isos/bad.iso"])", 401},
      {R"(["nothing"])", 401},
      {R"(["nothing","/isos/bad.iso"])", 401},
      {R"([""])", 401},
      {R"([null])", 401},
      {R"([true])", 401},
      {R"([["/isos/bad.iso"]])", 401},
      {R"([{"/isos/bad.iso":1}])", 401},
      {R"(["image-1 "])", 401},
  };
  for (const auto& [images, code] : rows) {
    const Json::Value parameters = With("iso_images", Parsed(images));
    ExpectRefused(parameters, code, {BadParameters("iso_images is invalid", parameters)});
  }
}

TEST_F(GuestSetDevices, Set_ImageNotText_IsNotLookedUp) {
  Platform().image_ids = {"5", "true", ""};
  for (const char* images : {"[5]", "[true]", "[null]", "[[]]"}) {
    const Json::Value parameters = With("iso_images", Parsed(images));
    ExpectRefused(parameters, 401, {BadParameters("iso_images is invalid", parameters)});
  }
  EXPECT_TRUE(Platform().requested_images.empty());
}

// USB.

TEST_F(GuestSetDevices, UsbVersion_Negative_ComparedUnsignedAndReportedSigned) {
  for (const int version : {0, 1, 2, 3}) {
    SetUp();
    ExpectEdited(Set(With("usb_version", version)));
    ExpectOrder("south", "{\"usb_version\":" + std::to_string(version) + "}");
  }
  SetUp();
  for (const int version : {4, 5, 2147483647, -1, -2147483647 - 1}) {
    ExpectRefused(With("usb_version", version), 401, {"guest: Unknown usb version (" + std::to_string(version) + ")"});
  }
}

TEST_F(GuestSetDevices, Set_UsbDevices_AreForwardedUnchanged) {
  const char* members = R"({"usbs":[null,{"a":[]},"x",-1,[[]]]})";
  ExpectEdited(Set(With(members)));
  ExpectOrder("south", members);
}

}  // namespace
}  // namespace vexa::test
