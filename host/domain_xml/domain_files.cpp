#include "host/domain_xml/domain_files.h"

#include <utility>

#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml {
namespace {

using parse::Invalid;
using parse::Quote;

constexpr std::string_view kCommandLineElement = "qemu:commandline";

// libvirt writes <backingStore/> for an image that has none.
bool NamesImage(pugi::xml_node element) { return element.attribute("type") || element.child("source"); }

Status CheckStandsAlone(pugi::xml_node disk, const std::string& name, std::string_view format) {
  if (format != "raw" && format != "qcow2") {
    return Invalid("The {} has the format {}: convert the image to qcow2 or raw first", name, Quote(format));
  }
  if (NamesImage(disk.child("backingStore"))) {
    return Invalid(
        "The {} has a backing image. Merge both into one image with 'qemu-img convert', and remove "
        "<backingStore>",
        name);
  }
  if (disk.child("source").child("dataStore")) {
    return Invalid(
        "The {} has its data in another file. Merge both into one image with 'qemu-img convert', and remove "
        "<dataStore>",
        name);
  }
  return {};
}

// Adds the image of a disk or drive. Disks on the network have no files on this machine.
Status ReadDisk(pugi::xml_node disk, DomainFiles& files) {
  const std::string_view type = disk.attribute("type").as_string("file");
  const std::string_view device = disk.attribute("device").as_string("disk");
  const bool is_drive = device == "cdrom" || device == "floppy";
  const std::string name =
      fmt::format("{} {}", is_drive ? "drive" : "disk", Quote(disk.child("target").attribute("dev").value()));
  const pugi::xml_node source = disk.child("source");
  if (type == "volume") return Invalid("The {} is in a storage pool. Name its file instead", name);
  if (type == "dir") files.shared_folders.emplace_back(source.attribute("dir").value());
  if (type != "file" && type != "block") return {};
  DomainImage image;
  image.name = name;
  image.path = source.attribute(type == "file" ? "file" : "dev").value();
  image.is_optional = static_cast<bool>(source.attribute("startupPolicy"));
  if (image.path.empty()) return {};
  const std::string_view format = disk.child("driver").attribute("type").as_string("raw");
  if (Status alone = CheckStandsAlone(disk, name, format); !alone) return alone;
  image.format = format == "qcow2" ? ImageFormat::kQcow2 : ImageFormat::kRaw;
  files.images.push_back(std::move(image));
  return {};
}

void ReadVariables(pugi::xml_node nvram, DomainFiles& files) {
  DomainImage image;
  image.name = "file with the UEFI variables";
  image.path = parse::NvramPath(nvram);
  image.is_optional = true;
  if (std::string_view(nvram.attribute("format").value()) == "qcow2") image.format = ImageFormat::kQcow2;
  if (!image.path.empty()) files.images.push_back(std::move(image));
}

// Adds every absolute path in `element`. The depth of a loaded document is limited.
void AddPaths(pugi::xml_node element, std::vector<std::string>& paths) {
  const auto add = [&](std::string_view text) {
    const std::string_view path = parse::Trim(text);
    if (path.starts_with('/')) paths.emplace_back(path);
  };
  add(parse::TextOf(element));
  for (const pugi::xml_attribute attribute : element.attributes()) add(attribute.value());
  for (const pugi::xml_node child : element.children()) AddPaths(child, paths);
}

}  // namespace

Result<DomainFiles> ParseDomainFiles(std::string_view xml) {
  pugi::xml_document document;
  if (const Status loaded = parse::Load(xml, document); !loaded) return loaded.error();
  const pugi::xml_node domain = document.document_element();
  DomainFiles files;
  for (const pugi::xml_node device : domain.child("devices").children()) {
    const std::string_view name = device.name();
    if (name == "disk") {
      if (Status read = ReadDisk(device, files); !read) return read.error();
    } else if (name == "filesystem") {
      files.shared_folders.emplace_back(device.child("source").attribute("dir").value());
    } else if (name != "interface") {
      // Names of networks come from records.
      AddPaths(device, files.other_files);
    }
  }
  for (const pugi::xml_node part : domain.child("os").children()) {
    if (std::string_view(part.name()) == "nvram") {
      ReadVariables(part, files);
    } else {
      AddPaths(part, files.other_files);
    }
  }
  for (const pugi::xml_node argument : domain.child(kCommandLineElement.data()).children()) {
    files.arguments.emplace_back(argument.attribute("value").value());
  }
  std::erase(files.shared_folders, "");
  return files;
}

FirmwareFiles ParseFirmwareFiles(std::string_view xml) {
  pugi::xml_document document;
  if (const Status loaded = parse::Load(xml, document); !loaded) return {};
  const pugi::xml_node os = document.document_element().child("os");
  return {std::string(parse::Trim(parse::TextOf(os.child("loader")))), parse::NvramPath(os.child("nvram"))};
}

}  // namespace vexa::domain_xml
