#include "host/domain_xml/domain_overlay.h"

#include "host/base/uuid.h"
#include "host/domain_xml/domain_build_internal.h"
#include "host/domain_xml/domain_xml_internal.h"

namespace vexa::hypervisor::domain_overlay {
namespace {

Error CannotRead(const Error& cause) {
  return Error(ErrorCode::kInvalid,
               "The definition that the guest was imported with cannot be used: import the guest again",
               cause.ToString());
}

// A definition does not contain image sizes, so any size will do.
Result<ImportedGuest> ReadBase(const std::string& xml) {
  ImportOptions options;
  options.size_of = [](const std::string&, ImageFormat) -> Result<std::uint64_t> { return std::uint64_t{1} << 20; };
  return ParseDomainXml(xml, options);
}

// What the builder writes for everything except disks, drives and network interfaces, which are handled one by one.
Status BuildRest(const GuestRecords& records, const BuildOptions& options, pugi::xml_document& document) {
  GuestRecords rest;
  rest.id = records.id;
  rest.guest = records.guest;
  rest.guest.removeMember("iso_images");
  domain_build::Context context{rest, options};
  context.domain = document.append_child("domain");
  return domain_build::WriteGuest(context);
}

}  // namespace

Status Apply(const GuestRecords& records, const BuildOptions& options, pugi::xml_document& document) {
  const Result<ImportedGuest> before = ReadBase(options.base_xml);
  if (!before) return CannotRead(before.error());
  if (before->id != NormalizeUuid(records.id)) {
    return domain_xml::Refused("The definition that the guest was imported with is that of the guest '" + before->id +
                               "': import the guest '" + NormalizeUuid(records.id) + "' again");
  }
  if (Status loaded = domain_xml::Load(options.base_xml, document); !loaded) return CannotRead(loaded.error());
  pugi::xml_document built;
  if (Status rest = BuildRest(records, options, built); !rest) return rest;

  Overlay overlay{records, options, *before};
  overlay.domain = document.document_element();
  overlay.devices = ChildOf(overlay.domain, "devices");
  overlay.built = built.document_element();
  for (const auto apply : {ApplyIdentity, ApplyMemory, ApplyProcessor, ApplyTuning, ApplyFirmware, ApplyFeatures,
                           ApplyScreen, ApplyUsb, ApplyDisks, ApplyDrives, ApplyNics, ApplyBootOrder}) {
    if (Status applied = apply(overlay); !applied) return applied;
  }
  return {};
}

}  // namespace vexa::hypervisor::domain_overlay
