#include "host/domain_xml/domain_build.h"

#include <sstream>

#include "host/base/uuid.h"
#include "host/domain_xml/domain_build_internal.h"
#include "host/domain_xml/domain_overlay.h"
#include "host/domain_xml/domain_xml.h"
#include "host/domain_xml/domain_xml_internal.h"

namespace vexa::hypervisor {
namespace domain_build {
namespace {

Status Check(const GuestRecords& records, const BuildOptions& options) {
  using domain_xml::Quote;
  using domain_xml::Refused;
  if (NormalizeUuid(records.id).empty()) {
    return Refused("The id of the guest, " + Quote(records.id) + ", is not a UUID. Use the form 8-4-4-4-12");
  }
  if (!records.guest.isObject()) return Refused("The record of the guest is not an object");
  if (options.domain_type != "kvm" && options.domain_type != "qemu" && options.domain_type != "test") {
    return Refused("The type of the domain is " + Quote(options.domain_type) + ": give 'kvm', 'qemu' or 'test'");
  }
  return {};
}

}  // namespace

Status WriteGuest(Context& context) {
  Set(context.domain, "type", context.options.domain_type);
  context.legacy_machine = NeedsLegacyMachine(context.records);
  for (const auto write : {WriteIdentity, WriteProcessor, WriteSystem}) {
    if (Status part = write(context); !part) return part;
  }
  context.devices = Add(context.domain, "devices");
  for (const auto write : {WriteDisks, WriteNics, WriteUsb, WriteConsole}) {
    if (Status part = write(context); !part) return part;
  }
  return {};
}

}  // namespace domain_build

namespace {

std::string Print(const pugi::xml_document& document) {
  std::ostringstream text;
  document.save(text, "  ", pugi::format_indent | pugi::format_no_declaration, pugi::encoding_utf8);
  return text.str();
}

}  // namespace

Result<std::string> BuildDomainXml(const GuestRecords& records, const BuildOptions& options) {
  if (Status valid = domain_build::Check(records, options); !valid) return valid.error();
  pugi::xml_document document;
  if (!options.base_xml.empty()) {
    if (Status laid = domain_overlay::Apply(records, options, document); !laid) return laid.error();
    return Print(document);
  }
  domain_build::Context context{records, options};
  context.domain = document.append_child("domain");
  if (Status written = domain_build::WriteGuest(context); !written) return written.error();
  return Print(document);
}

}  // namespace vexa::hypervisor
