#include "cli/import_sources.h"

#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <utility>

#include "host/base/files.h"
#include "host/domain_xml/domain_files.h"
#include "json/readers.h"

namespace vexa::cli {
namespace {

namespace json = VexaVirtualization::json;

domain_xml::ImportOptions OptionsOf(const ImportArguments& arguments) {
  domain_xml::ImportOptions options;
  options.repository_id = arguments.repository;
  options.host_id = arguments.host;
  options.disk_sizes_mib = arguments.disk_sizes_mib;
  options.networks = arguments.networks;
  options.size_of = domain_xml::ReadImageSize;
  return options;
}

// Whether the URI is on this machine, such as "qemu:///system"; "qemu+ssh://other/system" is not.
bool IsLocal(const std::string& uri) { return uri.find(":///") != std::string::npos; }

std::vector<ImportSource> FilesOf(const ImportArguments& arguments) {
  std::vector<ImportSource> sources;
  for (const std::string& file : arguments.files) {
    ImportSource source;
    source.label = source.file = file;
    source.options = OptionsOf(arguments);
    sources.push_back(std::move(source));
  }
  return sources;
}

Result<std::vector<ImportSource>> DomainsOf(const ImportArguments& arguments,
                                            const hypervisor::DomainConnection& connection) {
  Result<std::vector<hypervisor::InactiveDomain>> domains = connection.List();
  if (!domains) return domains.error();
  std::vector<ImportSource> sources;
  for (hypervisor::InactiveDomain& domain : *domains) {
    ImportSource source;
    source.label = domain.name;
    source.xml = std::move(domain.xml);
    source.autostart = domain.autostart;
    source.options = OptionsOf(arguments);
    // libvirt may be on another machine, and may read images that this user may not.
    source.options.size_of = [&connection, id = domain.id, local = IsLocal(arguments.uri)](
                                 const std::string& path, domain_xml::ImageFormat format) {
      if (!local) return connection.DiskSize(id, path);
      Result<std::uint64_t> own = domain_xml::ReadImageSize(path, format);
      if (own || own.error().code() == ErrorCode::kInvalid) return own;
      Result<std::uint64_t> size = connection.DiskSize(id, path);
      return size ? size : own;
    };
    sources.push_back(std::move(source));
  }
  return sources;
}

// libvirt names the file of the UEFI variables before the guest's first start creates it. Until then it is missing
// without an error.
bool IsNvramFileMissing(const std::string& xml) {
  const std::string path = domain_xml::ParseFirmwareFiles(xml).variables;
  struct stat info {};
  if (path.empty() || ::stat(path.c_str(), &info) == 0 || errno != ENOENT) return false;
  // Without its folder, the file may exist on storage that is not mounted.
  return ::stat(path.substr(0, path.rfind('/') + 1).c_str(), &info) == 0;
}

// The options as the server takes them, without the sizes of images.
Json::Value RequestOf(const domain_xml::ImportOptions& options) {
  Json::Value request(Json::objectValue);
  if (!options.repository_id.empty()) request["repository_id"] = options.repository_id;
  if (!options.host_id.empty()) request["host_id"] = options.host_id;
  // An empty name matches no disk or network, and the server refuses it.
  for (const auto& [name, size] : options.disk_sizes_mib) {
    if (!name.empty()) request["disk_sizes_mib"][name] = Json::UInt64{size};
  }
  for (const auto& [name, id] : options.networks) {
    if (!name.empty()) request["networks"][name] = id;
  }
  return request;
}

// The server converts the definition again, with the sizes that this machine knows.
Status AddImageSizes(const ImportSource& guest, const std::string& xml, Json::Value& request) {
  domain_xml::ImportOptions options = guest.options;
  options.size_of = [&](const std::string& path, domain_xml::ImageFormat format) {
    Result<std::uint64_t> size = guest.options.size_of(path, format);
    if (size) request["image_sizes"][path] = Json::UInt64{*size};
    if (!size && size.error().code() != ErrorCode::kNotFound) request["image_sizes"][path] = Json::Value();
    return size;
  };
  const auto converted = domain_xml::ParseDomainXml(xml, options);
  if (!converted) return converted.error();
  return {};
}

}  // namespace

Result<ImportSources> ImportSources::Open(const ImportArguments& arguments) {
  ImportSources sources;
  sources.are_copied_ = arguments.copies_disks;
  if (!arguments.manifest.empty()) {
    Result<std::vector<ImportSource>> listed = ReadManifest(arguments.manifest);
    if (!listed) return listed.error();
    sources.guests_ = std::move(*listed);
    for (ImportSource& source : sources.guests_) source.options.size_of = domain_xml::ReadImageSize;
  } else if (!arguments.uri.empty()) {
    auto connection = hypervisor::DomainConnection::Open(arguments.uri);
    if (!connection) return connection.error();
    sources.connection_ = std::move(*connection);
    sources.are_files_local_ = IsLocal(arguments.uri);
    Result<std::vector<ImportSource>> domains = DomainsOf(arguments, *sources.connection_);
    if (!domains) return domains.error();
    sources.guests_ = std::move(*domains);
  } else {
    sources.guests_ = FilesOf(arguments);
  }
  return sources;
}

Result<Json::Value> ImportSources::Prepare(const ImportSource& guest) const {
  std::string xml;
  if (guest.xml) {
    xml = *guest.xml;
  } else {
    Result<std::string> text = ReadFile(guest.file, domain_xml::kMaxDomainXmlBytes);
    if (!text) return text.error();
    xml = std::move(*text);
  }
  Json::Value request = RequestOf(guest.options);
  if (!are_copied_) {
    if (Status converted = AddImageSizes(guest, xml, request); !converted) return converted.error();
  }
  if (are_files_local_ && IsNvramFileMissing(xml)) request["has_variables"] = false;
  if (guest.autostart) request["autostart"] = true;
  if (!guest.expected_id.empty()) request["guest_id"] = guest.expected_id;
  request["xml"] = xml;
  return request;
}

}  // namespace vexa::cli
