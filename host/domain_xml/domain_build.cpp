#include "host/domain_xml/domain_build.h"

#include <sstream>

#include "host/base/uuid.h"
#include "host/domain_xml/domain_build_internal.h"
#include "host/domain_xml/domain_overlay.h"

namespace vexa::domain_xml {
namespace build {
namespace {

Status Check(const GuestRecords& records, const BuildOptions& options) {
  if (NormalizeUuid(records.id).empty()) {
    return Invalid("The id of the guest, {}, is not a UUID. Use the form 8-4-4-4-12", Quote(records.id));
  }
  if (!records.guest.isObject()) return Invalid("The record of the guest is not an object");
  if (options.domain_type != "kvm" && options.domain_type != "qemu" && options.domain_type != "test") {
    return Invalid("The type of the domain is {}. Use 'kvm', 'qemu' or 'test'", Quote(options.domain_type));
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

std::string TextOf(const pugi::xml_document& document) {
  std::ostringstream text;
  document.save(text, "  ", pugi::format_indent | pugi::format_no_declaration, pugi::encoding_utf8);
  return text.str();
}

}  // namespace build

Result<std::string> BuildDomainXml(const GuestRecords& records, const BuildOptions& options) {
  if (Status valid = build::Check(records, options); !valid) return valid.error();
  pugi::xml_document document;
  if (!options.base_xml.empty()) {
    if (Status applied = overlay::Apply(records, options, document); !applied) return applied.error();
    return build::TextOf(document);
  }
  build::Context context{records, options};
  context.domain = document.append_child("domain");
  if (Status written = build::WriteGuest(context); !written) return written.error();
  return build::TextOf(document);
}

}  // namespace vexa::domain_xml
