#include "host/domain_xml/domain_overlay.h"

#include "host/base/uuid.h"
#include "host/domain_xml/domain_build_internal.h"

namespace vexa::domain_xml::overlay {
namespace {

Error CannotUseBase(const Error& cause) {
  return Error(ErrorCode::kInvalid,
               "The definition that the guest was imported with cannot be used. Import the guest again",
               cause.ToString());
}

// The sizes of images are not part of a definition: the parser gets an arbitrary one.
Result<ImportedGuest> ParseBase(const std::string& xml) {
  ImportOptions options;
  options.size_of = [](const std::string&, ImageFormat) -> Result<std::uint64_t> { return std::uint64_t{1} << 20; };
  return ParseDomainXml(xml, options);
}

// What the builder writes for everything except disks, drives and network interfaces, which are handled one by one.
Status BuildWithoutDisksAndNics(const GuestRecords& records, const BuildOptions& options,
                                pugi::xml_document& document) {
  GuestRecords rest;
  rest.id = records.id;
  rest.guest = records.guest;
  rest.guest.removeMember("iso_images");
  // What a running guest can be given stays as its owner has defined it.
  BuildOptions of_owner = options;
  of_owner.hot_plug = {};
  build::Context context{rest, of_owner};
  context.domain = document.append_child("domain");
  return build::WriteGuest(context);
}

}  // namespace

Status Apply(const GuestRecords& records, const BuildOptions& options, pugi::xml_document& document) {
  const Result<ImportedGuest> base = ParseBase(options.base_xml);
  if (!base) return CannotUseBase(base.error());
  if (base->id != NormalizeUuid(records.id)) {
    return Invalid("The guest '{}' was imported with the definition of the guest '{}'. Import it again",
                   NormalizeUuid(records.id), base->id);
  }
  if (Status loaded = parse::Load(options.base_xml, document); !loaded) return CannotUseBase(loaded.error());
  pugi::xml_document built;
  if (Status rest = BuildWithoutDisksAndNics(records, options, built); !rest) return rest;

  Overlay overlay{records, options, *base};
  overlay.domain = document.document_element();
  overlay.devices = ChildOf(overlay.domain, "devices");
  overlay.built = built.document_element();
  for (const auto apply : {ApplyIdentity, ApplyMemory, ApplyProcessor, ApplyTuning, ApplyFirmware, ApplyFeatures,
                           ApplyScreen, ApplyUsb, ApplyDisks, ApplyDrives, ApplyNics, ApplyBootOrder}) {
    if (Status applied = apply(overlay); !applied) return applied;
  }
  return {};
}

}  // namespace vexa::domain_xml::overlay
