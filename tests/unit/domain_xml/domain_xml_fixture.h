// Domain XML for tests: a small valid guest into which elements can be inserted.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "host/domain_xml/domain_parse.h"

namespace vexa::domain_xml {

inline constexpr const char* kId = "11111111-2222-4333-8444-555555555555";

struct DomainParts {
  std::string name = "<name>guest</name>";
  std::string uuid = "<uuid>11111111-2222-4333-8444-555555555555</uuid>";
  std::string memory = "<memory unit='MiB'>512</memory>";
  std::string rest;  // more children of <domain>
  std::string devices;

  std::string Text() const {
    return "<domain type='kvm'>" + name + uuid + memory + rest + "<devices>" + devices + "</devices></domain>";
  }
};

inline std::string DomainWith(const std::string& rest, const std::string& devices = "") {
  DomainParts domain;
  domain.rest = rest;
  domain.devices = devices;
  return domain.Text();
}

inline std::string Disk(const std::string& target = "vda", const std::string& inside = "") {
  return "<disk type='file' device='disk'><driver name='qemu' type='qcow2'/><source file='/images/" + target +
         "'/><target dev='" + target + "' bus='virtio'/>" + inside + "</disk>";
}

inline std::string Nic(const std::string& mac = "52:54:00:00:00:01", const std::string& inside = "") {
  return "<interface type='network'><mac address='" + mac + "'/><source network='default'/><model type='virtio'/>" +
         inside + "</interface>";
}

// Every image has 3 GiB.
inline ImportOptions WithImages() {
  ImportOptions options;
  options.size_of = [](const std::string&, ImageFormat) -> Result<std::uint64_t> { return std::uint64_t{3} << 30; };
  return options;
}

inline ImportedGuest MustParse(const std::string& xml, const ImportOptions& options = WithImages()) {
  Result<ImportedGuest> guest = ParseDomainXml(xml, options);
  EXPECT_TRUE(guest.ok()) << (guest.ok() ? "" : guest.error().ToString()) << "\n" << xml.substr(0, 2000);
  return guest.ok() ? *guest : ImportedGuest{};
}

// The sentence of the refusal, "" when the XML was accepted.
inline std::string RefusalOf(const std::string& xml, const ImportOptions& options = WithImages()) {
  const Result<ImportedGuest> guest = ParseDomainXml(xml, options);
  if (guest.ok()) return "";
  EXPECT_EQ(guest.error().code(), ErrorCode::kInvalid);
  return guest.error().ToString();
}

}  // namespace vexa::domain_xml
