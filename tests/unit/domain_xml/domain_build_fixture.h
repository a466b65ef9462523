// Records of a small guest to build domain XML from.
#pragma once

#include <gtest/gtest.h>

#include <pugixml.hpp>
#include <string>

#include "host/domain_xml/domain_build.h"
#include "host/domain_xml/domain_parse.h"

namespace vexa::domain_xml {

inline GuestRecords SmallGuest() {
  GuestRecords records;
  records.id = "11111111-2222-4333-8444-555555555555";
  records.guest["name"] = "guest";
  records.guest["vram_size"] = 512;
  records.guest["vcpu_num"] = 2;
  return records;
}

inline Json::Value DiskRecord(const std::string& name, int mode) {
  Json::Value disk(Json::objectValue);
  disk["name"] = name;
  disk["path"] = "/images/" + name + ".qcow2";
  disk["driver"] = "qcow2";
  disk["vdisk_mode"] = mode;
  return disk;
}

inline Json::Value NicRecord(const std::string& mac, const std::string& network) {
  Json::Value nic(Json::objectValue);
  nic["mac_address"] = mac;
  nic["network_name"] = network;
  nic["vnic_type"] = 1;
  return nic;
}

inline std::string MustBuild(const GuestRecords& records, const BuildOptions& options = {}) {
  const Result<std::string> xml = BuildDomainXml(records, options);
  EXPECT_TRUE(xml.ok()) << (xml.ok() ? "" : xml.error().ToString());
  return xml.ok() ? *xml : "";
}

// The sentence of the refusal, "" when the records were accepted.
inline std::string BuildRefusalOf(const GuestRecords& records, const BuildOptions& options = {}) {
  const Result<std::string> xml = BuildDomainXml(records, options);
  if (xml.ok()) return "";
  EXPECT_EQ(xml.error().code(), ErrorCode::kInvalid);
  return xml.error().ToString();
}

// What stands at an XPath, as text.
inline std::string At(const std::string& xml, const std::string& path) {
  pugi::xml_document document;
  EXPECT_TRUE(document.load_string(xml.c_str())) << xml;
  return pugi::xpath_query(("string(" + path + ")").c_str()).evaluate_string(document);
}

inline std::size_t CountAt(const std::string& xml, const std::string& path) {
  pugi::xml_document document;
  EXPECT_TRUE(document.load_string(xml.c_str())) << xml;
  return document.select_nodes(path.c_str()).size();
}

}  // namespace vexa::domain_xml
